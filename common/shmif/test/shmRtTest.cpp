#include "shmRtFixture.hpp"

#include <vosk/test/messageQueue.hpp>
#include <vosk/test/support.hpp>

#include <filesystem>

using namespace vosk::test;

namespace {

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
    EXPECT_TRUE(Send(writer, 7));
    EXPECT_EQ(WriteSeq(), 1U);
    EXPECT_EQ(ReadSeq(), 0U);
    EXPECT_EQ(RegionAt<std::uint64_t>(80), 7U);
    EXPECT_FALSE(Send(writer, 8));
    EXPECT_FALSE(Send(writer, 8, 2ms));

    EXPECT_EQ(Take(reader), 7U);
    EXPECT_EQ(ReadSeq(), 1U);
    Record untouched = RecordOf(9);
    EXPECT_FALSE(reader.TimedReceive(untouched.data(), 0us));
    EXPECT_EQ(untouched, RecordOf(9));
    EXPECT_TRUE(Send(writer, 8));
}

TEST_F(ShmRt, SendsNothingToNobody) {
    ShmWriterRT writer = MakeWriter();
    EXPECT_TRUE(Send(writer, 1, GENEROUS));
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
        for (std::uint64_t expected = 1; expected <= COUNT; ++expected) {
            if (!TakeSoon(reader, expected)) return false;
        }
        return true;
    }};
    child.GetSignals().AwaitChild();
    for (std::uint64_t value = 1; value <= COUNT; ++value) {
        ASSERT_TRUE(Eventually([&] { return Send(writer, value, 1ms); }));
    }
    EXPECT_TRUE(child.Succeeds());
}

TEST_F(ShmRt, LeavingReaderWakesTheWaitingWriter) {
    auto reader = std::make_unique<ShmReaderRT>(m_shm, TOPIC);
    ChildProcess child{[&](Signals& signals) {
        ShmWriterRT writer{m_shm, TOPIC};
        Send(writer, 1);
        signals.TellParent();
        return Send(writer, 2, std::chrono::microseconds::max());  // as long as it takes
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

TEST_F(ShmRt, WhatIsNoSuchRegionIsRefusedByNameAndStaysAsItWas) {
    const std::string name = m_prefix.NameOf(TOPIC);
    std::vector<std::string> cases;
    for (const std::size_t size : {std::size_t{10}, std::size_t{79}, 80 + SIZE - 1, 80 + SIZE + 1})
        cases.emplace_back(size, '\0');
    for (const std::size_t offset : {40U, 63U, 72U, 79U}) {  // something in the head, and not the data size
        cases.emplace_back(80 + SIZE, '\0');
        cases.back()[offset] = 'x';
    }
    for (const auto& foreign : cases) {
        WriteRegion(foreign);
        EXPECT_EQ(TextOf<std::runtime_error>([&] { MakeWriter(); }),
                  "Data size mismatch in shared memory (" + name + ")");
        EXPECT_THROW((ShmReaderRT{m_shm, TOPIC}), std::runtime_error);
        EXPECT_TRUE(ReadRegion() == foreign) << foreign.size();
    }
}

TEST_F(ShmRt, NameOfALiveQueueIsRefusedAndTheQueueStays) {
    bip::message_queue queue{bip::create_only, m_prefix.NameOf("queue").c_str(), 100, SIZE};
    const auto size = std::filesystem::file_size("/dev/shm" + m_prefix.NameOf("queue"));
    ShmIf::RegisterTopic("queue", ShmType::SHM_RT, size - 80);
    EXPECT_THROW((ShmWriterRT{m_shm, "queue"}), std::runtime_error);
    EXPECT_TRUE(queue.try_send("x", 1, 0));
    EXPECT_THAT(Drain(m_prefix.NameOf("queue")), testing::ElementsAre("x"));
    m_prefix.Remove("queue");
}

TEST_F(ShmRt, SystemRefusalIsSaid) {
    const std::string topic = "no/such/folder";
    ShmIf::RegisterTopic(topic, ShmType::SHM_RT, SIZE);
    EXPECT_THAT(([&] { ShmWriterRT(m_shm, topic); }),
                testing::ThrowsMessage<std::runtime_error>(
                    testing::StartsWith("Failed to create/open shared memory: ")));
}

}  // namespace
