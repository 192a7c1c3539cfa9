#pragma once

// The writing end of a queue topic: up to 100 messages on their way to another process, which takes them with
// boost::interprocess::message_queue. It never waits for room; what does not fit is lost. A queue that has
// lost its name (a collector has removed it, or made another) is left for the one that has it as soon as it
// is full. Each object belongs to one worker thread.

#include <vosk/common/shmif/shmIf.hpp>

#include <boost/interprocess/ipc/message_queue.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace vosk::common::shmif {

class ShmBaseBoost {
public:
    ShmBaseBoost(const ShmBaseBoost&) = delete;
    ShmBaseBoost& operator=(const ShmBaseBoost&) = delete;

    // Removes the queue's name, so the first writer of a topic to close ends the queue.
    virtual ~ShmBaseBoost();

protected:
    using Clock = std::chrono::steady_clock;

    ShmBaseBoost() = default;

    // Opens the queue, or makes one for messages of `size` bytes. Waits up to a second for one that is
    // unfinished; its creator was killed then, and it is made anew. Throws
    // boost::interprocess::interprocess_exception.
    void CreateOrOpenBoost(const std::string& prefix, const std::string& topic, std::size_t size);

    // If this queue has lost its name, takes the one that somebody else has put under it, or makes one,
    // without a wait. False if this one is kept: it has its name, its successor is unfinished (for less than
    // a second), or is not to be had, which is told once with a WARN.
    bool Follow(Clock::time_point now);

    // Takes the name away from this queue and follows it. The readers have to open the name again.
    bool Replace(Clock::time_point now);

    std::size_t m_data_size = 0;
    std::string m_name;
    bool m_valid = false;
    std::unique_ptr<boost::interprocess::message_queue> m_queue;

private:
    // One look. False if what has the name is unfinished, for less than a second.
    bool TryOpen(Clock::time_point now);
    bool RemoveUnfinished(std::uint64_t inode, Clock::time_point now);

    std::uint64_t m_inode = 0;             // of the queue
    std::uint64_t m_unfinished_inode = 0;  // of what was last seen unfinished under the name
    Clock::time_point m_unfinished_since{};
    bool m_told = false;  // that no other queue is to be had
};

class ShmWriterBoost : public ShmBaseBoost {
public:
    // Throws std::runtime_error for a topic that is unknown or no queue, and as CreateOrOpenBoost.
    ShmWriterBoost(ShmIf& shm, const std::string& topic);

    // Sends one message of the topic's size; a full queue drops it, and one whose lock is not to be had
    // within a millisecond, as are all messages of the next 100 ms then. A lock that was taken at three such
    // looks or more, over 500 ms, was left by a killed process, and the queue is replaced. Throws
    // std::runtime_error if the queue refuses.
    void TrySend(const void* data);

private:
    void NoteRefusal(Clock::time_point now);

    std::optional<Clock::time_point> m_refused_since;  // the first send in a row that was refused the lock
    int m_refusals = 0;                                // of that row
    Clock::time_point m_next_try{};                    // no message goes out in a row of refusals before
};

}  // namespace vosk::common::shmif
