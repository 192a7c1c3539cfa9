#include "lineBuffer.hpp"

#include <utility>

namespace vosk::host {

void LineBuffer::Append(std::string_view piece) {
    for (const char byte : piece) Append(byte);
}

void LineBuffer::End() {
    if (!m_begun.empty()) Append('\n');
}

void LineBuffer::Append(char byte) {
    if (m_passes_over) {
        m_passes_over = byte != '\n';
    } else if (byte == '\n') {
        if (m_begun.ends_with('\r')) m_begun.pop_back();
        m_lines.push_back({.text = std::exchange(m_begun, {})});
    } else if (m_begun.size() == MAX_LINE) {
        m_begun.clear();
        m_passes_over = true;
        m_lines.push_back({.is_too_long = true});
    } else {
        m_begun += byte;
    }
}

std::optional<Line> LineBuffer::TakeLine() {
    if (m_lines.empty()) return std::nullopt;
    Line line = std::move(m_lines.front());
    m_lines.pop_front();
    return line;
}

}  // namespace vosk::host
