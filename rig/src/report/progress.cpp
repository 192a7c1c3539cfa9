#include "report/progress.hpp"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace vosk::rig {
namespace {

std::string Bar(double share) {
    constexpr int WIDTH = 16;
    const int full = std::clamp(static_cast<int>(share * WIDTH), 0, WIDTH);
    return std::string(static_cast<std::size_t>(full), '#') +
           std::string(static_cast<std::size_t>(WIDTH - full), '.');
}

// 0 if the terminal doesn't say.
std::size_t TerminalWidth() {
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

// A line that reaches the last column would begin another, which the next figures don't overwrite.
std::string CutToWidth(std::string line, std::size_t width) {
    if (width > 0 && line.size() >= width) line.resize(width - 1);
    return line;
}

}  // namespace

std::string FormatProgress(const ProgressFigures& figures) {
    return fmt::format("{:5.1f}/{:g} s {} ({}): {}", figures.time, figures.duration, figures.mode,
                       figures.source, figures.peers);
}

Progress::Progress() : m_terminal(isatty(STDOUT_FILENO) == 1) {}

void Progress::Show(const ProgressFigures& figures) {
    m_next = figures.time + (m_terminal ? 0.1 : 1.0);
    const std::string line = FormatProgress(figures);
    if (m_terminal) {
        const double share = figures.duration > 0.0 ? figures.time / figures.duration : 1.0;
        fmt::print("\r\033[K{}", CutToWidth(fmt::format("[{}] {}", Bar(share), line), TerminalWidth()));
        m_line_open = true;
    } else {
        fmt::print("{}\n", line);
    }
    std::fflush(stdout);
}

void Progress::Say(const std::string& line) {
    Close();
    fmt::print("{}\n", line);
    std::fflush(stdout);
}

void Progress::Close() {
    if (m_line_open) fmt::print("\n");
    m_line_open = false;
}

}  // namespace vosk::rig
