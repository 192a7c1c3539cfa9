#include "cameras/frameView.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace vosk::rig {
namespace {

constexpr Rgb TEXT{225, 225, 225};
constexpr Rgb OUTLINE{40, 90, 150};
constexpr Rgb REFERENCE{255, 205, 50};
constexpr Rgb TRUTH{70, 230, 100};
constexpr Rgb FOUND{255, 80, 110};
constexpr Rgb SHADE{0, 0, 0};
constexpr int MARGIN = 6;

bool Overlap(const Box& a, const Box& b) {
    return a.x_start < b.x_stop && b.x_start < a.x_stop && a.y_start < b.y_stop && b.y_start < a.y_stop;
}

std::vector<float> ValuesOf(const FrameView& view, const Box& box) {
    std::vector<float> values;
    for (std::size_t row = box.y_start; row < box.y_stop; ++row) {
        for (std::size_t column = box.x_start; column < box.x_stop; ++column) {
            const float value = view.values[row * view.width + column];
            if (std::isfinite(value)) values.push_back(value);
        }
    }
    if (values.empty()) values.push_back(0.0F);
    return values;
}

double Quantile(std::vector<float> values, double share) {
    const auto place = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + place, values.end());
    return double{values[static_cast<std::size_t>(place)]};
}

// From values to grey levels.
class Stretch {
public:
    explicit Stretch(const FrameView& view) {
        const std::vector<float> values = ValuesOf(view, view.region);
        m_black = Quantile(values, 0.002);
        m_white = std::max(WhiteOf(view, values), m_black + 1.0);
        // The steepest curve that leaves the sky dark.
        const double sky = (Quantile(values, 0.5) - m_black) / (m_white - m_black);
        double low = 1e-3;
        double high = 1e5;
        while (high > 1.01 * low) {
            const double middle = std::sqrt(low * high);
            (std::asinh(middle * sky) > SKY_LEVEL * std::asinh(middle) ? high : low) = middle;
        }
        m_lift = low;
    }

    double Black() const { return m_black; }
    double White() const { return m_white; }
    Rgb operator()(float value) const {
        const double share = std::clamp((value - m_black) / (m_white - m_black), 0.0, 1.0);
        const auto level = static_cast<std::uint8_t>(
            std::isfinite(value) ? 255.0 * std::asinh(m_lift * share) / std::asinh(m_lift) + 0.5 : 0.0);
        return {level, level, level};
    }

private:
    static constexpr double SKY_LEVEL = 0.12;

    static double WhiteOf(const FrameView& view, const std::vector<float>& values) {
        std::vector<float> peaks;
        for (const Box& box : view.outlines) {
            if (!Overlap(box, view.region)) continue;
            const std::vector<float> inside = ValuesOf(view, box);
            peaks.push_back(*std::max_element(inside.begin(), inside.end()));
        }
        return peaks.empty() ? Quantile(values, 0.998) : Quantile(std::move(peaks), 0.5);
    }

    double m_black = 0.0;
    double m_white = 1.0;
    double m_lift = 1.0;
};

// A word of the legend, and what its color stands for.
struct Word {
    std::string text;
    Rgb color;
};

std::vector<Word> LegendOf(const FrameView& view, const Stretch& stretch) {
    const Box& region = view.region;
    std::vector<Word> words{{view.title, TEXT},
                            {fmt::format("x {}-{}", region.x_start, region.x_stop - 1), TEXT},
                            {fmt::format("y {}-{}", region.y_start, region.y_stop - 1), TEXT},
                            {fmt::format("black {:.0f}", stretch.Black()), TEXT},
                            {fmt::format("white {:.0f}", stretch.White()), TEXT}};
    if (!view.outlines.empty()) words.push_back({"region", OUTLINE});
    if (view.zoom < MARKS_FROM_ZOOM) return words;
    if (!view.references.empty()) words.push_back({"+ reference", REFERENCE});
    if (!view.truths.empty()) words.push_back({"o true", TRUTH});
    if (!view.founds.empty()) words.push_back({"x found", FOUND});
    return words;
}

// Words from left to right, in as many lines as they need.
struct Placed {
    Word word;
    int x;
    int y;
};

std::vector<Placed> PlaceLegend(const std::vector<Word>& words, int width, int top, int dot) {
    std::vector<Placed> placed;
    int x = MARGIN;
    int y = top + MARGIN;
    for (const Word& word : words) {
        const int length = static_cast<int>(word.text.size()) * Canvas::LETTER_WIDTH * dot;
        if (x > MARGIN && x + length > width - MARGIN) {
            x = MARGIN;
            y += Canvas::LETTER_HEIGHT * dot;
        }
        placed.push_back({word, x, y});
        x += length + 2 * Canvas::LETTER_WIDTH * dot;
    }
    return placed;
}

