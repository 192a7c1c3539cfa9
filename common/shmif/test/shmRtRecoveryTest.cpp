// Peers that are killed, restarted or overlap.

#include "shmRtFixture.hpp"

using namespace vosk::test;

namespace {

TEST_F(ShmRt, RegionOfAKilledProcessIsFinishedAndItsCountStays) {
    for (std::size_t region_size : {std::size_t{0}, 80 + SIZE}) {
        PutContent(std::string(region_size, '\0'));
        const ShmWriterRT writer = MakeWriter();
        EXPECT_EQ(OpenCount(), 1U);
        EXPECT_EQ(RegionAt<std::uint64_t>(72), SIZE);
    }
    for (std::uint32_t count : {0U, 7U, ~0U}) {
        const ShmWriterRT writer = MakeWriter();
        SetRegionAt(60, count);
        const ShmReaderRT reader{m_shm, TOPIC};
        EXPECT_EQ(OpenCount(), count);
        SetRegionAt(60, 2U);  // taken to 0 by the last of the two
    }
    EXPECT_FALSE(Exists());
}

TEST_F(ShmRt, KilledReaderIsForgottenByTheNext) {
    ShmWriterRT writer = MakeWriter();
    KillAHolderOf([&] { return std::make_unique<ShmReaderRT>(m_shm, TOPIC); },
                  [&] { EXPECT_TRUE(Send(writer, 1)); });
    EXPECT_EQ(ReaderCount(), 1U);
    EXPECT_FALSE(Send(writer, 2, 1ms));
    {
        ShmReaderRT reader{m_shm, TOPIC};
        EXPECT_EQ(ReaderCount(), 1U);
        EXPECT_EQ(ReadSeq(), 1U);     // the slot is free at once
        EXPECT_EQ(Take(reader), 0U);  // the old record isn't for this reader
        EXPECT_TRUE(Send(writer, 3));
        EXPECT_EQ(Take(reader), 3U);
    }
    EXPECT_TRUE(Send(writer, 4, GENEROUS));  // nobody there, no wait
}

TEST_F(ShmRt, RecordThatAPlainReaderLeavesIsWrittenOverAfterOneLimit) {
    ShmWriterRT writer = MakeWriter();
    ShmReaderRT reader{m_shm, TOPIC};
    EXPECT_TRUE(Send(writer, 1));
    EXPECT_FALSE(Send(writer, 2, 1ms));
    EXPECT_FALSE(Send(writer, 2, 1ms));  // this reader is only slow
    AttachPlainReader();
    EXPECT_FALSE(Send(writer, 2));
    EXPECT_FALSE(Send(writer, 2, 1ms));
    EXPECT_FALSE(Send(writer, 2));  // a send without a wait drops its record
    EXPECT_EQ(WriteSeq(), 1U);
    EXPECT_TRUE(Send(writer, 3, 1ms));
    EXPECT_EQ(WriteSeq(), 2U);
    EXPECT_FALSE(Send(writer, 4, 1ms));  // now it has a record to take
    EXPECT_FALSE(Send(writer, 4, 1ms));
}

// A peer that ends in good order takes the name with it; who holds the old region finds the new one.
TEST_F(ShmRt, ReaderFollowsARestartedWriter) {
    auto first = std::make_unique<ShmWriterRT>(m_shm, TOPIC);
    ShmReaderRT reader = MakeReader();
    first.reset();
    const std::string unfinished(80 + SIZE, '\0');
    PutContent(unfinished);
    EXPECT_EQ(Take(reader), 0U);
    EXPECT_TRUE(Content() == unfinished);
    ChildProcess child{[&](Signals& signals) -> bool {
        ShmWriterRT writer{m_shm, TOPIC};
        signals.TellParent();
        for (;; std::this_thread::sleep_for(1ms)) Send(writer, 5, 1ms);
    }};
    child.GetSignals().AwaitChild();
    EXPECT_TRUE(TakeSoon(reader, 5));
    EXPECT_EQ(ReaderCount(), 1U);
}

TEST_F(ShmRt, WriterFollowsARestartedReader) {
    for (const bool timed : {true, false}) {
        ShmWriterRT writer = MakeWriter();
        std::make_unique<ShmReaderRT>(m_shm, TOPIC).reset();
        ASSERT_FALSE(Exists());
        ChildProcess child{[&](Signals& signals) {
            ShmReaderRT reader{m_shm, TOPIC};
            signals.TellParent();
            const bool is_read = TakeSoon(reader, 6);
            signals.AwaitParent();
            return is_read;
        }};
        child.GetSignals().AwaitChild();
        EXPECT_TRUE(Eventually([&] {
            timed ? static_cast<void>(Send(writer, 6, 1ms)) : writer.TrySend(RecordOf(6).data());
            return ReadSeq() > 0;
        }));
        child.GetSignals().TellChild();
        EXPECT_TRUE(child.Succeeds());
    }
}

// The record in the old slot is nobody's, and neither its age nor its readers count for the new slot.
TEST_F(ShmRt, WriterOfAFullSlotMovesAndRespectsTheNewSlot) {
    for (const auto limit : {0us, 1000us}) {
        ShmWriterRT writer = MakeWriter();
        const ShmReaderRT old_reader{m_shm, TOPIC};
        ASSERT_TRUE(Send(writer, 1));
        AttachPlainReader();
        Remove();
        ShmReaderRT reader{m_shm, TOPIC};
        PutAndDie(9);
        for (int i = 0; i < 3; ++i) EXPECT_FALSE(Send(writer, 2, limit));
        EXPECT_EQ(Take(reader), 9U);
        EXPECT_TRUE(Send(writer, 3));
        EXPECT_EQ(Take(reader), 3U);
    }
}

TEST_F(ShmRt, NextWriterLeavesTheRecordOfASlowReaderButNotOfAPlainOne) {
    {
        ShmReaderRT reader{m_shm, TOPIC};
        PutAndDie(9);
        EXPECT_EQ(Take(reader), 9U);
        PutAndDie(1);
        ShmWriterRT writer = MakeWriter();
        for (int i = 0; i < 3; ++i) EXPECT_FALSE(Send(writer, 2, 1ms));
        EXPECT_EQ(Take(reader), 1U);
        EXPECT_TRUE(Send(writer, 2));
    }
    PutAndDie(1);
    AttachPlainReader();
    ShmWriterRT writer = MakeWriter();
    EXPECT_FALSE(Send(writer, 2, 1ms));
    EXPECT_TRUE(Send(writer, 2, 1ms));
}

TEST_F(ShmRt, ReaderThatClosesLateLowersNothing) {
    ShmWriterRT writer = MakeWriter();
    auto first = std::make_unique<ShmReaderRT>(m_shm, TOPIC);
    ShmReaderRT second{m_shm, TOPIC};
    EXPECT_TRUE(Send(writer, 1));
    EXPECT_EQ(Take(second), 1U);
    first.reset();
    EXPECT_TRUE(Send(writer, 2));
    EXPECT_EQ(Take(second), 2U);
}

TEST_F(ShmRt, ReaderMendsTheCountsThatAForeignOneLeaves) {
    ShmWriterRT writer = MakeWriter();
    auto reader = std::make_unique<ShmReaderRT>(m_shm, TOPIC);
    EXPECT_TRUE(Send(writer, 1));
    EXPECT_EQ(Take(*reader), 1U);
    SetRegionAt<std::uint32_t>(56, 0);  // as if the foreign one had been counted
    SetRegionAt<std::uint64_t>(64, 0);  // what it last took
    EXPECT_EQ(Take(*reader), 0U);
    EXPECT_EQ(ReaderCount(), 1U);
    EXPECT_EQ(ReadSeq(), 1U);
    SetRegionAt<std::uint32_t>(56, 0);
    reader.reset();  // and the count stays at 0
    EXPECT_TRUE(Send(writer, 2));
    EXPECT_TRUE(Send(writer, 3));
}

}  // namespace
