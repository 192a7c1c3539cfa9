#include "shmRtFixture.hpp"

#include <vosk/test/messageQueue.hpp>

using namespace vosk::test;

namespace {

TEST_F(ShmRt, RecordStandsInTheSharedFormatUntilTaken) {
    ShmWriterRT writer = MakeWriter();
    std::string expected(80 + SIZE - 40, '\0');  // behind the mutex
    expected[60 - 40] = '\1';                    // open count
    expected[72 - 40] = '\x80';                  // data size
    expected[73 - 40] = '\2';
    EXPECT_EQ(Content().substr(40), expected);
    EXPECT_TRUE(Send(writer, 1, GENEROUS));  // to nobody
    EXPECT_EQ(Content().substr(40), expected);
    writer.TrySend(RecordOf(2).data());
    EXPECT_EQ(WriteSeq(), 1U);

    ShmReaderRT reader{m_shm, TOPIC};
    EXPECT_EQ(ReaderCount(), 1U);
    EXPECT_TRUE(Send(writer, 7));
    EXPECT_EQ(WriteSeq(), 2U);
    EXPECT_EQ(ReadSeq(), 1U);
    EXPECT_EQ(RegionAt<std::uint64_t>(80), 7U);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(Send(writer, 8));
    EXPECT_FALSE(Send(writer, 8, 1500us));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1500us);
    EXPECT_EQ(Take(reader), 7U);
    EXPECT_EQ(ReadSeq(), 2U);
    Record untouched = RecordOf(9);
    EXPECT_FALSE(reader.TimedReceive(untouched.data(), 1500us));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 3ms);
    EXPECT_EQ(untouched, RecordOf(9));
    EXPECT_TRUE(Send(writer, 8));
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

TEST_F(ShmRt, FirstToCloseRemovesTheNameButNotThatOfAnotherRegion) {
    auto writer = std::make_unique<ShmWriterRT>(m_shm, TOPIC);
    auto reader = std::make_unique<ShmReaderRT>(m_shm, TOPIC);
    EXPECT_EQ(OpenCount(), 1U);
    reader.reset();
    EXPECT_FALSE(Exists());
    reader = std::make_unique<ShmReaderRT>(m_shm, TOPIC);  // a region of its own
    writer.reset();
    EXPECT_TRUE(Exists());
    writer = std::make_unique<ShmWriterRT>(m_shm, TOPIC);
    Remove();
    const ShmWriterRT successor = MakeWriter();
    writer.reset();
    EXPECT_TRUE(Exists());
}

TEST_F(ShmRt, ObjectThatIsNoSuchRegionIsRefusedByNameAndStaysAsItWas) {
    std::vector<std::string> cases;
    for (const std::size_t size : {std::size_t{10}, 80 + SIZE - 1, 80 + SIZE + 1})
        cases.emplace_back(size, '\0');
    for (const auto offset : {40U, 63U, 79U}) {  // something in the head, and not the data size
        cases.emplace_back(80 + SIZE, '\0');
        cases.back()[offset] = 'x';
    }
    std::make_unique<bip::message_queue>(bip::create_only, m_name.c_str(), 100, SIZE);
    cases.push_back(Content());
    for (const auto& foreign : cases) {
        PutContent(foreign);
        EXPECT_EQ(TextOf<std::runtime_error>([&] { MakeWriter(); }),
                  "Data size mismatch in shared memory (" + m_name + ")");
        EXPECT_THROW((ShmReaderRT{m_shm, TOPIC}), std::runtime_error);
        EXPECT_TRUE(Content() == foreign) << foreign.size();
    }
    // A queue, as long as a region.
    ShmIf::RegisterTopic("as_long", ShmType::SHM_RT, cases.back().size() - 80);
    std::filesystem::rename(m_path, "/dev/shm" + m_prefix + "as_long");
    EXPECT_THROW((ShmWriterRT{m_shm, "as_long"}), std::runtime_error);
    EXPECT_THAT(Drain(m_prefix + "as_long"), testing::IsEmpty());
    ::shm_unlink((m_prefix + "as_long").c_str());
    ShmIf::RegisterTopic("no/such/folder", ShmType::SHM_RT, SIZE);
    EXPECT_THAT(TextOf<std::runtime_error>([&] { ShmWriterRT(m_shm, "no/such/folder"); }),
                testing::StartsWith("Failed to create/open shared memory: "));
}

}  // namespace
