#pragma once

// Cuts what arrives from a socket or a terminal into lines. Never grows beyond the lines of one piece and one
// line of the longest length: take all lines before appending the next piece.

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

namespace vosk::host {

inline constexpr std::size_t MAX_LINE = 1024;  // bytes, without the newline

struct Line {
    std::string text{};  // without its end ("\n" or "\r\n")
    bool is_too_long = false;
};

class LineBuffer {
public:
    void Append(std::string_view piece);
    // The input is over, and with it its last line.
    void End();

    // The next whole line. One that is too long comes without text, as soon as that shows; what follows up to
    // its newline is passed over.
    std::optional<Line> TakeLine();

private:
    void Append(char byte);

    std::deque<Line> m_lines;
    std::string m_begun;  // bytes behind the last newline
    bool m_passes_over = false;
};

}  // namespace vosk::host
