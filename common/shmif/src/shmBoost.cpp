#include <vosk/common/shmif/shmBoost.hpp>

#include <vosk/common/logger.hpp>

#include "sharedObject.hpp"

#include <sys/mman.h>
#include <unistd.h>
#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/permissions.hpp>
#include <boost/interprocess/shared_memory_object.hpp>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <system_error>
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

// An object that Boost lengthens to make a queue in it, and fills at once: its pages have to be there by
// then.
class ReservedObject : public bip::shared_memory_object {
public:
    using bip::shared_memory_object::shared_memory_object;

    void truncate(bip::offset_t size) {
        const int code = Reserve(get_mapping_handle().handle, static_cast<std::size_t>(size));
        if (code != 0) throw std::system_error{code, std::system_category()};
    }
};

// What bip::message_queue makes a queue of, for an object of that kind.
using Maker = bip::ipcdetail::managed_open_or_create_impl<ReservedObject, 0, true, false>;
using Filler = bip::ipcdetail::msg_queue_initialization_func_t<bip::offset_ptr<void>>;

std::size_t SizeOfQueue(std::size_t message_size) {
    return Filler{MAX_MESSAGES, message_size}.get_min_size() + Maker::ManagedOpenOrCreateUserOffset;
}

std::string PathOf(const std::string& name) {
    return "/dev/shm/" + name.substr(name.starts_with('/') ? 1 : 0);
}

// The queue gets its name when it is complete, so that a process killed here leaves none that is not; unless
// somebody else has taken the name in the meantime.
void Create(const std::string& name, std::size_t size) {
    const std::string draft = fmt::format("{}.{}", name, ::gettid());
    ::shm_unlink(draft.c_str());
    try {
        const Maker made{bip::create_only,
                         draft.c_str(),
                         SizeOfQueue(size),
                         bip::read_write,
                         nullptr,
                         Filler{MAX_MESSAGES, size},
                         bip::permissions{QUEUE_PERMISSIONS}};
    } catch (const std::system_error& error) {
        ::shm_unlink(draft.c_str());
        Refuse(NO_PAGES + SystemErrorText(error.code().value()), name);
    } catch (const bip::interprocess_exception& error) {
        ::shm_unlink(draft.c_str());
        Refuse(NO_OBJECT + std::string{error.what()}, name);
    }
    const int code = ::link(PathOf(draft).c_str(), PathOf(name).c_str()) == 0 ? 0 : errno;
    ::shm_unlink(draft.c_str());
    if (code != 0 && code != EEXIST) Refuse(NO_OBJECT + SystemErrorText(code), name);
}

FileDescriptor OpenOrCreate(const std::string& name, std::size_t size) {
    FileDescriptor existing = OpenExisting(name);
    if (existing.IsOpen() || errno != ENOENT) return existing;
    Create(name, size);
    return OpenExisting(name);
}

ino_t InodeOfName(const std::string& name) noexcept {
    return InodeOf(OpenExisting(name).Get());
}

// Boost waits without limit for the creator of a queue to bring its first word above 1.
bool IsComplete(const FileDescriptor& file) noexcept {
    std::uint32_t state = 0;
    return ::pread(file.Get(), &state, sizeof(state), 0) == sizeof(state) && state > 1;
}

}  // namespace

void ShmBaseBoost::CreateOrOpenBoost(const std::string& prefix, const std::string& topic, std::size_t size) {
    m_name = prefix + topic;
    m_data_size = size;
    const auto deadline = std::chrono::steady_clock::now() + COMPLETION_LIMIT;
    while (!TryOpen()) {
        if (std::chrono::steady_clock::now() > deadline)
            Refuse(NO_OBJECT + std::string{"no queue that its creator has completed"}, m_name);
        std::this_thread::sleep_for(COMPLETION_POLL);
    }
    m_valid = true;
}

bool ShmBaseBoost::TryOpen() try {
    const FileDescriptor file = OpenOrCreate(m_name, m_data_size);
    if (!file.IsOpen() && errno == ENOENT) return false;  // removed since it was made
    if (!file.IsOpen()) Refuse(NO_OBJECT + SystemErrorText(errno), m_name);
    const auto found_size = SizeOf(file.Get());
    if (found_size == 0U) return false;
    const std::size_t size = SizeOfQueue(m_data_size);
    if (found_size != size) Refuse(SIZE_MISMATCH, m_name);
    if (const int code = Reserve(file.Get(), size)) Refuse(NO_PAGES + SystemErrorText(code), m_name);
    if (!IsComplete(file)) return false;

    auto queue = std::make_unique<bip::message_queue>(bip::open_only, m_name.c_str());
    const ino_t inode = InodeOf(file.Get());
    if (InodeOfName(m_name) != inode) return false;  // the name has changed hands meanwhile
    if (queue->get_max_msg_size() != m_data_size) Refuse(SIZE_MISMATCH, m_name);
    m_queue = std::move(queue);
    m_inode = inode;
    return true;
} catch (const bip::interprocess_exception& error) {
    Refuse(NO_OBJECT + std::string{error.what()}, m_name);
}

void ShmBaseBoost::Follow() noexcept try {
    if (InodeOfName(m_name) != m_inode && TryOpen()) m_refusal_logged = false;
} catch (const std::exception& error) {
    if (!std::exchange(m_refusal_logged, true))
        LogWarn("The queue that has lost its name is kept. {}", error.what());
}

ShmBaseBoost::~ShmBaseBoost() {
    if (m_valid && InodeOfName(m_name) == m_inode) bip::message_queue::remove(m_name.c_str());
}

ShmWriterBoost::ShmWriterBoost(ShmIf& shm, const std::string& topic) {
    const std::size_t size = GetSizeOrThrow(shm, topic, ShmType::SHM_QUEUE);
    CreateOrOpenBoost(shm.GetPrefix(), topic, size);
}

void ShmWriterBoost::TrySend(const void* data) try {
    if (!m_queue->try_send(data, m_data_size, PRIORITY)) Follow();
} catch (const bip::interprocess_exception& error) {
    Follow();
    throw std::runtime_error{fmt::format("Boost exception: {}", error.what())};
}

}  // namespace vosk::common::shmif
