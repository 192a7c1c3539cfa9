#include <lumolib/statistics.hpp>

#include <lumolib/wrappingTime.hpp>

#include <vosk/common/logger.hpp>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

namespace vosk::lumo {

namespace {

unsigned long Mean(std::uint64_t count, std::uint64_t sum) {
    return count == 0 ? 0 : sum / count;
}

long StdDev(std::uint64_t count, std::uint64_t sum, std::uint64_t sum_squares) {
    if (count < 2) return 0;
    const std::uint64_t variance = (sum_squares - sum * sum / count) / (count - 1);
    return static_cast<long>(std::sqrt(static_cast<double>(variance)));
}

void AddDeviation(Statistics::Record& record, time_point time, std::chrono::nanoseconds period,
                  unsigned long periods) {
    const std::uint64_t expected = Bits(record.first) + Bits(period.count()) * periods;
    const std::uint64_t deviation = Magnitude(static_cast<std::int64_t>(Bits(time) - expected));
    record.sum += deviation;
    record.sum_squares += deviation * deviation;
    record.max = std::max(record.max, static_cast<std::int64_t>(deviation));
}

template <class Integer>
double Microseconds(Integer nanoseconds) {
    return static_cast<double>(nanoseconds) / 1000.0;
}

template <class Integer>
double WholeMicroseconds(Integer nanoseconds) {
    const Integer whole = nanoseconds / 1000;
    return static_cast<double>(whole);
}

void LogJitter(const char* series, unsigned long count, const Statistics::Record& record) {
    common::LogTrace("  Jitter {}: max = {:.4} [us]", series, Microseconds(record.max));
    common::LogTrace("  Jitter {}: mean = {:.4} [us]", series,
                     Microseconds(Statistics::GetMean(count, record)));
    common::LogTrace("  Jitter {}: stddev = {:.4} [us]", series,
                     Microseconds(Statistics::GetStdDev(count, record)));
}

}  // namespace

// The entry for late frames is there from the start, so that counting the first one allocates nothing.
Statistics::Statistics(unsigned long stream_id)
    : m_stream_id(stream_id), m_late_counts{{static_cast<long>(stream_id), 0}} {}

void Statistics::Enable(std::chrono::nanoseconds nominal_period) {
    if (nominal_period.count() <= 0) {
        throw std::invalid_argument("Nominal period of stream statistics must be positive");
    }
    const std::lock_guard lock(m_mutex);
    m_nominal_period = nominal_period;
    m_has_data = false;
    m_enabled = true;
}

void Statistics::Update(time_point sent, time_point received) {
    if (!m_enabled) return;
    const std::lock_guard lock(m_mutex);
    if (!m_has_data) {
        m_count = 0;
        m_records = {Record{.first = sent}, Record{.first = received}};
        m_has_data = true;
        return;
    }
    AddDeviation(m_records[0], sent, m_nominal_period, m_count + 1);
    AddDeviation(m_records[1], received, m_nominal_period, m_count + 1);
    ++m_count;
}

void Statistics::RecordLate() {
    const std::lock_guard lock(m_mutex);
    ++m_late_counts[static_cast<long>(m_stream_id)];
}

unsigned long Statistics::GetLateCount() const {
    const std::lock_guard lock(m_mutex);
    return m_late_counts.at(static_cast<long>(m_stream_id));
}

void Statistics::Print() {
    if (!m_enabled) return;
    std::unique_lock lock(m_mutex);
    if (!m_has_data) return;
    const auto count = m_count;
    const auto records = m_records;
    m_has_data = false;
    lock.unlock();

    common::LogTrace("Stream {}: num_samples = {}", m_stream_id, count);
    LogJitter("sent", count, records[0]);
    LogJitter("received", count, records[1]);
}

unsigned long Statistics::GetMean(unsigned long count, const Record& record) {
    return Mean(count, record.sum);
}

long Statistics::GetStdDev(unsigned long count, const Record& record) {
    return StdDev(count, record.sum, record.sum_squares);
}

void StatisticsBuffered::UpdateTsSent(time_point time) {
    if (!IsEnabled()) return;
    const std::lock_guard lock(m_pair_mutex);
    m_ts_sent = time;
    CompletePair();
}

void StatisticsBuffered::UpdateTsReceived(time_point time) {
    if (!IsEnabled()) return;
    const std::lock_guard lock(m_pair_mutex);
    m_ts_received = time;
    CompletePair();
}

void StatisticsBuffered::CompletePair() {
    if (!m_ts_sent || !m_ts_received) return;
    Update(*m_ts_sent, *m_ts_received);
    m_ts_sent.reset();
    m_ts_received.reset();
}

void StatisticsDuration::Update(std::chrono::nanoseconds value) {
    const std::lock_guard lock(m_mutex);
    if (!m_has_data) {
        m_stats = {.first = value};
        m_has_data = true;
        return;
    }
    m_stats.sum += Bits(value.count());
    m_stats.sum_squares += Bits(value.count()) * Bits(value.count());
    m_stats.max = std::max(m_stats.max, static_cast<std::int64_t>(value.count()));
    ++m_stats.count;
}

void StatisticsDuration::GetValues(double& max, double& mean, double& stddev) {
    std::unique_lock lock(m_mutex);
    if (!std::exchange(m_has_data, false)) return;
    const auto stats = m_stats;
    lock.unlock();

    max = WholeMicroseconds(stats.max);
    mean = WholeMicroseconds(GetMean(stats));
    stddev = WholeMicroseconds(GetStdDev(stats));
}

unsigned long StatisticsDuration::GetMean(const StatsDuration& stats) {
    return Mean(stats.count, stats.sum);
}

long StatisticsDuration::GetStdDev(const StatsDuration& stats) {
    return StdDev(stats.count, stats.sum, stats.sum_squares);
}

}  // namespace vosk::lumo
