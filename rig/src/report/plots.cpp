#include "report/plots.hpp"

#include "report/figures.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <utility>

namespace vosk::rig {

Slices Slice(const std::vector<double>& time, const std::vector<double>& value) {
    constexpr std::size_t COUNT = 600;
    Slices slices;
    if (time.empty()) return slices;
    const double length = std::max((time.back() - time.front()) / COUNT, 1e-9);
    std::vector<double> bucket;
    const auto close = [&](double centre) {
        slices.time.push_back(centre);
        if (bucket.empty()) {
            const double none = std::numeric_limits<double>::quiet_NaN();
            slices.low.push_back(none);
            slices.median.push_back(none);
            slices.high.push_back(none);
            return;
        }
        std::sort(bucket.begin(), bucket.end());
        slices.low.push_back(bucket.front());
        slices.median.push_back(bucket[bucket.size() / 2]);
        slices.high.push_back(bucket.back());
        bucket.clear();
    };
    std::size_t slice = 0;
    for (std::size_t i = 0; i < time.size(); ++i) {
        while (time[i] >= time.front() + length * static_cast<double>(slice + 1) && slice + 1 < COUNT)
            close(time.front() + length * (static_cast<double>(slice++) + 0.5));
        bucket.push_back(value[i]);
    }
    close(time.front() + length * (static_cast<double>(slice) + 0.5));
    return slices;
}

PlotSeries Median(const Slices& slices, const char* name, const char* css_class) {
    return {name, css_class, PlotSeries::Style::Line, slices.time, slices.median, {}};
}

PlotSeries Range(const Slices& slices, const char* name, const char* css_class) {
    return {name, css_class, PlotSeries::Style::Band, slices.time, slices.high, slices.low};
}

Plot PlotOverTime(const std::string& title, const std::vector<double>& time, const std::vector<double>& value,
                  std::vector<PlotMark> marks) {
    const Slices slices = Slice(time, value);
    return {title,
            "s after the first command",
            "us",
            false,
            {Range(slices, "range", "a"), Median(slices, "median", "b")},
            std::move(marks)};
}

Plot Histogram(const std::string& title, const std::string& what, const std::vector<double>& values) {
    constexpr std::size_t BINS = 120;
    const Spread spread = SpreadOf(values);
    // Wide enough for all but the rarest; those stand together in one bin more.
    const double low = std::min(spread.min, 0.0);
    const double top = std::min(spread.max, std::max(10.0 * spread.p99, 1.0));
    const double width = std::max((top - low) / BINS, 1e-3);
    Plot plot{title, "us", what, true, {}, {}};
    PlotSeries bars{what, "a", PlotSeries::Style::Bars, {}, std::vector<double>(BINS + 1, 0.0), {}};
    for (std::size_t bin = 0; bin <= BINS; ++bin) bars.x.push_back(low + width * static_cast<double>(bin));
    for (const double value : values)
        bars.y[std::min(static_cast<std::size_t>((value - low) / width), BINS)] += 1.0;
    if (spread.max > top)
        plot.marks.push_back({bars.x.back(), fmt::format("more, up to {:.0f} us", spread.max)});
    plot.series.push_back(std::move(bars));
    return plot;
}

}  // namespace vosk::rig
