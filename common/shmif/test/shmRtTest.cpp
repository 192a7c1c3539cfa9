#include <vosk/common/shmif/shmRt.hpp>

#include "childProcess.hpp"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <array>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

using namespace std::chrono_literals;
using namespace vosk::common::shmif;
using vosk::test::ChildProcess;
using vosk::test::Eventually;
using vosk::test::Signals;

namespace {

constexpr const char* TOPIC = "mailbox";
constexpr std::size_t SIZE = 640;
constexpr std::size_t WORDS = SIZE / sizeof(std::uint64_t);
constexpr auto GENEROUS = 30s;

// All words equal, so that a torn record shows.
using Record = std::array<std::uint64_t, WORDS>;

Record RecordOf(std::uint64_t value) {
    Record record;
    record.fill(value);
    return record;
}

// A wake that is lost costs one limit, so a side that must not miss a record for long takes short ones.
bool ReceiveSoon(ShmReaderRT& reader, Record& record) {
    return Eventually([&] { return reader.TimedReceive(record.data(), 1ms); });
}

bool SendSoon(ShmWriterRT& writer, const Record& record) {
    return Eventually([&] { return writer.TimedSend(record.data(), 1ms); });
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

    ShmWriterRT MakeWriter() { return {m_shm, TOPIC}; }

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

    // A reader that does what the format asks for and no more: it leaves a record that it finds in the slot.
    void AttachPlainReader() const {
        std::string bytes = ReadRegion();
        const auto count = At<std::uint32_t>(bytes, 56) + 1;
        std::fstream file{"/dev/shm" + m_prefix.NameOf(TOPIC),
                          std::ios::binary | std::ios::in | std::ios::out};
        file.seekp(56);
        file.write(reinterpret_cast<const char*>(&count), sizeof(count));
    }

    bool Exists() const { return m_prefix.Exists(TOPIC); }

    vosk::test::UniquePrefix m_prefix;
    ShmIf m_shm;
};

TEST_F(ShmRt, FreshRegionHasTheSharedFormat) {
    const ShmWriterRT writer = MakeWriter();
    EXPECT_TRUE(writer.IsValid());
    const std::string bytes = ReadRegion();
    ASSERT_EQ(bytes.size(), 80 + SIZE);
    EXPECT_EQ(bytes.substr(40, 20), std::string(20, '\0'));                  // sequence, wakes, readers
    EXPECT_EQ(bytes.substr(60, 4), std::string("\1\0\0\0", 4));              // open count
    EXPECT_EQ(bytes.substr(64, 8), std::string(8, '\0'));                    // taken
    EXPECT_EQ(bytes.substr(72, 8), std::string("\x80\x02\0\0\0\0\0\0", 8));  // 640
    EXPECT_EQ(bytes.substr(80), std::string(SIZE, '\0'));
}

TEST_F(ShmRt, RecordStandsInTheSlotUntilTaken) {
    ShmWriterRT writer = MakeWriter();
    ShmReaderRT reader{m_shm, TOPIC};
    EXPECT_EQ(ReaderCount(), 1U);
    EXPECT_TRUE(writer.TimedSend(RecordOf(7).data(), 0us));
    EXPECT_EQ(WriteSeq(), 1U);
    EXPECT_EQ(ReadSeq(), 0U);
    EXPECT_EQ(RegionAt<std::uint64_t>(80), 7U);
    EXPECT_FALSE(writer.TimedSend(RecordOf(8).data(), 0us));
    EXPECT_FALSE(writer.TimedSend(RecordOf(8).data(), 2ms));

    Record taken{};
    EXPECT_TRUE(reader.TimedReceive(taken.data(), 0us));
    EXPECT_EQ(taken, RecordOf(7));
    EXPECT_EQ(ReadSeq(), 1U);
    EXPECT_FALSE(reader.TimedReceive(taken.data(), 0us));
    EXPECT_EQ(taken, RecordOf(7));
    EXPECT_TRUE(writer.TimedSend(RecordOf(8).data(), 0us));
}

TEST_F(ShmRt, SendsNothingToNobody) {
    ShmWriterRT writer = MakeWriter();
    EXPECT_TRUE(writer.TimedSend(RecordOf(1).data(), GENEROUS));
    EXPECT_EQ(WriteSeq(), 0U);
    writer.TrySend(RecordOf(2).data());
    EXPECT_EQ(WriteSeq(), 1U);
    EXPECT_EQ(RegionAt<std::uint64_t>(80), 2U);
}

TEST_F(ShmRt, UnansweredWaitLastsItsWholeLimit) {
    ShmWriterRT writer = MakeWriter();
    ShmReaderRT reader{m_shm, TOPIC};
    Record record{};
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(reader.TimedReceive(record.data(), 1500us));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1500us);

    EXPECT_TRUE(writer.TimedSend(record.data(), 0us));
    start = std::chrono::steady_clock::now();
    EXPECT_FALSE(writer.TimedSend(record.data(), 1500us));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1500us);
}

