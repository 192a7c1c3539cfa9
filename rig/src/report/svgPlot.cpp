#include "report/svgPlot.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <vector>

namespace vosk::rig {
namespace {

constexpr double WIDTH = 960.0;
constexpr double HEIGHT = 300.0;
constexpr double LEFT = 70.0;
constexpr double RIGHT = 20.0;
constexpr double TOP = 34.0;
constexpr double BOTTOM = 46.0;

struct Axis {
    double low = std::numeric_limits<double>::infinity();
    double high = -std::numeric_limits<double>::infinity();

    void Include(double value) {
        if (!std::isfinite(value)) return;
        low = std::min(low, value);
        high = std::max(high, value);
    }
    void Settle() {
        if (low > high) *this = {0.0, 1.0};
        if (high - low < 1e-12) high = low + 1.0;
    }
    double Part(double value) const { return (value - low) / (high - low); }
};

// A step of 1, 2 or 5 times a power of ten that gives about `count` ticks.
double TickStep(const Axis& axis, int count) {
    const double rough = (axis.high - axis.low) / count;
    const double power = std::pow(10.0, std::floor(std::log10(rough)));
    const double digit = rough / power;
    return power * (digit < 1.5 ? 1.0 : digit < 3.5 ? 2.0 : digit < 7.5 ? 5.0 : 10.0);
}

// The multiples of the step on the axis, its ends included whatever rounding does to them.
std::vector<double> Ticks(const Axis& axis, double step) {
    const long last = std::lround(std::floor(axis.high / step + 1e-9));
    std::vector<double> ticks;
    for (long i = std::lround(std::ceil(axis.low / step - 1e-9)); i <= last; ++i) {
        ticks.push_back(static_cast<double>(i) * step);
    }
    return ticks;
}

class Canvas {
public:
    explicit Canvas(const Plot& plot) : m_plot(plot) {
        for (const PlotSeries& series : plot.series) {
            for (double value : series.x) m_x.Include(value);
            for (double value : series.y) m_y.Include(Scaled(value));
            for (double value : series.y_low) m_y.Include(Scaled(value));
            if (series.style != PlotSeries::Style::Bars) continue;
            m_y.Include(0.0);
            // The last bar has the width of the others.
            if (series.x.size() > 1) m_x.Include(series.x.back() + series.x[1] - series.x[0]);
        }
        m_x.Settle();
        m_y.Settle();
    }

    std::string Draw() {
        Write("<svg viewBox=\"0 0 {} {}\" role=\"img\"><title>{}</title>\n", WIDTH, HEIGHT,
              EscapeHtml(m_plot.title));
        Write("<text class=\"title\" x=\"{}\" y=\"16\">{}</text>\n", LEFT, EscapeHtml(m_plot.title));
        DrawGrid();
        for (const PlotSeries& series : m_plot.series) DrawSeries(series);
        for (const PlotMark& mark : m_plot.marks) DrawMark(mark);
        DrawLegend();
        Write("</svg>\n");
        return std::move(m_svg);
    }

private:
    template <class... Args>
    void Write(fmt::format_string<Args...> format, Args&&... args) {
        fmt::format_to(std::back_inserter(m_svg), format, std::forward<Args>(args)...);
    }

    double Scaled(double value) const {
        return m_plot.logarithmic_y ? std::log10(std::max(value, 1.0)) : value;
    }
    double X(double value) const { return LEFT + m_x.Part(value) * (WIDTH - LEFT - RIGHT); }
    double Y(double value) const {
        return HEIGHT - BOTTOM - m_y.Part(Scaled(value)) * (HEIGHT - TOP - BOTTOM);
    }

    void DrawGrid() {
        const double x_step = TickStep(m_x, 10);
        for (const double tick : Ticks(m_x, x_step)) {
            Write("<line class=\"grid\" x1=\"{0:.1f}\" x2=\"{0:.1f}\" y1=\"{1}\" y2=\"{2}\"/>", X(tick), TOP,
                  HEIGHT - BOTTOM);
            Write("<text class=\"tick\" text-anchor=\"middle\" x=\"{:.1f}\" y=\"{}\">{:g}</text>\n", X(tick),
                  HEIGHT - BOTTOM + 15, tick);
        }
        const double y_step = m_plot.logarithmic_y ? 1.0 : TickStep(m_y, 6);
        for (const double tick : Ticks(m_y, y_step)) {
            const double value = m_plot.logarithmic_y ? std::pow(10.0, tick) : tick;
            Write("<line class=\"grid\" x1=\"{0}\" x2=\"{1}\" y1=\"{2:.1f}\" y2=\"{2:.1f}\"/>", LEFT,
                  WIDTH - RIGHT, Y(value));
            Write("<text class=\"tick\" text-anchor=\"end\" x=\"{}\" y=\"{:.1f}\">{:g}</text>\n", LEFT - 6,
                  Y(value) + 4, value);
        }
        Write("<text class=\"label\" text-anchor=\"middle\" x=\"{}\" y=\"{}\">{}</text>\n",
              (LEFT + WIDTH - RIGHT) / 2, HEIGHT - 10, EscapeHtml(m_plot.x_label));
        Write(
            "<text class=\"label\" text-anchor=\"middle\" transform=\"translate(14 {}) "
            "rotate(-90)\">{}</text>\n",
            (TOP + HEIGHT - BOTTOM) / 2, EscapeHtml(m_plot.y_label));
    }

