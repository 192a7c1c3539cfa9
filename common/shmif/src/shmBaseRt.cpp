#include <vosk/common/shmif/shmBaseRt.hpp>

#include <vosk/common/logger.hpp>

#include "namedLock.hpp"
#include "sharedObject.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <exception>
#include <optional>
#include <utility>

namespace vosk::common::shmif {

namespace {

constexpr mode_t REGION_PERMISSIONS = 0666;

RtRegion* Map(int fd, std::size_t region_size) noexcept {
    void* address =
        ::mmap(nullptr, region_size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_LOCKED | MAP_POPULATE, fd, 0);
    return address == MAP_FAILED ? nullptr : static_cast<RtRegion*>(address);
}

void InitialiseMutex(pthread_mutex_t& mutex) {
    pthread_mutexattr_t attributes;
    ::pthread_mutexattr_init(&attributes);
    ::pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    ::pthread_mutex_init(&mutex, &attributes);
    ::pthread_mutexattr_destroy(&attributes);
}

// data_size comes last but one: while the head behind the mutex is all zero the region is unfinished.
void Initialise(RtRegion& region, std::size_t data_size) {
    InitialiseMutex(region.mutex);
    region.writer_wake.store(0);
    region.reader_wake.store(0);
    region.write_seq.store(0);
    region.reader_count.store(0);
    region.open_count.store(0);
    region.read_seq.store(0);
    region.data_size = data_size;
    region.open_count.fetch_add(1);
}

// A queue of Boost is never taken for one: its lock, which lies there, is not all zero.
bool IsUnfinished(const RtRegion& region) {
    const auto* const head = reinterpret_cast<const std::byte*>(&region);
    return std::all_of(head + offsetof(RtRegion, write_seq), head + sizeof(RtRegion),
                       [](std::byte byte) { return byte == std::byte{0}; });
}

FileDescriptor OpenOrCreate(const std::string& name) {
    FileDescriptor existing = OpenExisting(name);
    if (existing.IsOpen() || errno != ENOENT) return existing;
    return FileDescriptor{::shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, REGION_PERMISSIONS)};
}

// Closing goes on without the lock if the system refuses it: a close can't fail.
std::optional<NamedLock> TakeRegionsLock() noexcept try {
    return std::optional<NamedLock>{std::in_place};
} catch (const std::exception& error) {
    LogWarn("The lock of the shared-memory regions is refused: {}", error.what());
    return std::nullopt;
}

}  // namespace

NamedLock ShmBaseRT::CreateOrOpenShm(const std::string& prefix, const std::string& topic, std::size_t size) {
    NamedLock lock;
    const std::string name = prefix + topic;
    const std::size_t region_size = size + sizeof(RtRegion);

    FileDescriptor fd = OpenOrCreate(name);
    if (!fd.IsOpen()) Refuse(NO_OBJECT + SystemErrorText(errno), name);
    const auto found_size = SizeOf(fd.Get());
    const bool created = found_size == 0U;  // by this call, or by one that was killed before it came further
    if (!created && found_size != region_size) Refuse(SIZE_MISMATCH, name);
    const auto refuse = [&](const std::string& text) {
        if (created) ::shm_unlink(name.c_str());
        Refuse(text, name);
    };
    if (const int code = Reserve(fd.Get(), region_size)) refuse(NO_PAGES + SystemErrorText(code));
    RtRegion* region = Map(fd.Get(), region_size);
    if (region == nullptr) refuse(NO_MAPPING + SystemErrorText(errno));

    if (IsUnfinished(*region)) {
        Initialise(*region, size);
    } else if (region->data_size != size) {
        ::munmap(region, region_size);
        Refuse(SIZE_MISMATCH, name);
    }
    m_name = name;
    m_data_size = size;
    m_region_size = region_size;
    m_region = region;
    m_fd = fd.Release();
    m_valid = true;
    m_next_look = std::chrono::steady_clock::now() + m_look_interval;
    return lock;
}

ShmBaseRT::~ShmBaseRT() {
    if (!m_valid) return;
    const auto lock = TakeRegionsLock();
    ::pthread_mutex_destroy(&m_region->mutex);
    // The name may have been taken away and given to another region since: that one is not ours to remove.
    const bool remove_name = m_region->open_count.load() == 0 && NameIsStillOurs();
    Unmap();
    if (remove_name) ::shm_unlink(m_name.c_str());
}

bool ShmBaseRT::HasSuccessor(std::chrono::steady_clock::time_point now) noexcept {
    if (now < m_next_look) return false;
    m_next_look = now + m_look_interval;
    const auto status = StatOf(m_fd);
    return status && status->st_nlink == 0 && OpenExisting(m_name).IsOpen();
}

bool ShmBaseRT::MoveToSuccessor(const NamedLock& /*held*/) noexcept {
    FileDescriptor fd = OpenExisting(m_name);
    if (SizeOf(fd.Get()) != m_region_size || Reserve(fd.Get(), m_region_size) != 0) return false;
    RtRegion* region = Map(fd.Get(), m_region_size);
    if (region == nullptr) return false;
    if (region->data_size != m_data_size) {
        ::munmap(region, m_region_size);
        return false;
    }
    Unmap();
    m_region = region;
    m_fd = fd.Release();
    return true;
}

bool ShmBaseRT::NameIsStillOurs() const noexcept {
    const FileDescriptor named = OpenExisting(m_name);
    const auto ours = StatOf(m_fd);
    const auto theirs = StatOf(named.Get());
    return ours && theirs && ours->st_ino == theirs->st_ino && ours->st_dev == theirs->st_dev;
}

void ShmBaseRT::Unmap() noexcept {
    ::munmap(m_region, m_region_size);
    ::close(m_fd);
}

}  // namespace vosk::common::shmif
