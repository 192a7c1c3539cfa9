#include "asyncSink.hpp"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <poll.h>
#include <pthread.h>
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
constexpr int RETRY_MS = 10;
constexpr std::chrono::seconds PATIENCE{2};  // with an output that takes nothing, once somebody waits for it

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
    // Never blocks, so that a pipe or a terminal that nobody empties can be given up.
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

void AppendLine(std::string& out, log4cplus::helpers::Time time, log4cplus::LogLevel level,
                std::string_view logger, std::string_view text) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(time - seconds).count();
    fmt::format_to(std::back_inserter(out), "{:%Y-%m-%dT%H:%M:%S}.{:06} {:<5} {}: {}\n",
                   fmt::gmtime(std::chrono::system_clock::to_time_t(seconds)), us,
                   log4cplus::getLogLevelManager().toString(level), logger, text);
}

}  // namespace

AsyncSink::AsyncSink() : m_lines(CAPACITY), m_fd{STDERR_FILENO} {
    for (Line& line : m_lines) {
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
    ++m_awaiting;  // until the thread lets go of the former output
    const std::lock_guard lock{m_output_mutex};
    --m_awaiting;
    Close(m_fd);
    m_fd = fd;
}

void AsyncSink::Flush() {
    const std::uint64_t wanted = m_head.load(std::memory_order_acquire);
    ++m_awaiting;
    std::unique_lock lock{m_mutex};
    m_hurry = true;
    m_hurry_cv.notify_one();
    m_written_cv.wait(lock, [this, wanted] { return m_written >= wanted || m_stop; });
    --m_awaiting;
}

void AsyncSink::Stop() {
    ++m_awaiting;  // for good: what is logged from now on must not keep the process either
    {
        const std::lock_guard lock{m_mutex};
        m_hurry = m_stop = true;
    }
    m_hurry_cv.notify_one();
    if (m_thread.joinable()) m_thread.join();
    m_direct.store(true);
    Drain();  // what came in while the thread ended
}

void AsyncSink::append(const log4cplus::spi::InternalLoggingEvent& event) {
    if (m_direct.load(std::memory_order_relaxed)) {
        const std::lock_guard lock{m_output_mutex};
        AppendLine(m_batch, event.getTimestamp(), event.getLogLevel(), event.getLoggerName(),
                   event.getMessage());
        ++m_batch_lines;
        WriteBatch();
        return;
    }
    const std::uint64_t head = m_head.load(std::memory_order_relaxed);
    if (head - m_tail.load(std::memory_order_acquire) == CAPACITY) {
        m_dropped.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    Line& line = m_lines[head % CAPACITY];
    line.time = event.getTimestamp();
    line.level = event.getLogLevel();
    line.logger = event.getLoggerName();
    line.text = event.getMessage();
    m_head.store(head + 1, std::memory_order_release);
}

void AsyncSink::Run() {
    ::pthread_setname_np(::pthread_self(), "vosk-log");
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
    while (m_tail.load(std::memory_order_relaxed) < end) {
        TakeBatch();
        WriteBatch();
    }
    const std::lock_guard lock{m_mutex};
    m_written = m_tail.load(std::memory_order_relaxed);
    m_written_cv.notify_all();
}

// Frees the slots before the text is written, so that a slow disk does not hold them.
void AsyncSink::TakeBatch() {
    const std::uint64_t end = m_head.load(std::memory_order_acquire);
    std::uint64_t tail = m_tail.load(std::memory_order_relaxed);
    for (; tail != end && m_batch.size() < BATCH_BYTES; ++tail, ++m_batch_lines) {
        const Line& line = m_lines[tail % CAPACITY];
        AppendLine(m_batch, line.time, line.level, line.logger, line.text);
        m_tail.store(tail + 1, std::memory_order_release);
    }
    if (const std::uint64_t dropped = Dropped(); dropped != m_dropped_reported) {
        AppendLine(m_batch, log4cplus::helpers::now(), log4cplus::WARN_LOG_LEVEL, "vosk",
                   fmt::format("{} log lines lost, {} in all", dropped - m_dropped_reported, dropped));
        m_dropped_reported = dropped;
    }
}

void AsyncSink::WriteBatch() {
    if (m_awaiting == 0) m_awaited_since.reset();
    const std::string_view rest = WriteSome(m_batch);
    const auto lines_left = static_cast<std::uint64_t>(std::count(rest.begin(), rest.end(), '\n'));
    m_dropped.fetch_add(std::min(lines_left, m_batch_lines), std::memory_order_relaxed);
    m_batch.clear();
    m_batch_lines = 0;
}

// Gives what could not be written: all after an error, or after an output that takes nothing was waited for
// long enough.
std::string_view AsyncSink::WriteSome(std::string_view text) {
    while (!text.empty()) {
        // stderr may block, and it isn't ours to change: written only when it has room, and no more than a
        // pipe with room takes at once. In whole lines, since other processes may write there too.
        pollfd output{m_fd, POLLOUT, 0};
        if (::poll(&output, 1, RETRY_MS) <= 0) {
            if (IsOverdue()) break;
            continue;
        }
        std::string_view chunk = text.substr(0, PIPE_BUF);
        if (const auto line_end = chunk.rfind('\n'); line_end != chunk.npos)
            chunk = chunk.substr(0, line_end + 1);
        const ssize_t written = ::write(m_fd, chunk.data(), chunk.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EAGAIN ? IsOverdue() : errno != EINTR) {
            break;
        }
    }
    return text;
}

bool AsyncSink::IsOverdue() {
    const auto now = std::chrono::steady_clock::now();
    if (m_awaiting == 0 || !m_awaited_since) m_awaited_since = now;
    return m_awaiting != 0 && now - *m_awaited_since >= PATIENCE;
}

}  // namespace vosk::common