    void DrawSeries(const PlotSeries& series) {
        if (series.x.empty()) return;
        switch (series.style) {
            case PlotSeries::Style::Line:
                DrawLine(series);
                break;
            case PlotSeries::Style::Band:
                DrawBand(series);
                break;
            case PlotSeries::Style::Dots:
                for (std::size_t i = 0; i < series.x.size(); ++i)
                    Write("<circle class=\"{} dot\" cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"2.5\"/>\n",
                          series.css_class, X(series.x[i]), Y(series.y[i]));
                break;
            case PlotSeries::Style::Bars:
                DrawBars(series);
                break;
        }
    }

    void DrawLine(const PlotSeries& series) {
        Write("<path class=\"{} line\" d=\"", series.css_class);
        bool pen_down = false;
        for (std::size_t i = 0; i < series.x.size(); ++i) {
            // A value that is not finite lifts the pen: a gap in the data stays a gap.
            if (!std::isfinite(series.y[i])) {
                pen_down = false;
                continue;
            }
            Write("{}{:.1f} {:.1f}", pen_down ? 'L' : 'M', X(series.x[i]), Y(series.y[i]));
            pen_down = true;
        }
        Write("\"/>\n");
    }

    void DrawBand(const PlotSeries& series) {
        Write("<path class=\"{} band\" d=\"", series.css_class);
        for (std::size_t i = 0; i < series.x.size(); ++i) {
            if (!std::isfinite(series.y[i])) continue;
            Write("M{:.1f} {:.1f}V{:.1f}", X(series.x[i]), Y(series.y[i]) - 0.5, Y(series.y_low[i]) + 0.5);
        }
        Write("\"/>\n");
    }

    void DrawBars(const PlotSeries& series) {
        const double width = series.x.size() > 1 ? X(series.x[1]) - X(series.x[0]) : 4.0;
        for (std::size_t i = 0; i < series.x.size(); ++i) {
            if (series.y[i] <= 0.0) continue;
            // A single entry must be seen on a logarithmic axis that begins at 1.
            const double height = std::max(HEIGHT - BOTTOM - Y(series.y[i]), 2.0);
            Write(
                "<rect class=\"{}\" x=\"{:.1f}\" y=\"{:.1f}\" width=\"{:.1f}\" "
                "height=\"{:.1f}\"><title>{:g}: "
                "{:g}</title></rect>\n",
                series.css_class, X(series.x[i]), HEIGHT - BOTTOM - height, std::max(width - 0.5, 0.5),
                height, series.x[i], series.y[i]);
        }
    }

    void DrawMark(const PlotMark& mark) {
        if (mark.x < m_x.low || mark.x > m_x.high) return;
        Write("<g class=\"mark\"><line x1=\"{0:.1f}\" x2=\"{0:.1f}\" y1=\"{1}\" y2=\"{2}\"/>", X(mark.x),
              TOP - 8, HEIGHT - BOTTOM);
        const bool right_half = m_x.Part(mark.x) > 0.7;
        Write("<text text-anchor=\"{}\" x=\"{:.1f}\" y=\"{}\">{}</text></g>\n", right_half ? "end" : "start",
              X(mark.x) + (right_half ? -4 : 4), TOP + 6 + 13 * static_cast<double>(m_marks_drawn % 3),
              EscapeHtml(mark.text));
        ++m_marks_drawn;
    }

    void DrawLegend() {
        double x = WIDTH - RIGHT;
        for (auto series = m_plot.series.rbegin(); series != m_plot.series.rend(); ++series) {
            if (series->name.empty()) continue;
            x -= 7.0 * static_cast<double>(series->name.size()) + 24.0;
            Write("<rect class=\"{}\" x=\"{:.0f}\" y=\"8\" width=\"12\" height=\"8\"/>", series->css_class,
                  x);
            Write("<text class=\"tick\" x=\"{:.0f}\" y=\"16\">{}</text>\n", x + 16, EscapeHtml(series->name));
        }
    }

    const Plot& m_plot;
    Axis m_x;
    Axis m_y;
    std::size_t m_marks_drawn = 0;
    std::string m_svg;
};

}  // namespace

std::string EscapeHtml(std::string_view text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (const char letter : text) {
        switch (letter) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            case '\'':
                escaped += "&#39;";
                break;
            default:
                escaped += letter;
        }
    }
    return escaped;
}

std::string DrawSvg(const Plot& plot) {
    return Canvas(plot).Draw();
}

}  // namespace vosk::rig
