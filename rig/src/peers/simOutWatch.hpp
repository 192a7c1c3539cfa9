#pragma once

// Watches a camera's mailbox in shared memory from outside: a thread that takes each result as it appears.
// The host publishes without waiting for anybody, so a result counts only if two copies of it agree and no
// newer one appeared meanwhile. A host that is held up in the middle of a record would still deceive it, if
// the watch is a whole frame late at that moment. It attaches as nobody's reader, and reads the region by its
// documented layout.

#include "appendLog.hpp"
#include "peers/cameraRecords.hpp"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace vosk::rig {

class SimOutWatch {
public:
    enum class Record { CentroidError, WfsSlopes };

    // Room for `results` results, of which the slopes of every `stride`th are kept; `slopes` in each.
    SimOutWatch(Record record, std::size_t results, std::size_t stride, std::size_t slopes);
    ~SimOutWatch();

    // `name` as under /dev/shm. `interval`: how long a lost wake-up may delay a look. Throws
    // std::runtime_error if the region isn't there or has another size.
    void Start(const std::string& name, std::chrono::nanoseconds interval, int priority);
    void Stop();

    const AppendLog<ResultRecord>& Log() const { return m_log; }
    std::span<const defs::Slope> SlopesOf(const ResultRecord& result) const;
    // After Stop(): results that the host has published since Start().
    std::uint64_t Published() const { return m_last_seq - m_first_seq; }

private:
    struct Region;  // the layout

    void Run();
    bool Copy(std::uint64_t seq);
    void Take(std::uint64_t seq);

    const Record m_record;
    const std::size_t m_stride;
    const std::size_t m_size;  // of a record, in bytes
    AppendLog<ResultRecord> m_log;
    std::vector<defs::Slope> m_slopes;
    std::size_t m_slopes_used = 0;
    std::vector<std::byte> m_first_copy;
    std::vector<std::byte> m_second_copy;

    std::chrono::nanoseconds m_interval{0};
    const Region* m_region = nullptr;
    std::uint64_t m_first_seq = 0;
    std::uint64_t m_last_seq = 0;
    std::atomic<bool> m_running{false};
    std::thread m_thread;
};

}  // namespace vosk::rig
