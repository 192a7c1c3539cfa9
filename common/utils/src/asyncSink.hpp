#pragma once

// The log4cplus appender behind all loggers: a bounded ring of lines, filled by the writers and emptied by a
// thread of its own. A writer copies its text into a slot that stands ready and makes no system call; the
// ring's own thread looks in by itself, since waking it would cost the writer more than the copy does.

#include <log4cplus/appender.h>
#include <log4cplus/spi/loggingevent.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace vosk::common {

class AsyncSink : public log4cplus::Appender {
public:
    AsyncSink();
    ~AsyncSink() override;

    // What is logged from now on goes to the end of the file, or to stderr if the name is empty.
    void WriteTo(const std::string& file);
    // Blocks until the lines logged so far are written or given up.
    void Flush();
    // Writes what is there and ends the thread; lines that come later are written by their writers.
    // These three wait for an output that takes nothing for 2 s in all; then the lines count as dropped.
    void Stop();
    std::uint64_t Dropped() const noexcept { return m_dropped.load(std::memory_order_relaxed); }

    void close() override;

private:
    struct Line {
        log4cplus::helpers::Time time;
        log4cplus::LogLevel level = log4cplus::NOT_SET_LOG_LEVEL;
        std::string logger;
        std::string text;
    };

    // One caller at a time: log4cplus holds the appender's lock.
    void append(const log4cplus::spi::InternalLoggingEvent& event) override;

    void Run();
    void Drain();
    void TakeBatch();
    void WriteBatch();
    std::string_view WriteSome(std::string_view text);
    bool IsOverdue();

    // The ring has one writer (append) and one reader (Drain). Both counters only grow; a slot is the counter
    // modulo the size. Released by the side that owns the slot, acquired by the other.
    std::vector<Line> m_lines;
    alignas(64) std::atomic<std::uint64_t> m_head{0};  // lines ever put in
    alignas(64) std::atomic<std::uint64_t> m_tail{0};  // lines ever taken out
    alignas(64) std::atomic<std::uint64_t> m_dropped{0};

    std::mutex m_output_mutex;  // guards the next five
    int m_fd;
    std::string m_batch;  // text on its way out
    std::uint64_t m_batch_lines = 0;
    std::uint64_t m_dropped_reported = 0;
    std::optional<std::chrono::steady_clock::time_point> m_awaited_since;  // an output that took nothing

    std::mutex m_mutex;  // guards the next three; never taken while logging
    bool m_hurry = false;
    bool m_stop = false;
    std::uint64_t m_written = 0;  // lines ever written or given up
    std::condition_variable m_hurry_cv;
    std::condition_variable m_written_cv;
    std::atomic<int> m_awaiting{0};     // callers that wait for the output
    std::atomic<bool> m_direct{false};  // the thread has ended
    std::thread m_thread;               // last: it uses all of the above
};

}  // namespace vosk::common
