#pragma once

// The log4cplus appender behind all loggers: a bounded ring of lines, filled by the writers and emptied by a
// thread of its own. A writer copies its text into a slot that stands ready and makes no system call; the
// ring's own thread looks in by itself, since waking it would cost the writer more than the copy does.

#include "repeatedLines.hpp"

#include <log4cplus/appender.h>
#include <log4cplus/spi/loggingevent.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
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
    // Opens the file once more by its name, as after it was renamed.
    void Reopen();
    // Blocks until the lines logged so far are written or dropped.
    void Flush();
    // Writes what is there, counts of repeated lines included, and ends the thread; lines that come later are
    // written by their writers.
    void Stop();
    void LimitRepeated() noexcept { m_limits_repeated.store(true); }
    std::uint64_t Dropped() const noexcept { return m_dropped.load(std::memory_order_relaxed); }

    void close() override;

private:
    // One caller at a time: log4cplus holds the appender's lock.
    void append(const log4cplus::spi::InternalLoggingEvent& event) override;

    void Run();
    void Drain();
    void TakeBatch();
    void AppendCounts(RepeatedLines::time_point now);
    void AppendLine(const LogLine& line);
    void WriteBatch();
    std::string_view WriteSome(std::string_view text);

    // The ring has one writer (append) and one reader (Drain). Both counters only grow; a slot is the counter
    // modulo the size. Released by the side that owns the slot, acquired by the other.
    std::vector<LogLine> m_lines;
    alignas(64) std::atomic<std::uint64_t> m_head{0};  // lines ever put in
    alignas(64) std::atomic<std::uint64_t> m_tail{0};  // lines ever taken out
    alignas(64) std::atomic<std::uint64_t> m_dropped{0};

    std::string m_file;  // name of the output, empty for stderr; controlling thread only
    std::atomic<bool> m_limits_repeated{false};

    std::mutex m_output_mutex;  // guards the next five
    int m_fd;
    bool m_blocked = false;  // the output took nothing when it was last tried
    RepeatedLines m_repeated;
    std::string m_batch;  // text on its way out
    std::uint64_t m_dropped_reported = 0;

    std::mutex m_mutex;  // guards the next three; never taken while logging
    bool m_hurry = false;
    bool m_stop = false;
    std::uint64_t m_written = 0;  // lines ever written or dropped
    std::condition_variable m_hurry_cv;
    std::condition_variable m_written_cv;
    std::atomic<bool> m_direct{false};  // the thread has ended
    std::thread m_thread;               // last: it uses all of the above
};

}  // namespace vosk::common
