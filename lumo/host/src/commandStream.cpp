#include "commandStream.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace vosk::host {

namespace {

constexpr std::size_t PIECE = 1024;  // bytes read at a time
// A descriptor may block, as the flag is shared with whoever else has the terminal: never write more than an
// output takes that polls as ready.
constexpr std::size_t WRITE_PIECE = 512;

bool IsReady(int fd, short events) {
    pollfd source{fd, events, 0};
    return ::poll(&source, 1, 0) > 0;
}

bool IsPassing(int error) {
    return error == EAGAIN || error == EINTR;
}

}  // namespace

bool CommandStream::Serve(const CommandHandler& handler) {
    if (!Flush() || !Reply(handler)) return false;
    if (m_reply.empty() && (!Read() || !Reply(handler))) return false;
    return !m_has_ended || !m_reply.empty();
}

// These return false if the other side is gone.

bool CommandStream::Read() {
    if (m_has_ended || !IsReady(m_input, POLLIN)) return true;
    std::array<char, PIECE> piece{};
    const ssize_t count = ::read(m_input, piece.data(), piece.size());
    if (count < 0) return IsPassing(errno);
    m_has_ended = count == 0;
    if (m_has_ended) m_lines.End();
    m_lines.Append({piece.data(), static_cast<std::size_t>(count)});
    return true;
}

bool CommandStream::Reply(const CommandHandler& handler) {
    while (m_reply.empty()) {
        const auto line = m_lines.TakeLine();
        if (!line) return true;
        m_reply = line->is_too_long ? fmt::format("error: a line has at most {} bytes", MAX_LINE)
                                    : handler(line->text);
        if (!m_reply.empty()) m_reply += '\n';
        if (!Flush()) return false;
    }
    return true;
}

bool CommandStream::Flush() {
    while (!m_reply.empty() && IsReady(m_output, POLLOUT)) {
        const ssize_t count = ::write(m_output, m_reply.data(), std::min(m_reply.size(), WRITE_PIECE));
        if (count < 0) return IsPassing(errno);
        m_reply.erase(0, static_cast<std::size_t>(count));
    }
    return true;
}

}  // namespace vosk::host
