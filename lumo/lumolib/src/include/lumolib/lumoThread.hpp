#pragma once

// The base of every worker thread: one data stream each. It reads the thread's placement from its
// configuration node, makes the synchroniser the thread waits on and an optional buffer on the NUMA node of
// its CPU, and starts and stops the operating-system thread. A concrete thread supplies Work() alone.
//
// Threads: construction, Start(), Stop() and destruction are for the controlling thread, one at a time.
// Work() and WaitUntil() are for the worker.

#include <atomclk/atomClk.hpp>
#include <nodepin/numaPlacement.hpp>
#include <oru/configng/pliConfig.hpp>
#include <vosk/common/threadState.hpp>
#include <vosk/common/waitSynchronizer.hpp>
#include <vosk/defs/valueTypes.hpp>

#include <lumolib/lumoRxTx.hpp>

#include <atomic>
#include <chrono>
#include <exception>
#include <future>
#include <memory>
#include <memory_resource>
#include <span>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace vosk::lumo {

class Thread {
public:
    // Keys: `busy` (required), `cpu`, `priority`, `numa_buf_size`. Throws std::runtime_error on a bad node; a
    // placement that the machine does not allow is a warning.
    Thread(const std::string& name, const oru::configng::PliConfigInstanceNode& node,
           const std::string& description);
    // Stop() has returned.
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Returns when the new thread is placed and named; the future tells when it is ready to handle its
    // stream, or why it never will be. May be called again after Stop(). Throws std::system_error if there
    // can be no thread.
    std::future<void> Start();

    // Tells the worker to end and joins it, which takes as long as its longest wait; it wakes nobody.
    // Harmless on a thread that was never started, has ended by itself or is stopped already.
    void Stop() noexcept;

    // False: the thread is to end, and the caller must leave Work() at once. True: the time has come, a flag
    // on m_synchronizer is ready, or the clock was set back: a caller that is to act at that time looks at
    // the clock. Without flags a precise sleep.
    bool WaitUntil(const atomclk::AtomClk::time_point& time) const;

    // Whether Work() has returned or failed though nobody had called Stop(). Until the next Start(); any
    // thread.
    bool HasEndedByItself() const noexcept { return m_has_ended_by_itself.load(); }

    common::ThreadPlacement GetPlacement() const noexcept {
        return {m_cpu, m_busy, m_numa_placement.Policies().priority, m_priority_given.load()};
    }
    // Of the threads that this one has work for it.
    virtual std::vector<common::ThreadState> GetWorkers() const { return {}; }

    const std::string& GetName() const noexcept { return m_name; }
    const std::string& GetDescription() const noexcept { return m_description; }

protected:
    // The thread's body: what may fail or take long, then started.set_value() once, then a loop while
    // IsRunning(), which it tests at least once a wait. What it throws ends the thread alone.
    virtual void Work(std::promise<void>& started) = 0;

    bool IsRunning() const noexcept { return common::IsRunning(m_running); }

    // Opens the thread's diagnostic streams: copies of its samples on QUDEX streams of their own, for whoever
    // wants to listen. Each element of the node's sequence `diagnostic_streams` is a stream, its keys (those
    // of TxQudex) standing over the two configurations. For the constructor of the concrete thread; once,
    // later calls are ignored. Returns how many were opened; throws on one that can't be.
    std::size_t SetupDiagnosticStreams(const oru::configng::PliConfigInstanceNode& node,
                                       const pktwire::UdpTxSocket::Config& udp_cfg,
                                       const pktwire::qudex::Sender::Config& qudex_cfg);

    // Sends the record's bytes on each diagnostic stream, dated `time`; `log_time` is for the log alone. A
    // stream that fails is logged and keeps no other from its turn. For the worker, after the real work of
    // its cycle; a muted thread leaves the call out.
    template <class Sample>
    void SendDiagnosticSample(defs::sample_id_t sample_id, const atomclk::AtomClk::time_point& time,
                              const Sample& sample, const atomclk::AtomClk::time_point& log_time) {
        static_assert(std::is_trivially_copyable_v<Sample>, "what goes out is the record's memory");
        const auto bytes = std::as_bytes(std::span{&sample, 1});
        SendDiagnosticBytes(sample_id, time, {bytes.data(), bytes.size()}, log_time);
    }