TEST_F(ShmRt, HandsEveryRecordToAnotherProcessWhole) {
    constexpr std::uint64_t COUNT = 5000;
    ShmWriterRT writer = MakeWriter();
    ChildProcess child{[&](Signals& signals) {
        ShmReaderRT reader{m_shm, TOPIC};
        signals.TellParent();
        Record record{};
        for (std::uint64_t expected = 1; expected <= COUNT; ++expected) {
            if (!ReceiveSoon(reader, record) || record != RecordOf(expected)) return false;
        }
        return true;
    }};
    child.GetSignals().AwaitChild();
    for (std::uint64_t value = 1; value <= COUNT; ++value) {
        ASSERT_TRUE(SendSoon(writer, RecordOf(value)));
    }
    EXPECT_TRUE(child.Succeeds());
}

TEST_F(ShmRt, LeavingReaderWakesTheWaitingWriter) {
    auto reader = std::make_unique<ShmReaderRT>(m_shm, TOPIC);
    ChildProcess child{[&](Signals& signals) {
        ShmWriterRT writer{m_shm, TOPIC};
        writer.TimedSend(RecordOf(1).data(), 0us);
        signals.TellParent();
        return writer.TimedSend(RecordOf(2).data(), 100s);  // longer than the test may take
    }};
    child.GetSignals().AwaitChild();
    ASSERT_TRUE(Eventually([&] { return WriteSeq() == 1 && child.IsAsleep(); }));
    reader.reset();
    EXPECT_TRUE(child.Succeeds());
}

TEST_F(ShmRt, FirstToCloseRemovesTheName) {
    auto writer = std::make_unique<ShmWriterRT>(m_shm, TOPIC);
    auto reader = std::make_unique<ShmReaderRT>(m_shm, TOPIC);
    EXPECT_EQ(OpenCount(), 1U);
    reader.reset();
    EXPECT_FALSE(Exists());
    EXPECT_TRUE(writer->IsValid());

    reader = std::make_unique<ShmReaderRT>(m_shm, TOPIC);  // a region of its own
    EXPECT_EQ(WriteSeq(), 0U);
    writer.reset();
    EXPECT_TRUE(Exists());
    writer = std::make_unique<ShmWriterRT>(m_shm, TOPIC);
    writer.reset();
    EXPECT_FALSE(Exists());
}

TEST_F(ShmRt, NameThatMovedToAnotherRegionStays) {
    auto old = std::make_unique<ShmWriterRT>(m_shm, TOPIC);
    m_prefix.Remove(TOPIC);
    const ShmWriterRT successor = MakeWriter();
    old.reset();
    EXPECT_TRUE(Exists());
}

TEST_F(ShmRt, RegionOfAnotherSizeIsRefusedAndStaysAsItWas) {
    for (std::size_t region_size :
         {std::size_t{10}, std::size_t{79}, std::size_t{85}, 80 + SIZE, 80 + SIZE + 4096}) {
        std::string foreign(region_size, '\0');
        const std::uint64_t data_size = SIZE - 1;
        if (region_size >= 80) std::memcpy(foreign.data() + 72, &data_size, sizeof(data_size));
        foreign[0] = 'x';
        WriteRegion(foreign);
        const auto refusal =
            testing::ThrowsMessage<std::runtime_error>("Data size mismatch in shared memory");
        EXPECT_THAT([&] { MakeWriter(); }, refusal) << region_size;
        EXPECT_THAT(([&] { ShmReaderRT{m_shm, TOPIC}; }), refusal) << region_size;
        EXPECT_EQ(ReadRegion(), foreign) << region_size;
    }
}

TEST_F(ShmRt, SystemRefusalIsSaid) {
    const std::string topic = "no/such/folder";
    ShmIf::RegisterTopic(topic, ShmType::SHM_RT, SIZE);
    EXPECT_THAT(([&] { ShmWriterRT(m_shm, topic); }),
                testing::ThrowsMessage<std::runtime_error>(
                    testing::StartsWith("Failed to create/open shared memory: ")));
}

TEST_F(ShmRt, RegionWhoseCreatorDiedIsFinished) {
    for (std::size_t region_size : {std::size_t{0}, 80 + SIZE}) {
        WriteRegion(std::string(region_size, '\0'));
        ShmWriterRT writer = MakeWriter();
        EXPECT_EQ(OpenCount(), 1U);
        EXPECT_EQ(RegionAt<std::uint64_t>(72), SIZE);
    }
    EXPECT_FALSE(Exists());
}

