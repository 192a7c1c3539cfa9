#include "lineBuffer.hpp"

namespace vosk::host {

bool LineBuffer::Append(std::string_view piece) {
    for (const char c : piece) {
        m_begun = c == '\n' ? 0 : m_begun + 1;
        if (m_begun > MAX_LINE) return false;
    }
    m_bytes.append(piece);
    return true;
}

std::optional<std::string> LineBuffer::TakeLine() {
    const std::size_t end = m_bytes.find('\n');
    if (end == std::string::npos) return std::nullopt;
    std::string line = m_bytes.substr(0, end);
    m_bytes.erase(0, end + 1);
    if (line.ends_with('\r')) line.pop_back();
    return line;
}

void LineBuffer::Clear() {
    m_bytes.clear();
    m_begun = 0;
}

}  // namespace vosk::host