class Drawing {
public:
    Drawing(Canvas& canvas, const FrameView& view, int height)
        : m_canvas(canvas), m_view(view), m_height(height) {}

    void Outline(const Box& box) {
        const int left = Edge(box.x_start, m_view.region.x_start);
        const int right = Edge(box.x_stop, m_view.region.x_start);
        const int top = Edge(box.y_start, m_view.region.y_start);
        const int bottom = Edge(box.y_stop, m_view.region.y_start);
        if (right < 0 || bottom < 0 || left > m_canvas.Width() || top > m_height) return;
        for (const int y : {top, bottom}) {
            if (y < m_height) m_canvas.Line(left, y, right, y, OUTLINE);
        }
        for (const int x : {left, right}) m_canvas.Line(x, top, x, std::min(bottom, m_height - 1), OUTLINE);
    }
    void Plus(const Spot& spot) {
        const int arm = m_view.zoom * 3 / 2;
        Mark(spot, arm, REFERENCE, [&](int x, int y, Rgb color) {
            m_canvas.Line(x - arm, y, x + arm, y, color);
            m_canvas.Line(x, y - arm, x, y + arm, color);
        });
    }
    void Ring(const Spot& spot) {
        const int radius = m_view.zoom;
        Mark(spot, radius, TRUTH, [&](int x, int y, Rgb color) { m_canvas.Ring(x, y, radius, color); });
    }
    void Cross(const Spot& spot) {
        const int arm = m_view.zoom * 3 / 4;
        Mark(spot, arm, FOUND, [&](int x, int y, Rgb color) {
            m_canvas.Line(x - arm, y - arm, x + arm, y + arm, color);
            m_canvas.Line(x - arm, y + arm, x + arm, y - arm, color);
        });
    }

private:
    // Draws a mark over its own shade, so that it stands out on bright light too; none that would leave the
    // frame.
    template <class Draw>
    void Mark(const Spot& spot, int reach, Rgb color, Draw&& draw) {
        const int x = X(spot);
        const int y = Y(spot);
        const int edge = reach + 2;
        if (x < edge || x >= m_canvas.Width() - edge || y < edge || y >= m_height - edge) return;
        const int stroke = m_view.zoom < 10 ? 1 : 2;
        for (int dy = -1; dy <= stroke; ++dy) {
            for (int dx = -1; dx <= stroke; ++dx) draw(x + dx, y + dy, SHADE);
        }
        for (int dy = 0; dy < stroke; ++dy) {
            for (int dx = 0; dx < stroke; ++dx) draw(x + dx, y + dy, color);
        }
    }
    int Edge(std::size_t place, std::size_t start) const {
        return (static_cast<int>(place) - static_cast<int>(start)) * m_view.zoom;
    }
    // The middle of a frame pixel is the middle of its square.
    int Place(double place, std::size_t start) const {
        return static_cast<int>(std::floor((place - static_cast<double>(start) + 0.5) * m_view.zoom));
    }
    int X(const Spot& spot) const { return Place(spot.x, m_view.region.x_start); }
    int Y(const Spot& spot) const { return Place(spot.y, m_view.region.y_start); }

    Canvas& m_canvas;
    const FrameView& m_view;
    const int m_height;  // of the frame, without the legend
};

}  // namespace

Canvas DrawFrame(const FrameView& view) {
    const Box& region = view.region;
    const int width = static_cast<int>(region.x_stop - region.x_start) * view.zoom;
    const int height = static_cast<int>(region.y_stop - region.y_start) * view.zoom;
    const int dot = width < 1200 ? 2 : 3;
    const Stretch stretch(view);
    const std::vector<Placed> legend = PlaceLegend(LegendOf(view, stretch), width, height, dot);
    Canvas canvas(width, legend.back().y + Canvas::LETTER_HEIGHT * dot + MARGIN);
    for (int y = 0; y < height; ++y) {
        const std::size_t row = region.y_start + static_cast<std::size_t>(y / view.zoom);
        for (int x = 0; x < width; ++x) {
            const std::size_t column = region.x_start + static_cast<std::size_t>(x / view.zoom);
            canvas.Set(x, y, stretch(view.values[row * view.width + column]));
        }
    }
    Drawing drawing(canvas, view, height);
    for (const Box& box : view.outlines) drawing.Outline(box);
    if (view.zoom >= MARKS_FROM_ZOOM) {
        for (const Spot& spot : view.references) drawing.Plus(spot);
        for (const Spot& spot : view.truths) drawing.Ring(spot);
        for (const Spot& spot : view.founds) drawing.Cross(spot);
    }
    for (const Placed& placed : legend)
        canvas.Text(placed.x, placed.y, dot, placed.word.text, placed.word.color);
    return canvas;
}

}  // namespace vosk::rig