    // Memory on the thread's node for what is allocated once, at set-up; null without a buffer.
    std::pmr::memory_resource* MemoryResource() const noexcept { return m_numa_placement.MemoryResource(); }

private:
    void SetUpPlacement(const oru::configng::PliConfigInstanceNode& node);
    void SetUpBuffer(const oru::configng::PliConfigInstanceNode& node);
    void TryWork(std::promise<void>& started);
    void SendDiagnosticBytes(defs::sample_id_t sample_id, const atomclk::AtomClk::time_point& time,
                             gsl::span<const std::byte> sample, const atomclk::AtomClk::time_point& log_time);

    // All constant after construction, but m_running and m_worker; what the streams send with is the
    // worker's.
    nodepin::NumaPlacement m_numa_placement;  // binds nothing without a CPU or without NUMA
    unsigned long m_numa_buf_size = 0;        // bytes

protected:
    const std::string m_name;
    std::string m_description;  // completed by the endpoint's constructor
    int m_cpu = -1;
    bool m_busy = false;
    std::shared_ptr<common::WaitSynchronizer> m_synchronizer;

private:
    std::vector<std::shared_ptr<TxQudex>> m_diagnostic_streams;  // in the order of the configuration

protected:
    // Written by the controlling thread and by the worker at its end; read through IsRunning(), and by
    // address in the synchronisers' waits.
    int m_running = 0;

private:
    std::atomic<bool> m_has_ended_by_itself{false};
    std::atomic<int> m_priority_given{0};  // written by the worker at its start
    // Worker thread, and the controlling one after the join. The failure that the future hands over is
    // deleted there, never by the worker while its owner may still read it.
    std::exception_ptr m_failure;
    std::thread m_worker;  // controlling thread only
};

// A thread that receives. Key: `timeout`.
class RxThread : public Thread {
public:
    RxThread(const std::string& name, const oru::configng::PliConfigInstanceNode& node,
             const std::string& description, std::chrono::microseconds default_timeout);

protected:
    std::chrono::microseconds m_timeout;  // the longest that one receive call may block
};

// A thread that sends. Keys: `send_interval`, `send_offset`.
class TxThread : public Thread {
public:
    TxThread(const std::string& name, const oru::configng::PliConfigInstanceNode& node,
             const std::string& description, std::chrono::microseconds default_send_interval,
             std::chrono::microseconds default_send_offset);

protected:
    std::chrono::microseconds m_send_interval;  // the grid on which the thread sends; 0 for none
    std::chrono::microseconds m_send_offset;    // from that grid
};

// Clocks of peers on one site agree far better.
inline constexpr std::chrono::seconds MAX_TIME_AHEAD{1};

// Whether a time that a peer gave can be planned with. 0 is none, which means at once; one far ahead would
// keep threads waiting for it.
inline bool IsUsable(atomclk::AtomClk::time_point time, atomclk::AtomClk::time_point now) {
    return time >= atomclk::AtomClk::time_point{} && time <= now + MAX_TIME_AHEAD;
}

// The first point at or after `time` of the grid that is anchored at the clock's epoch, plus the offset. All
// users of one interval so fall on one grid. Without an interval, `time` plus the offset. Whoever takes
// `time` from a packet bounds it first: the sum must not pass the end of the clock.
template <class Clock, class Duration, class Interval, class Offset>
std::chrono::time_point<Clock, Duration> CeilToNextInterval(
    const std::chrono::time_point<Clock, Duration>& time, Interval interval, Offset offset) {
    if (interval == Interval::zero()) return time + offset;
    auto ceiled = std::chrono::ceil<Interval>(time.time_since_epoch());
    if (const auto past = ceiled % interval; past != Interval::zero()) ceiled += interval - past;
    return std::chrono::time_point<Clock, Duration>{ceiled + offset};
}

}  // namespace vosk::lumo
