#include <vosk/common/shmif/shmBoost.hpp>
#include <vosk/common/shmif/shmRt.hpp>

#include "childProcess.hpp"

#include <vosk/test/allocationCount.hpp>

namespace {

using namespace std::chrono_literals;
using namespace vosk::common::shmif;

TEST(ShmDataPath, AllocatesNothing) {
    const vosk::test::UniquePrefix prefix;
    ShmIf::Setup(prefix.Get());
    ShmIf::RegisterTopic("mailbox", ShmType::SHM_RT, 64);
    ShmIf::RegisterTopic("queue", ShmType::SHM_QUEUE, 64);
    {
        ShmIf shm;
        ShmWriterRT writer{shm, "mailbox"};
        ShmReaderRT reader{shm, "mailbox"};
        ShmWriterBoost queue{shm, "queue"};
        std::array<std::byte, 64> record{};
        const std::size_t before = vosk::test::AllocationsOfThisThread();
        ASSERT_GT(before, 0U);
        for (int i = 0; i < 110; ++i) {  // more than the queue holds
            EXPECT_TRUE(writer.TimedSend(record.data(), 1ms));
            EXPECT_FALSE(writer.TimedSend(record.data(), 10us));
            EXPECT_TRUE(reader.TimedReceive(record.data(), 1ms));
            EXPECT_FALSE(reader.TimedReceive(record.data(), 10us));
            writer.TrySend(record.data());
            EXPECT_TRUE(reader.TimedReceive(record.data(), 0us));
            queue.TrySend(record.data());
        }
        EXPECT_EQ(vosk::test::AllocationsOfThisThread(), before);
    }
    ShmIf::Teardown();
}

}  // namespace
