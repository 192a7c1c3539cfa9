#pragma once

// Cuts what arrives from a socket or a terminal into lines, and never grows beyond one line of the longest
// length and one piece.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vosk::host {

inline constexpr std::size_t MAX_LINE = 1024;  // bytes, without the newline

class LineBuffer {
public:
    // False, and nothing is kept of the piece, if a line in it is too long.
    bool Append(std::string_view piece);

    // The next whole line, without its end ("\n" or "\r\n").
    std::optional<std::string> TakeLine();

    // Forgets everything, after a line that was too long.
    void Clear();

private:
    std::string m_bytes;
    std::size_t m_begun = 0;  // bytes behind the last newline
};

}  // namespace vosk::host
