#pragma once

// A plot as inline SVG, with axes, a grid, event marks and a legend. Draws what it is given, once.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vosk::rig {

// Text that stands for itself inside HTML and SVG, in attributes too.
std::string EscapeHtml(std::string_view text);

struct PlotSeries {
    enum class Style { Line, Dots, Bars, Band };

    std::string name;
    std::string css_class;  // its colour
    Style style = Style::Line;
    std::vector<double> x;
    std::vector<double> y;
    std::vector<double> y_low;  // Band: the lower edge
};

struct PlotMark {
    double x;
    std::string text;
};

struct Plot {
    std::string title;
    std::string x_label;
    std::string y_label;
    bool logarithmic_y = false;  // values below 1 stand at 1
    std::vector<PlotSeries> series;
    std::vector<PlotMark> marks;
};

std::string DrawSvg(const Plot& plot);

}  // namespace vosk::rig
