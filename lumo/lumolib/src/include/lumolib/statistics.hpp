#pragma once

// Timing figures that cost the measured loops almost nothing: integer nanoseconds, no allocation, a short
// lock. Statistics measures how far a stream strays from a fixed grid, in the times its samples were sent and
// received; StatisticsBuffered lets two threads supply those two times; StatisticsDuration gathers a plain
// duration. RuntimeMonitor owns the first two kinds; threads own their StatisticsDuration. All operations are
// for any thread.

#include <vosk/defs/valueTypes.hpp>

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>

namespace vosk::lumo {

using defs::time_point;

// On cache lines of its own: the next stream is written from another CPU.
class alignas(64) Statistics {
public:
    // One of the two time series. Deviations are from the grid that starts at the series' first sample.
    struct Record {
        time_point first{};
        std::uint64_t sum = 0;          // of the absolute deviations, ns
        std::uint64_t sum_squares = 0;  // of the squared deviations, ns^2; sums wrap without notice
        std::int64_t max = 0;           // largest absolute deviation, ns
    };

    explicit Statistics(unsigned long stream_id);

    // Starts the gathering on a grid of this period, with fresh figures. Until then Update and Print do
    // nothing. Call before the threads start: they read the flag without a lock. Throws std::invalid_argument
    // unless the period is positive.
    void Enable(std::chrono::nanoseconds nominal_period);

    // One sample. The first of an interval is the anchor of the grid and is not counted.
    void Update(time_point sent, time_point received);

    // One frame whose work was late, counted whether or not the object is enabled.
    void RecordLate();
    unsigned long GetLateCount() const;

    // Logs the figures and opens a new interval. Formats outside the lock.
    void Print();

    static unsigned long GetMean(unsigned long count, const Record& record);
    // Sample standard deviation of the absolute deviations. Meaningless once sum * sum has left 64 bits.
    static long GetStdDev(unsigned long count, const Record& record);

protected:
    bool IsEnabled() const { return m_enabled; }

private:
    bool m_enabled = false;                       // constant while threads run
    std::chrono::nanoseconds m_nominal_period{};  // constant while threads run
    unsigned long m_stream_id;                    // set in the constructor, constant afterwards
    unsigned long m_count = 0;                    // samples since the anchor; guarded by m_mutex
    std::array<Record, 2> m_records{};            // sent, received; guarded by m_mutex
    bool m_has_data = false;                      // an anchor is there; guarded by m_mutex
    mutable std::mutex m_mutex;
    std::map<long, unsigned long> m_late_counts;  // by stream number; guarded by m_mutex
};

// The later of the two calls completes a sample. A second time of the same kind overwrites the first, so that
// a lost answer costs one sample, and a stream with one side only never yields any.
class StatisticsBuffered : public Statistics {
public:
    using Statistics::Statistics;

    void UpdateTsSent(time_point time);
    void UpdateTsReceived(time_point time);

private:
    void CompletePair();

    std::optional<time_point> m_ts_sent;      // guarded by m_pair_mutex
    std::optional<time_point> m_ts_received;  // guarded by m_pair_mutex
    std::mutex m_pair_mutex;                  // held across Update, so that pairs arrive there in order
};

class StatisticsDuration {
public:
    struct StatsDuration {
        std::uint64_t count = 0;
        std::chrono::nanoseconds first{};  // opened the interval, and is in none of the figures
        std::uint64_t sum = 0;
        std::uint64_t sum_squares = 0;
        std::int64_t max = 0;
    };

    void Update(std::chrono::nanoseconds value);

    // Whole microseconds, as double; opens a new interval. Without data the arguments stay as they are.
    void GetValues(double& max, double& mean, double& stddev);

    static unsigned long GetMean(const StatsDuration& stats);
    static long GetStdDev(const StatsDuration& stats);

private:
    StatsDuration m_stats;    // guarded by m_mutex
    bool m_has_data = false;  // guarded by m_mutex
    std::mutex m_mutex;
};

}  // namespace vosk::lumo
