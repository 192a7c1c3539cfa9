#pragma once

// The two ends of an RT topic. The slot is the writer's while read_seq >= write_seq, else the reader's, so
// that neither copies while the other does. The data path is a copy, an atomic step and a futex wake: no
// lock, no allocation. Only the move to another region, when nobody answers any more, tries the lock of the
// regions, without a wait. A wake that falls between a look and the sleep is lost; the sleep then ends at its
// limit. Each object belongs to one worker thread.

#include <vosk/common/shmif/shmBaseRt.hpp>
#include <vosk/common/shmif/shmIf.hpp>

namespace vosk::common::shmif {

class ShmWriterRT : public ShmBaseRT {
public:
    // Throws std::runtime_error for a topic that is unknown or no RT topic, and as CreateOrOpenShm.
    ShmWriterRT(ShmIf& shm, const std::string& topic, std::chrono::nanoseconds look_interval = LOOK_INTERVAL);
    ~ShmWriterRT() override;

    // Puts one record of the topic's size into the slot as soon as it is free. True: done, or nobody reads
    // and nothing was written. False: the limit passed and the record is lost.
    // A record that a reader found when it attached may never be taken, if that reader does not free the slot
    // itself; after one whole limit of waiting for such a record the next call with a limit writes over it.
    bool TimedSend(const void* data, std::chrono::microseconds timeout);

    // Writes whether or not the last record was taken: for the simulation outputs, whose reader takes what it
    // gets.
    void TrySend(const void* data);

private:
    void Put(const void* data) noexcept;
    void TakeOverSlot() noexcept;
    bool FollowReader(std::chrono::steady_clock::time_point now) noexcept;

    std::uint32_t m_readers_at_put = 0;  // of these, one was there when the record in the slot was written
    bool m_give_up_record = false;       // the next call that may wait writes over the record in the slot
};

class ShmReaderRT : public ShmBaseRT {
public:
    // Attaches as the reader and frees the slot: a record written before is not read. Readers that were
    // killed are taken off the count. Throws as ShmWriterRT.
    ShmReaderRT(ShmIf& shm, const std::string& topic, std::chrono::nanoseconds look_interval = LOOK_INTERVAL);
    ~ShmReaderRT() override;

    // Copies the next record to `data`, which holds the topic's size. False: the limit passed, `data` is as
    // it was.
    bool TimedReceive(void* data, std::chrono::nanoseconds limit);

private:
    void Attach() noexcept;
    void FollowWriter(std::chrono::steady_clock::time_point now) noexcept;

    std::uint64_t m_last_seq = 0;  // write_seq of the last record taken
};

}  // namespace vosk::common::shmif
