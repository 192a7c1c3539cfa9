#include "asyncSink.hpp"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace vosk::common {

namespace {

constexpr std::size_t CAPACITY = 8192;       // lines
constexpr std::size_t USUAL_LENGTH = 256;    // bytes a slot holds without growing
constexpr std::size_t BATCH_BYTES = 65'536;  // taken out at once, about
constexpr std::chrono::milliseconds LOOK_IN{10};
constexpr int PATIENCE_MS = 500;  // with an output that stops taking anything

// The thread is to take no signal: they are the host's, and a closed pipe is to be an error of write().
template <class Body>
std::thread StartWithoutSignals(Body body) {
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread{body};
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

int Open(const std::string& file) {
    if (file.empty()) return STDERR_FILENO;
    // Never blocks, so that lines for a pipe or a terminal that nobody empties can be dropped.
    const int fd =
        ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0644);
    if (fd < 0) {
        throw std::runtime_error{
            fmt::format("Log file {} cannot be opened: {}", file, std::generic_category().message(errno))};
    }
    return fd;
}

void Close(int fd) {
    if (fd != STDERR_FILENO) ::close(fd);
}

}  // namespace

AsyncSink::AsyncSink() : m_lines(CAPACITY), m_fd{STDERR_FILENO} {
    for (LogLine& line : m_lines) {
        line.logger.reserve(USUAL_LENGTH);
        line.text.reserve(USUAL_LENGTH);
    }
    m_batch.reserve(2 * BATCH_BYTES);
    m_thread = StartWithoutSignals([this] { Run(); });
}

AsyncSink::~AsyncSink() {
    destructorImpl();
    Close(m_fd);
}

void AsyncSink::close() {
    Stop();
    closed = true;
}

void AsyncSink::WriteTo(const std::string& file) {
    const int fd = Open(file);
    Flush();
    const std::lock_guard lock{m_output_mutex};
    Close(m_fd);
    m_fd = fd;
    m_file = file;
    m_blocked = false;
}

void AsyncSink::Reopen() {
    WriteTo(m_file);
}

void AsyncSink::Flush() {
    const std::uint64_t wanted = m_head.load(std::memory_order_acquire);
    std::unique_lock lock{m_mutex};
    m_hurry = true;
    m_hurry_cv.notify_one();
    m_written_cv.wait(lock, [this, wanted] { return m_written >= wanted || m_stop; });
}

void AsyncSink::Stop() {
    {
        const std::lock_guard lock{m_mutex};
        m_hurry = m_stop = true;
    }
    m_hurry_cv.notify_one();
    if (m_thread.joinable()) m_thread.join();
    m_direct.store(true);
    Drain();  // what came in while the thread ended
    const std::lock_guard lock{m_output_mutex};
    AppendCounts(std::chrono::steady_clock::now() + std::chrono::hours{1});  // all of them
    WriteBatch();
}

