#include "cameras/canvas.hpp"

#include <png.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace vosk::rig {
namespace {

// Five rows of three dots, from the top: an octal digit a row.
constexpr std::array<std::pair<char, unsigned>, 41> LETTERS{
    {{'0', 075557}, {'1', 026227}, {'2', 071747}, {'3', 071717}, {'4', 055711}, {'5', 074717}, {'6', 074757},
     {'7', 071122}, {'8', 075757}, {'9', 075717}, {'A', 025755}, {'B', 065656}, {'C', 034443}, {'D', 065556},
     {'E', 074647}, {'F', 074644}, {'G', 034553}, {'H', 055755}, {'I', 072227}, {'J', 011152}, {'K', 055655},
     {'L', 044447}, {'M', 057755}, {'N', 065555}, {'O', 025552}, {'P', 065644}, {'Q', 025563}, {'R', 065655},
     {'S', 034216}, {'T', 072222}, {'U', 055557}, {'V', 055552}, {'W', 055775}, {'X', 055255}, {'Y', 055222},
     {'Z', 071247}, {'.', 000002}, {'-', 000700}, {'+', 002720}, {',', 000024}, {'/', 011244}}};

unsigned DotsOf(char letter) {
    const char capital = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
    for (const auto& [name, dots] : LETTERS) {
        if (name == capital) return dots;
    }
    return 0;
}

static_assert(sizeof(Rgb) == 3);  // as libpng wants its rows

}  // namespace

Canvas::Canvas(int width, int height) : m_width(width), m_height(height) {
    if (width < 1 || height < 1) throw std::invalid_argument("a picture has at least one pixel");
    m_pixels.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
}

void Canvas::Set(int x, int y, Rgb color) {
    if (x >= 0 && x < m_width && y >= 0 && y < m_height) m_pixels[Index(x, y)] = color;
}

void Canvas::Fill(int x, int y, int width, int height, Rgb color) {
    for (int row = y; row < y + height; ++row) {
        for (int column = x; column < x + width; ++column) Set(column, row, color);
    }
}

void Canvas::Line(int x_from, int y_from, int x_to, int y_to, Rgb color) {
    const int steps = std::max(std::abs(x_to - x_from), std::abs(y_to - y_from));
    for (int step = 0; step <= steps; ++step) {
        const auto between = [&](int from, int to) {
            return steps == 0 ? from : from + (2 * (to - from) * step + steps) / (2 * steps);
        };
        Set(between(x_from, x_to), between(y_from, y_to), color);
    }
}

void Canvas::Ring(int x, int y, int radius, Rgb color) {
    const int inner = 4 * radius * radius - 4 * radius;  // (2 radius - 1)^2 - 1
    const int outer = 4 * radius * radius + 4 * radius;
    for (int dy = -radius; dy <= radius; ++dy) {
        for (int dx = -radius; dx <= radius; ++dx) {
            const int square = 4 * (dx * dx + dy * dy);
            if (square > inner && square <= outer) Set(x + dx, y + dy, color);
        }
    }
}

void Canvas::Text(int x, int y, int dot, std::string_view text, Rgb color) {
    for (const char letter : text) {
        const unsigned dots = DotsOf(letter);
        for (int i = 0; i < 15; ++i) {
            if ((dots >> static_cast<unsigned>(14 - i) & 1U) != 0)
                Fill(x + i % 3 * dot, y + (1 + i / 3) * dot, dot, dot, color);
        }
        x += LETTER_WIDTH * dot;
    }
}

void Canvas::WritePng(const std::filesystem::path& file) const {
    std::error_code ignored;  // a directory that can't be made shows when the file can't
    if (file.has_parent_path()) std::filesystem::create_directories(file.parent_path(), ignored);
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(m_width);
    image.height = static_cast<png_uint_32>(m_height);
    image.format = PNG_FORMAT_RGB;
    if (png_image_write_to_file(&image, file.c_str(), 0, m_pixels.data(), 0, nullptr) == 0)
        throw std::runtime_error(file.string() + " can't be written: " + image.message);
}

}  // namespace vosk::rig
