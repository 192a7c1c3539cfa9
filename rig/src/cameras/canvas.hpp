#pragma once

// A picture in memory: pixels, lines, a small lettering, and the PNG file that it ends in.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string_view>
#include <vector>

namespace vosk::rig {

struct Rgb {
    std::uint8_t red = 0;
    std::uint8_t green = 0;
    std::uint8_t blue = 0;

    friend bool operator==(const Rgb&, const Rgb&) = default;
};

// What is drawn beyond the edges is lost. Coordinates are pixels, rows counted from the top.
class Canvas {
public:
    // The field of a letter, which has 3 x 5 dots, in dots.
    static constexpr int LETTER_WIDTH = 4;
    static constexpr int LETTER_HEIGHT = 7;

    Canvas(int width, int height);

    int Width() const { return m_width; }
    int Height() const { return m_height; }
    Rgb At(int x, int y) const { return m_pixels[Index(x, y)]; }

    void Set(int x, int y, Rgb color);
    void Fill(int x, int y, int width, int height, Rgb color);
    void Line(int x_from, int y_from, int x_to, int y_to, Rgb color);
    void Ring(int x, int y, int radius, Rgb color);
    // From the upper left corner on, with dots of `dot` pixels. Letters of either case are drawn as capitals,
    // unknown ones as blanks.
    void Text(int x, int y, int dot, std::string_view text, Rgb color);

    // Throws std::runtime_error if the file can't be written. Missing directories are made.
    void WritePng(const std::filesystem::path& file) const;

private:
    std::size_t Index(int x, int y) const {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(m_width) + static_cast<std::size_t>(x);
    }

    int m_width;
    int m_height;
    std::vector<Rgb> m_pixels;
};

}  // namespace vosk::rig