TEST_F(ShmRt, KilledReaderIsForgottenByTheNext) {
    ShmWriterRT writer = MakeWriter();
    {
        ChildProcess child{[&](Signals& signals) {
            ShmReaderRT reader{m_shm, TOPIC};
            signals.TellParent();
            signals.AwaitParent();
            return true;
        }};
        child.GetSignals().AwaitChild();
        EXPECT_TRUE(writer.TimedSend(RecordOf(1).data(), 0us));
    }
    EXPECT_EQ(ReaderCount(), 1U);
    EXPECT_FALSE(writer.TimedSend(RecordOf(2).data(), 1ms));
    {
        ShmReaderRT reader{m_shm, TOPIC};
        EXPECT_EQ(ReaderCount(), 1U);
        Record taken{};
        EXPECT_FALSE(reader.TimedReceive(taken.data(), 0us));  // the old record isn't for this reader
        EXPECT_TRUE(writer.TimedSend(RecordOf(3).data(), 0us));
        EXPECT_TRUE(reader.TimedReceive(taken.data(), 0us));
        EXPECT_EQ(taken, RecordOf(3));
    }
    EXPECT_TRUE(writer.TimedSend(RecordOf(4).data(), GENEROUS));  // nobody there, no wait
}

TEST_F(ShmRt, ReaderGoesOnWithTheNextWriterAfterAKill) {
    auto reader = std::make_unique<ShmReaderRT>(m_shm, TOPIC);
    for (std::uint64_t value = 1; value <= 3; ++value) {
        ChildProcess child{[&](Signals& signals) {
            ShmWriterRT writer{m_shm, TOPIC};
            writer.TimedSend(RecordOf(value).data(), 0us);
            signals.TellParent();
            signals.AwaitParent();
            return true;
        }};
        child.GetSignals().AwaitChild();
        child.Kill();
        Record taken{};
        EXPECT_TRUE(reader->TimedReceive(taken.data(), 0us));
        EXPECT_EQ(taken, RecordOf(value));
    }
}

TEST_F(ShmRt, SecondLiveReaderIsCounted) {
    ShmWriterRT writer = MakeWriter();
    ShmReaderRT first{m_shm, TOPIC};
    ShmReaderRT second{m_shm, TOPIC};
    EXPECT_EQ(ReaderCount(), 2U);
}

TEST_F(ShmRt, RecordThatAPlainReaderLeavesIsWrittenOverAfterOneLimit) {
    ShmWriterRT writer = MakeWriter();
    {
        ShmReaderRT reader{m_shm, TOPIC};
        EXPECT_TRUE(writer.TimedSend(RecordOf(1).data(), 0us));
        EXPECT_FALSE(writer.TimedSend(RecordOf(2).data(), 1ms));
        EXPECT_FALSE(writer.TimedSend(RecordOf(2).data(), 1ms));  // this reader is only slow
        AttachPlainReader();
        EXPECT_FALSE(writer.TimedSend(RecordOf(2).data(), 0us));
        EXPECT_FALSE(writer.TimedSend(RecordOf(2).data(), 1ms));
        EXPECT_EQ(WriteSeq(), 1U);
        EXPECT_TRUE(writer.TimedSend(RecordOf(3).data(), 1ms));
        EXPECT_EQ(WriteSeq(), 2U);
        EXPECT_FALSE(writer.TimedSend(RecordOf(4).data(), 1ms));  // now it has a record to take
        EXPECT_FALSE(writer.TimedSend(RecordOf(4).data(), 1ms));
    }
}

// A peer that ends in good order takes the name with it; who holds the old region finds the new one.
TEST_F(ShmRt, ReaderFollowsARestartedWriter) {
    auto first = std::make_unique<ShmWriterRT>(m_shm, TOPIC);
    ShmReaderRT reader{m_shm, TOPIC};
    first.reset();
    ChildProcess child{[&](Signals& signals) -> bool {
        ShmWriterRT writer{m_shm, TOPIC};
        signals.TellParent();
        for (;;) {
            writer.TimedSend(RecordOf(5).data(), 1ms);
            std::this_thread::sleep_for(1ms);
        }
    }};
    child.GetSignals().AwaitChild();
    Record taken{};
    EXPECT_TRUE(Eventually([&] { return reader.TimedReceive(taken.data(), 10ms); }));
    EXPECT_EQ(taken, RecordOf(5));
    EXPECT_EQ(ReaderCount(), 1U);
}

TEST_F(ShmRt, WriterFollowsARestartedReader) {
    ShmWriterRT writer = MakeWriter();
    std::make_unique<ShmReaderRT>(m_shm, TOPIC).reset();
    ASSERT_FALSE(Exists());
    ChildProcess child{[&](Signals& signals) {
        ShmReaderRT reader{m_shm, TOPIC};
        signals.TellParent();
        Record taken{};
        const bool is_read = ReceiveSoon(reader, taken) && taken == RecordOf(6);
        signals.AwaitParent();
        return is_read;
    }};
    child.GetSignals().AwaitChild();
    EXPECT_TRUE(Eventually([&] {
        writer.TimedSend(RecordOf(6).data(), 1ms);
        return ReadSeq() > 0;
    }));
    child.GetSignals().TellChild();
    EXPECT_TRUE(child.Succeeds());
}

}  // namespace
