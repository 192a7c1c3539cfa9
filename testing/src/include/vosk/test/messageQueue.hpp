#pragma once

// A message queue in shared memory, as the program that drains it sees it.

#include <boost/interprocess/ipc/message_queue.hpp>
#include <boost/interprocess/mapped_region.hpp>
#include <boost/interprocess/shared_memory_object.hpp>

#include <stdexcept>
#include <string>
#include <vector>

namespace vosk::test {

namespace bip = boost::interprocess;

// Takes out all that waits in the queue. All messages are of one priority.
inline std::vector<std::string> Drain(bip::message_queue& queue) {
    std::vector<std::string> messages;
    std::string message(queue.get_max_msg_size(), '?');
    bip::message_queue::size_type size = 0;
    unsigned int priority = 0;
    while (queue.try_receive(message.data(), message.size(), size, priority)) {
        if (priority != 0) throw std::runtime_error{"a message of another priority"};
        messages.push_back(message.substr(0, size));
    }
    return messages;
}
inline std::vector<std::string> Drain(const std::string& name) {
    bip::message_queue queue{bip::open_only, name.c_str()};
    return Drain(queue);
}

// The queue's own lock, which Boost hides.
class QueueLock {
public:
    explicit QueueLock(const std::string& name)
        : m_region{bip::shared_memory_object{bip::open_only, name.c_str(), bip::read_write},
                   bip::read_write} {}

    auto& Get() {
        using Header = bip::ipcdetail::mq_hdr_t<bip::offset_ptr<void>>;
        using Impl = bip::ipcdetail::managed_open_or_create_impl<bip::shared_memory_object, 0, true, false>;
        auto* header = static_cast<char*>(m_region.get_address()) + Impl::ManagedOpenOrCreateUserOffset;
        return reinterpret_cast<Header*>(header)->m_mutex;
    }

private:
    bip::mapped_region m_region;
};

}  // namespace vosk::test
