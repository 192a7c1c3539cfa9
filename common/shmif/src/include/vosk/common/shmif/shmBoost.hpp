#pragma once

// The writing end of a queue topic: up to 100 messages on their way to another process, which takes them with
// boost::interprocess::message_queue. It never waits for room; what does not fit is lost.
// Each object belongs to one worker thread.

#include <vosk/common/shmif/shmIf.hpp>

#include <boost/interprocess/ipc/message_queue.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace vosk::common::shmif {

class ShmBaseBoost {
public:
    ShmBaseBoost(const ShmBaseBoost&) = delete;
    ShmBaseBoost& operator=(const ShmBaseBoost&) = delete;

    // Removes the queue's name, so the first writer of a topic to close ends the queue.
    virtual ~ShmBaseBoost();

protected:
    ShmBaseBoost() = default;

    // Opens the queue, or makes one for messages of `size` bytes. A queue whose creator was killed before it
    // was complete is replaced. Throws boost::interprocess::interprocess_exception.
    void CreateOrOpenBoost(const std::string& prefix, const std::string& topic, std::size_t size);

    // Takes another queue in the place of this one: the one that somebody else has put under its name, or an
    // empty one, for which its readers have to open the name again. If neither is to be had, this one is
    // kept, with a WARN.
    void Replace();

    std::size_t m_data_size = 0;
    std::string m_name;
    bool m_valid = false;
    std::unique_ptr<boost::interprocess::message_queue> m_queue;

private:
    void OpenOrCreate();

    std::uint64_t m_inode = 0;  // of what the name stood for when the queue was opened
};

class ShmWriterBoost : public ShmBaseBoost {
public:
    // Throws std::runtime_error for a topic that is unknown or no queue, and as CreateOrOpenBoost.
    ShmWriterBoost(ShmIf& shm, const std::string& topic);

    // Sends one message of the topic's size; a full queue drops it. A queue whose lock was left taken by a
    // killed process is replaced, at the price of this message. Throws std::runtime_error if the queue
    // refuses.
    void TrySend(const void* data);
};

}  // namespace vosk::common::shmif
