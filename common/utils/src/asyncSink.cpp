#include "asyncSink.hpp"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace vosk::common {

namespace {

constexpr std::size_t CAPACITY = 8192;       // lines
constexpr std::size_t USUAL_LENGTH = 256;    // bytes a slot holds without growing
constexpr std::size_t BATCH_BYTES = 65'536;  // written in one call, about
constexpr std::chrono::milliseconds LOOK_IN{10};
constexpr int RETRY_MS = 10;

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
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        throw std::runtime_error{
            fmt::format("Log file {} cannot be opened: {}", file, std::generic_category().message(errno))};
    }
    return fd;
}

void Close(int fd) {
    if (fd != STDERR_FILENO) ::close(fd);
}

// False if the text could not be written whole.
bool WriteAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(fd, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EAGAIN) {
            pollfd writable{fd, POLLOUT, 0};
            ::poll(&writable, 1, RETRY_MS);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
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
    const std::lock_guard lock{m_output_mutex};
    Close(m_fd);
    m_fd = fd;
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
    if (!WriteAll(m_fd, m_batch)) m_dropped.fetch_add(m_batch_lines, std::memory_order_relaxed);
    m_batch.clear();
    m_batch_lines = 0;
}

}  // namespace vosk::common
