#pragma once

// The mailbox tests: records, and the fields of the region.

#include <vosk/common/shmif/shmRt.hpp>

#include "shmFixture.hpp"

namespace vosk::test {

inline constexpr std::size_t SIZE = 640;
inline constexpr auto GENEROUS = 30s;

// All words equal, so that a torn record shows.
using Record = std::array<std::uint64_t, SIZE / sizeof(std::uint64_t)>;

inline Record RecordOf(std::uint64_t value) {
    Record record;
    record.fill(value);
    return record;
}

inline bool Send(ShmWriterRT& writer, std::uint64_t value, std::chrono::microseconds limit = 0us) {
    return writer.TimedSend(RecordOf(value).data(), limit);
}

// The value of the record that is there, or 0.
inline std::uint64_t Take(ShmReaderRT& reader, std::chrono::microseconds limit = 0us) {
    Record record{};
    if (!reader.TimedReceive(record.data(), limit)) return 0;
    EXPECT_EQ(record, RecordOf(record[0]));
    return record[0];
}

// A wake that is lost costs one limit, so a side that must not miss a record for long takes short ones.
inline bool TakeSoon(ShmReaderRT& reader, std::uint64_t value) {
    std::uint64_t taken = 0;
    return Eventually([&] { return (taken = Take(reader, 1ms)) != 0; }) && taken == value;
}

class ShmRt : public ShmTest {
protected:
    ShmRt() : ShmTest{ShmType::SHM_RT, SIZE} {}

    // Peers that look for a successor as soon as nobody answers.
    ShmWriterRT MakeWriter() { return {m_shm, TOPIC, 0s}; }
    ShmReaderRT MakeReader() { return {m_shm, TOPIC, 0s}; }

    template <class T>
    T RegionAt(std::size_t offset) const {
        T value{};
        if (Content().copy(reinterpret_cast<char*>(&value), sizeof(T), offset) != sizeof(T))
            throw std::out_of_range{"the region is gone"};
        return value;
    }
    std::uint64_t WriteSeq() const { return RegionAt<std::uint64_t>(40); }
    std::uint32_t ReaderCount() const { return RegionAt<std::uint32_t>(56); }
    std::uint32_t OpenCount() const { return RegionAt<std::uint32_t>(60); }
    std::uint64_t ReadSeq() const { return RegionAt<std::uint64_t>(64); }

    template <class T>
    void SetRegionAt(std::size_t offset, T value) const {
        std::fstream file{m_path, std::ios::binary | std::ios::in | std::ios::out};
        file.seekp(static_cast<std::streamoff>(offset));
        file.write(reinterpret_cast<const char*>(&value), sizeof(value));
    }
    // A reader that does what the format asks for and no more: it leaves a record that it finds in the slot.
    void AttachPlainReader() const { SetRegionAt(56, ReaderCount() + 1); }

    // A writer that leaves its record in the slot when it is killed.
    void PutAndDie(std::uint64_t value) {
        KillAHolderOf([&] {
            auto writer = std::make_unique<ShmWriterRT>(m_shm, TOPIC);
            writer->TrySend(RecordOf(value).data());
            return writer;
        });
    }
};

}  // namespace vosk::test
