#include <vosk/common/shmif/shmBoost.hpp>

#include <vosk/common/logger.hpp>
#include <vosk/common/shmif/shmBaseRt.hpp>

#include "fileDescriptor.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <array>
#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/permissions.hpp>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

namespace vosk::common::shmif {

namespace bip = boost::interprocess;

namespace {

constexpr std::size_t MAX_MESSAGES = 100;
constexpr mode_t QUEUE_PERMISSIONS = 0644;
constexpr unsigned int PRIORITY = 0;
constexpr std::chrono::seconds COMPLETION_LIMIT{1};
constexpr std::chrono::milliseconds COMPLETION_POLL{1};
// A lock held for longer was left by a process that is gone: to move one message takes microseconds.
constexpr std::chrono::milliseconds HOLDER_LIMIT{500};
constexpr int REFUSALS_TO_REPLACE = 3;
// Between two looks at a lock that was taken: the millisecond is not paid for each message of a burst.
constexpr std::chrono::milliseconds REFUSED_PAUSE{100};

// Unless somebody else has taken the name in the meantime.
void Create(const std::string& name, std::size_t size) {
    try {
        const bip::message_queue created{bip::create_only, name.c_str(), MAX_MESSAGES, size,
                                         bip::permissions{QUEUE_PERMISSIONS}};
    } catch (const bip::interprocess_exception& error) {
        if (error.get_error_code() != bip::already_exists_error) throw;
    }
}

FileDescriptor OpenToLook(const std::string& name) noexcept {
    return FileDescriptor{::shm_open(name.c_str(), O_RDONLY, 0)};
}

// 0 if the name stands for nothing.
std::uint64_t InodeOf(const FileDescriptor& file) noexcept {
    const auto status = StatOf(file.Get());
    return status ? status->st_ino : 0;
}
std::uint64_t InodeOf(const std::string& name) noexcept {
    return InodeOf(OpenToLook(name));
}

// Not what somebody else has put under the name since. False if the name can't be taken away.
bool RemoveIfStill(std::uint64_t inode, const std::string& name) noexcept {
    if (InodeOf(name) == inode) bip::message_queue::remove(name.c_str());
    return InodeOf(name) != inode;
}

// Whether the creator of what has the name has yet to complete it. The first word of a queue says how far it
// has come.
bool IsUnfinished(const FileDescriptor& file) {
    constexpr std::uint32_t INITIALIZED = 2;
    constexpr std::uint32_t CORRUPTED = 3;  // a state to which opening answers with an exception
    std::array<std::uint64_t, sizeof(RtRegion) / sizeof(std::uint64_t)> head{};
    const auto status = StatOf(file.Get());
    if (!status || ::pread(file.Get(), head.data(), sizeof(head), 0) < ::ssize_t{4}) return true;
    const auto state = static_cast<std::uint32_t>(head[0]);
    if (state == INITIALIZED || state == CORRUPTED) return false;
    const std::uint64_t rt_data_size = head.back();
    if (rt_data_size + sizeof(RtRegion) != static_cast<std::uint64_t>(status->st_size)) return true;
    throw bip::interprocess_exception{bip::error_info{bip::already_exists_error},
                                      "The name of the queue is taken by an RT region"};
}

}  // namespace

void ShmBaseBoost::CreateOrOpenBoost(const std::string& prefix, const std::string& topic, std::size_t size) {
    m_name = prefix + topic;
    m_data_size = size;
    while (!TryOpen(Clock::now())) std::this_thread::sleep_for(COMPLETION_POLL);
    m_valid = true;
}

// Opening a queue waits without limit for its creator to complete it: only one that was seen complete is
// opened, one made here as well. A name that changes hands meanwhile is looked at again, so that the inode is
// that of the queue.
bool ShmBaseBoost::TryOpen(Clock::time_point now) {
    for (;;) {
        const FileDescriptor file = OpenToLook(m_name);
        if (!file.IsOpen()) {
            if (errno != ENOENT) throw bip::interprocess_exception{bip::error_info{errno}};
            Create(m_name, m_data_size);
            continue;
        }
        const std::uint64_t inode = InodeOf(file);
        if (IsUnfinished(file)) {
            if (!RemoveUnfinished(inode, now)) return false;
            continue;
        }
        auto queue = std::make_unique<bip::message_queue>(bip::open_only, m_name.c_str());
        if (InodeOf(m_name) != inode) continue;
        m_queue = std::move(queue);
        m_inode = inode;
        break;
    }
    m_told = false;
    if (m_queue->get_max_msg_size() < m_data_size) {
        LogWarn("Queue {} was made for messages of {} bytes, {} are needed.", m_name,
                m_queue->get_max_msg_size(), m_data_size);
    }
    return true;
}

bool ShmBaseBoost::RemoveUnfinished(std::uint64_t inode, Clock::time_point now) {
    if (inode != m_unfinished_inode) {
        m_unfinished_inode = inode;
        m_unfinished_since = now;
    }
    if (now - m_unfinished_since < COMPLETION_LIMIT) return false;
    if (!RemoveIfStill(inode, m_name)) {
        throw bip::interprocess_exception{bip::error_info{bip::security_error},
                                          "The queue is unfinished and can't be removed"};
    }
    LogWarn("Queue {} was left unfinished by its creator and is made anew.", m_name);
    return true;
}

bool ShmBaseBoost::Follow(Clock::time_point now) try {
    return InodeOf(m_name) != m_inode && TryOpen(now);
} catch (const bip::interprocess_exception& error) {
    if (!std::exchange(m_told, true))
        LogWarn("Queue {} is not to be had anew, the old one is kept: {}", m_name, error.what());
    return false;
}

bool ShmBaseBoost::Replace(Clock::time_point now) {
    RemoveIfStill(m_inode, m_name);
    if (!Follow(now)) return false;
    LogWarn("Queue {} was locked by a process that is gone and is replaced.", m_name);
    return true;
}

ShmBaseBoost::~ShmBaseBoost() {
    if (m_valid) RemoveIfStill(m_inode, m_name);
}

ShmWriterBoost::ShmWriterBoost(ShmIf& shm, const std::string& topic) {
    const std::size_t size = GetSizeOrThrow(shm, topic, ShmType::SHM_QUEUE);
    CreateOrOpenBoost(shm.GetPrefix(), topic, size);
}

void ShmWriterBoost::TrySend(const void* data) try {
    if (m_refused_since && Clock::now() < m_next_try) return;
    const bool had_room = m_queue->try_send(data, m_data_size, PRIORITY);
    m_refused_since.reset();
    if (!had_room) Follow(Clock::now());
} catch (const bip::interprocess_exception& error) {
    const auto now = Clock::now();
    if (error.get_error_code() == bip::timeout_when_locking_error) return NoteRefusal(now);
    Follow(now);
    throw std::runtime_error{fmt::format("Boost exception: {}", error.what())};
}

void ShmWriterBoost::NoteRefusal(Clock::time_point now) {
    if (!m_refused_since) {
        m_refused_since = now;
        m_refusals = 0;
    }
    ++m_refusals;
    m_next_try = now + REFUSED_PAUSE;
    if (m_refusals < REFUSALS_TO_REPLACE || now - *m_refused_since < HOLDER_LIMIT) return;
    if (Replace(now)) m_refused_since.reset();
}

}  // namespace vosk::common::shmif
