#include "peers/simOutWatch.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <nodepin/nodepin.hpp>
#include <pktwire/udpSocket.hpp>

#include <cstring>
#include <stdexcept>

namespace vosk::rig {
namespace {

constexpr std::size_t CENTROID_ERROR_SIZE = 40;
constexpr std::size_t WFS_SIZE = 26160;
constexpr std::size_t WFS_COUNT_OFFSET = 26152;
constexpr std::size_t ID_OFFSET = 8;
constexpr std::size_t SLOPES_OFFSET = 16;

template <class T>
T ValueAt(const std::vector<std::byte>& bytes, std::size_t offset) {
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

// Loads before stay before loads behind. The thread sanitizer knows no fences, and sees no other process.
void OrderLoads() {
#ifndef VOSK_SANITIZED
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
#endif
}

}  // namespace

struct SimOutWatch::Region {
    std::array<std::byte, 40> mutex;
    std::uint64_t write_seq;
    std::uint32_t writer_wake;
    std::uint32_t reader_wake;
    std::array<std::byte, 16> readers;
    std::uint64_t data_size;
    std::byte slot[1];
};

SimOutWatch::SimOutWatch(Record record, std::size_t results, std::size_t stride, std::size_t slopes)
    : m_record(record),
      m_stride(stride),
      m_size(record == Record::WfsSlopes ? WFS_SIZE : CENTROID_ERROR_SIZE),
      m_log(results),
      m_slopes((results / stride + 1) * slopes),
      m_first_copy(m_size),
      m_second_copy(m_size) {}

SimOutWatch::~SimOutWatch() {
    Stop();
    if (m_region != nullptr) munmap(const_cast<Region*>(m_region), offsetof(Region, slot) + m_size);
}

void SimOutWatch::Start(const std::string& name, std::chrono::nanoseconds interval, int priority) {
    static_assert(offsetof(Region, write_seq) == 40 && offsetof(Region, reader_wake) == 52 &&
                  offsetof(Region, data_size) == 72 && offsetof(Region, slot) == 80);
    const std::string file = "/dev/shm/" + name;
    const int descriptor = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) throw std::runtime_error(file + ": the host has not made this mailbox");
    const pktwire::detail::FileDescriptor owner(descriptor);
    void* const place = mmap(nullptr, offsetof(Region, slot) + m_size, PROT_READ, MAP_SHARED, descriptor, 0);
    if (place == MAP_FAILED) throw std::runtime_error(file + ": can't be mapped");
    m_region = static_cast<const Region*>(place);
    if (m_region->data_size != m_size)
        throw std::runtime_error(
            fmt::format("{}: records of {} bytes, not {}", file, m_region->data_size, m_size));
    m_interval = interval;
    m_first_seq = m_last_seq = __atomic_load_n(&m_region->write_seq, __ATOMIC_SEQ_CST);
    m_running = true;
    m_thread = nodepin::MakeThread("SimOutWatch", {{}, {}, priority}, [this] { Run(); });
}

void SimOutWatch::Stop() {
    m_running = false;
    if (m_thread.joinable()) m_thread.join();
}

std::span<const defs::Slope> SimOutWatch::SlopesOf(const ResultRecord& result) const {
    if (result.slopes == ResultRecord::NOT_KEPT) return {};
    return {m_slopes.data() + result.slopes, result.count};
}

void SimOutWatch::Run() {
    const timespec limit{0, static_cast<long>(m_interval.count())};
    while (m_running) {
        const std::uint64_t seq = __atomic_load_n(&m_region->write_seq, __ATOMIC_SEQ_CST);
        if (seq == m_last_seq) {
            syscall(SYS_futex, &m_region->reader_wake, FUTEX_WAIT, 0, &limit, nullptr, 0);
            continue;
        }
        if (Copy(seq)) Take(seq);
    }
}

bool SimOutWatch::Copy(std::uint64_t seq) {
    std::memcpy(m_first_copy.data(), m_region->slot, m_size);
    OrderLoads();
    std::memcpy(m_second_copy.data(), m_region->slot, m_size);
    OrderLoads();
    return __atomic_load_n(&m_region->write_seq, __ATOMIC_SEQ_CST) == seq && m_first_copy == m_second_copy;
}

void SimOutWatch::Take(std::uint64_t seq) {
    m_last_seq = seq;
    const std::size_t index = m_log.WrittenCount();
    ResultRecord* const result = m_log.Append();
    if (result == nullptr) return;
    *result = {seq,
               AtomClk::now(),
               time_point{std::chrono::nanoseconds{ValueAt<std::int64_t>(m_first_copy, 0)}},
               ValueAt<std::uint32_t>(m_first_copy, ID_OFFSET),
               1,
               ResultRecord::NOT_KEPT};
    if (m_record == Record::WfsSlopes)
        result->count = static_cast<std::uint32_t>(std::min<std::uint64_t>(
            ValueAt<std::uint64_t>(m_first_copy, WFS_COUNT_OFFSET), defs::MAX_SLOPES));
    if (index % m_stride == 0 && m_slopes_used + result->count <= m_slopes.size()) {
        result->slopes = m_slopes_used;
        std::memcpy(m_slopes.data() + m_slopes_used, m_first_copy.data() + SLOPES_OFFSET,
                    result->count * sizeof(defs::Slope));
        m_slopes_used += result->count;
    }
    m_log.Publish(m_log.WrittenCount());
}

}  // namespace vosk::rig
