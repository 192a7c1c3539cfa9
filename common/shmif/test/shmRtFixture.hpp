#pragma once

// The mailbox tests: a topic of their own, and its region as a foreign program sees it.

#include <vosk/common/shmif/shmRt.hpp>

#include "childProcess.hpp"

#include <fcntl.h>

namespace vosk::test {

using namespace std::chrono_literals;
using namespace vosk::common::shmif;

inline constexpr const char* TOPIC = "mailbox";
inline constexpr std::size_t SIZE = 640;
inline constexpr std::size_t WORDS = SIZE / sizeof(std::uint64_t);
inline constexpr auto GENEROUS = 30s;

// All words equal, so that a torn record shows.
using Record = std::array<std::uint64_t, WORDS>;

inline Record RecordOf(std::uint64_t value) {
    Record record;
    record.fill(value);
    return record;
}

// Of records that hold the value in each word.
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

class ShmRt : public ::testing::Test {
protected:
    ShmRt() {
        ShmIf::Setup(m_prefix.Get());
        ShmIf::RegisterTopic(TOPIC, ShmType::SHM_RT, SIZE);
    }
    ~ShmRt() override {
        ShmIf::Teardown();
        m_prefix.Remove(TOPIC);
    }

    // Peers that look for a successor as soon as nobody answers.
    ShmWriterRT MakeWriter() { return {m_shm, TOPIC, 0s}; }
    ShmReaderRT MakeReader() { return {m_shm, TOPIC, 0s}; }

    // The bytes of the region, as a foreign program sees them.
    std::string ReadRegion() const {
        std::ifstream file{"/dev/shm" + m_prefix.NameOf(TOPIC), std::ios::binary};
        return {std::istreambuf_iterator<char>{file}, {}};
    }
    void WriteRegion(const std::string& bytes) const {
        std::ofstream file{"/dev/shm" + m_prefix.NameOf(TOPIC), std::ios::binary};
        file << bytes;
    }

    template <class T>
    static T At(const std::string& bytes, std::size_t offset) {
        if (bytes.size() < offset + sizeof(T)) throw std::out_of_range{"the region is gone"};
        T value{};
        std::memcpy(&value, bytes.data() + offset, sizeof(value));
        return value;
    }
    template <class T>
    T RegionAt(std::size_t offset) const {
        return At<T>(ReadRegion(), offset);
    }
    std::uint64_t WriteSeq() const { return RegionAt<std::uint64_t>(40); }
    std::uint32_t ReaderCount() const { return RegionAt<std::uint32_t>(56); }
    std::uint32_t OpenCount() const { return RegionAt<std::uint32_t>(60); }
    std::uint64_t ReadSeq() const { return RegionAt<std::uint64_t>(64); }

    template <class T>
    void SetRegionAt(std::size_t offset, T value) const {
        std::fstream file{"/dev/shm" + m_prefix.NameOf(TOPIC),
                          std::ios::binary | std::ios::in | std::ios::out};
        file.seekp(static_cast<std::streamoff>(offset));
        file.write(reinterpret_cast<const char*>(&value), sizeof(value));
    }
    // A reader that does what the format asks for and no more: it leaves a record that it finds in the slot.
    void AttachPlainReader() const { SetRegionAt(56, ReaderCount() + 1); }

    // A writer that leaves its record in the slot when it is killed.
    void PutAndDie(std::uint64_t value) {
        const Holder holder{[&] {
            auto writer = std::make_unique<ShmWriterRT>(m_shm, TOPIC);
            writer->TrySend(RecordOf(value).data());
            return writer;
        }};
    }

    bool Exists() const { return m_prefix.Exists(TOPIC); }

    UniquePrefix m_prefix;
    ShmIf m_shm;
};

}  // namespace vosk::test
