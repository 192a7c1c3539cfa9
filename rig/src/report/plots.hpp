#pragma once

// Plots of values that a run gathers: against time, and how they are distributed.

#include "report/svgPlot.hpp"

#include <string>
#include <vector>

namespace vosk::rig {

// One value for each of some hundred slices of time, so that a long run draws as fast as a short one and no
// outlier is averaged away.
struct Slices {
    std::vector<double> time;
    std::vector<double> low;
    std::vector<double> median;
    std::vector<double> high;
};

Slices Slice(const std::vector<double>& time, const std::vector<double>& value);
PlotSeries Median(const Slices& slices, const char* name, const char* css_class);
PlotSeries Range(const Slices& slices, const char* name, const char* css_class);

// Range and median of values in microseconds, against seconds after the first command.
Plot PlotOverTime(const std::string& title, const std::vector<double>& time, const std::vector<double>& value,
                  std::vector<PlotMark> marks);
// Values in microseconds. The rarest large ones stand together in one more bar.
Plot Histogram(const std::string& title, const std::string& what, const std::vector<double>& values);

}  // namespace vosk::rig