void AsyncSink::append(const log4cplus::spi::InternalLoggingEvent& event) {
    if (m_direct.load(std::memory_order_relaxed)) {
        const std::lock_guard lock{m_output_mutex};
        AppendLine({event.getTimestamp(), event.getLogLevel(), event.getLoggerName(), event.getMessage()});
        WriteBatch();
        return;
    }
    const std::uint64_t head = m_head.load(std::memory_order_relaxed);
    if (head - m_tail.load(std::memory_order_acquire) == CAPACITY) {
        m_dropped.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    LogLine& line = m_lines[head % CAPACITY];
    line.time = event.getTimestamp();
    line.level = event.getLogLevel();
    line.logger = event.getLoggerName();
    line.text = event.getMessage();
    m_head.store(head + 1, std::memory_order_release);
}

void AsyncSink::Run() {
    ::pthread_setname_np(::pthread_self(), "vosk-log");
    const sched_param ordinary{};  // whatever the process has inherited
    ::sched_setscheduler(0, SCHED_OTHER, &ordinary);
    bool stop = false;
    while (!stop) {
        {
            std::unique_lock lock{m_mutex};
            m_hurry_cv.wait_for(lock, LOOK_IN, [this] { return m_hurry; });
            m_hurry = false;
            stop = m_stop;
        }
        Drain();
    }
}

void AsyncSink::Drain() {
    const std::lock_guard output_lock{m_output_mutex};
    const std::uint64_t end = m_head.load(std::memory_order_acquire);
    do {
        TakeBatch();
        WriteBatch();
    } while (m_tail.load(std::memory_order_relaxed) < end);
    const std::lock_guard lock{m_mutex};
    m_written = m_tail.load(std::memory_order_relaxed);
    m_written_cv.notify_all();
}

// Frees the slots before the text is written, so that a slow disk does not hold them.
void AsyncSink::TakeBatch() {
    const auto now = std::chrono::steady_clock::now();
    const std::uint64_t end = m_head.load(std::memory_order_acquire);
    std::uint64_t tail = m_tail.load(std::memory_order_relaxed);
    for (; tail != end && m_batch.size() < BATCH_BYTES; ++tail) {
        const LogLine& line = m_lines[tail % CAPACITY];
        if (!m_limits_repeated.load() || m_repeated.Admit(line, now)) AppendLine(line);
        m_tail.store(tail + 1, std::memory_order_release);
    }
    AppendCounts(now);
}

void AsyncSink::AppendCounts(RepeatedLines::time_point now) {
    m_repeated.TakeCounts(now, [this](const LogLine& line, std::uint64_t count) {
        AppendLine(line);
        if (count == 1) return;
        m_batch.pop_back();
        fmt::format_to(std::back_inserter(m_batch), " ({} times in a second)\n", count);
    });
}

void AsyncSink::AppendLine(const LogLine& line) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(line.time);
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(line.time - seconds).count();
    fmt::format_to(std::back_inserter(m_batch), "{:%Y-%m-%dT%H:%M:%S}.{:06} {:<5} {}: {}\n",
                   fmt::gmtime(std::chrono::system_clock::to_time_t(seconds)), us,
                   log4cplus::getLogLevelManager().toString(line.level), line.logger, line.text);
}

// Drops and counts what could not be written.
void AsyncSink::WriteBatch() {
    const std::uint64_t dropped = Dropped();
    const bool reports = dropped != m_dropped_reported;
    if (reports) {
        AppendLine({log4cplus::helpers::now(), log4cplus::WARN_LOG_LEVEL, "vosk",
                    fmt::format("{} log lines lost, {} in all", dropped - m_dropped_reported, dropped)});
    }
    const std::string_view rest = WriteSome(m_batch);
    const auto lines_left = static_cast<std::uint64_t>(std::count(rest.begin(), rest.end(), '\n'));
    const bool reported = reports && lines_left == 0;
    if (reported) m_dropped_reported = dropped;
    m_dropped.fetch_add(lines_left - (reports && !reported ? 1 : 0), std::memory_order_relaxed);
    m_batch.clear();
}

// Gives what could not be written: all after an error, or after the output has taken nothing for a while. A
// blocked output is tried without waiting until it takes something again.
std::string_view AsyncSink::WriteSome(std::string_view text) {
    while (!text.empty()) {
        // stderr may block, and it isn't ours to change: written only when it has room, and no more than a
        // pipe with room takes at once. In whole lines, since other processes may write there too.
        pollfd output{m_fd, POLLOUT, 0};
        m_blocked = ::poll(&output, 1, m_blocked ? 0 : PATIENCE_MS) <= 0;
        if (m_blocked) break;
        std::string_view chunk = text.substr(0, PIPE_BUF);
        if (const auto line_end = chunk.rfind('\n'); line_end != chunk.npos)
            chunk = chunk.substr(0, line_end + 1);
        const ssize_t written = ::write(m_fd, chunk.data(), chunk.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            break;
        }
    }
    return text;
}

}  // namespace vosk::common
