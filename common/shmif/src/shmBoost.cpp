#include <vosk/common/shmif/shmBoost.hpp>

#include <vosk/common/logger.hpp>
#include <vosk/common/shmif/shmBaseRt.hpp>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <array>
#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/permissions.hpp>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace vosk::common::shmif {

namespace bip = boost::interprocess;

namespace {

constexpr std::size_t MAX_MESSAGES = 100;
constexpr mode_t QUEUE_PERMISSIONS = 0644;
constexpr unsigned int PRIORITY = 0;
constexpr std::chrono::seconds COMPLETION_LIMIT{1};
constexpr std::chrono::milliseconds COMPLETION_POLL{1};

std::unique_ptr<bip::message_queue> Create(const std::string& name, std::size_t size) {
    return std::make_unique<bip::message_queue>(bip::create_only, name.c_str(), MAX_MESSAGES, size,
                                                bip::permissions{QUEUE_PERMISSIONS});
}

std::uint64_t InodeOf(int fd) noexcept {
    struct stat status {};
    return ::fstat(fd, &status) == 0 ? status.st_ino : 0;
}

// 0 if the name stands for nothing.
std::uint64_t InodeOf(const std::string& name) noexcept {
    const int fd = ::shm_open(name.c_str(), O_RDONLY, 0);
    if (fd == -1) return 0;
    const std::uint64_t inode = InodeOf(fd);
    ::close(fd);
    return inode;
}

// Not what somebody else has put under the name since.
void RemoveIfStill(std::uint64_t inode, const std::string& name) noexcept {
    if (InodeOf(name) == inode) bip::message_queue::remove(name.c_str());
}

enum class Completion { COMPLETE, UNFINISHED, NO_QUEUE };

// Looks at what has the name, without waiting. The first word of a queue says how far its creator has come.
Completion LookAt(int fd) {
    constexpr std::uint32_t INITIALIZED = 2;
    constexpr std::uint32_t CORRUPTED = 3;  // a state to which opening answers with an exception
    std::array<std::uint64_t, sizeof(RtRegion) / sizeof(std::uint64_t)> head{};
    struct stat status {};
    if (::fstat(fd, &status) != 0 || ::pread(fd, head.data(), sizeof(head), 0) < ::ssize_t{4}) {
        return Completion::UNFINISHED;
    }
    const auto state = static_cast<std::uint32_t>(head[0]);
    if (state == INITIALIZED || state == CORRUPTED) return Completion::COMPLETE;
    const std::uint64_t rt_data_size = head.back();
    const bool is_rt_region = rt_data_size + sizeof(RtRegion) == static_cast<std::uint64_t>(status.st_size);
    return is_rt_region ? Completion::NO_QUEUE : Completion::UNFINISHED;
}

// Opening a queue waits without limit for its creator to complete it. One that was killed half-way leaves a
// queue for which all would wait: it is removed.
void RemoveIfUnfinished(const std::string& name) {
    const int fd = ::shm_open(name.c_str(), O_RDONLY, 0);
    if (fd == -1) return;
    const auto deadline = std::chrono::steady_clock::now() + COMPLETION_LIMIT;
    Completion completion = LookAt(fd);
    while (completion == Completion::UNFINISHED && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(COMPLETION_POLL);
        completion = LookAt(fd);
    }
    const std::uint64_t inode = InodeOf(fd);
    ::close(fd);
    if (completion == Completion::NO_QUEUE) {
        throw bip::interprocess_exception{bip::error_info{bip::already_exists_error},
                                          "The name of the queue is taken by an RT region"};
    }
    if (completion == Completion::COMPLETE) return;
    LogWarn("Queue {} was left unfinished by its creator and is made anew.", name);
    RemoveIfStill(inode, name);
}

// True if the queue's own lock was not to be had within its limit: its holder is gone.
template <class Operation>
bool IsLockLost(Operation&& operation) {
    try {
        operation();
    } catch (const bip::interprocess_exception& error) {
        if (error.get_error_code() != bip::timeout_when_locking_error) throw;
        return true;
    }
    return false;
}

}  // namespace

void ShmBaseBoost::CreateOrOpenBoost(const std::string& prefix, const std::string& topic, std::size_t size) {
    m_name = prefix + topic;
    m_data_size = size;
    OpenOrCreate();
    m_valid = true;
}

void ShmBaseBoost::OpenOrCreate() {
    RemoveIfUnfinished(m_name);
    try {
        m_queue = std::make_unique<bip::message_queue>(bip::open_only, m_name.c_str());
    } catch (const bip::interprocess_exception&) {
        m_queue = Create(m_name, m_data_size);  // there is none
    }
    m_inode = InodeOf(m_name);
    if (m_queue->get_max_msg_size() < m_data_size) {
        LogWarn("Queue {} was made for messages of {} bytes, {} are needed.", m_name,
                m_queue->get_max_msg_size(), m_data_size);
    }
}

void ShmBaseBoost::Replace() try {
    LogWarn("Queue {} is locked by a process that is gone and is made anew.", m_name);
    RemoveIfStill(m_inode, m_name);
    OpenOrCreate();
} catch (const bip::interprocess_exception& error) {
    LogWarn("Queue {} is not to be had anew, the old one is kept: {}", m_name, error.what());
}

ShmBaseBoost::~ShmBaseBoost() {
    if (m_valid) RemoveIfStill(m_inode, m_name);
}

ShmWriterBoost::ShmWriterBoost(ShmIf& shm, const std::string& topic) {
    const std::size_t size = GetSizeOrThrow(shm, topic, ShmType::SHM_QUEUE);
    CreateOrOpenBoost(shm.GetPrefix(), topic, size);
}

void ShmWriterBoost::TrySend(const void* data) try {
    if (IsLockLost([&] { m_queue->try_send(data, m_data_size, PRIORITY); })) Replace();
} catch (const bip::interprocess_exception& error) {
    throw std::runtime_error{fmt::format("Boost exception: {}", error.what())};
}

}  // namespace vosk::common::shmif
