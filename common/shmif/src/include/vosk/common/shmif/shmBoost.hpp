#pragma once

// The writing end of a queue topic: up to 100 messages on their way to another process, which takes them with
// boost::interprocess::message_queue. It never waits for room; what does not fit is lost. A queue that has
// lost its name (a collector has removed it, or made another) is left for the one that has it as soon as it
// is full or refuses a message. Each object belongs to one worker thread.

#include <vosk/common/shmif/shmIf.hpp>

#include <boost/interprocess/ipc/message_queue.hpp>

#include <sys/types.h>
#include <cstddef>
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

    // Opens the queue, or makes one for messages of `size` bytes, with all its memory. Waits up to a second
    // for one whose creator has yet to complete it. Throws std::runtime_error with the reason and the name if
    // the system refuses, or if what has the name is no queue of this size, which stays as it was.
    void CreateOrOpenBoost(const std::string& prefix, const std::string& topic, std::size_t size);

    // If this queue has lost its name, takes the one that somebody else has put under it, or makes one,
    // without a wait. This one is kept if that is incomplete, or refused, which is logged once at WARN.
    void Follow() noexcept;

    std::size_t m_data_size = 0;
    std::string m_name;
    bool m_valid = false;
    std::unique_ptr<boost::interprocess::message_queue> m_queue;

private:
    // False if what has the name is incomplete, or has it no more.
    bool TryOpen();

    ino_t m_inode = 0;  // of the queue
    bool m_refusal_logged = false;
};

class ShmWriterBoost : public ShmBaseBoost {
public:
    // Throws std::runtime_error for a topic that is unknown or no queue, and as CreateOrOpenBoost.
    ShmWriterBoost(ShmIf& shm, const std::string& topic);

    // Sends one message of the topic's size; a full queue drops it. Throws std::runtime_error if the queue
    // refuses it, such as for a lock that somebody else holds for a millisecond.
    void TrySend(const void* data);
};

}  // namespace vosk::common::shmif
