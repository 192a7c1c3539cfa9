#include <vosk/common/shmif/shmBoost.hpp>

#include "shmFixture.hpp"

#include <vosk/test/allocationCount.hpp>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/messageQueue.hpp>

#include <mutex>

using testing::ElementsAre;
using namespace vosk::test;

namespace {

using Message = std::array<std::uint64_t, 4>;

std::string BytesOf(std::uint64_t value) {
    const Message message{value, value};
    return {reinterpret_cast<const char*>(message.data()), sizeof(message)};
}

void Send(ShmWriterBoost& writer, std::uint64_t value) {
    writer.TrySend(Message{value, value}.data());
}

class ShmBoost : public ShmTest {
protected:
    ShmBoost() : ShmTest{ShmType::SHM_QUEUE, sizeof(Message)} {}

    // As a collector does, in the place of the one that is there.
    std::unique_ptr<bip::message_queue> MakeQueue(std::size_t message_size = sizeof(Message)) const {
        Remove();
        return std::make_unique<bip::message_queue>(bip::create_only, m_name.c_str(), 100, message_size);
    }
};

TEST_F(ShmBoost, KeepsTheFirstHundredMessagesAndAllocatesNothing) {
    ShmWriterBoost writer{m_shm, TOPIC};
    const std::size_t before = AllocationsOfThisThread();
    for (std::uint64_t i = 1; i <= 110; ++i) Send(writer, i);
    EXPECT_EQ(AllocationsOfThisThread(), before);
    std::vector<std::string> expected;
    for (std::uint64_t i = 1; i <= 100; ++i) expected.push_back(BytesOf(i));
    EXPECT_EQ(Drain(m_name), expected);
}

TEST_F(ShmBoost, FirstWriterToCloseRemovesTheNameButNotThatOfAnotherQueue) {
    auto first = std::make_unique<ShmWriterBoost>(m_shm, TOPIC);
    auto second = std::make_unique<ShmWriterBoost>(m_shm, TOPIC);
    EXPECT_TRUE(Exists());
    first.reset();
    EXPECT_FALSE(Exists());
    Send(*second, 1);
    const ShmWriterBoost successor{m_shm, TOPIC};
    second.reset();
    EXPECT_TRUE(Exists());
}

TEST_F(ShmBoost, ObjectThatIsNoSuchQueueIsRefusedByNameAndStaysAsItWas) {
    MakeQueue();
    const std::string queue = Content();
    MakeQueue(sizeof(Message) - 1);  // of the same size in all
    const std::string shorter_messages = Content();
    for (const std::string& content : {queue.substr(0, queue.size() - 1), queue.substr(0, 4096), queue + 'x',
                                       shorter_messages, std::string(queue.size(), '\0'), std::string{}}) {
        PutContent(content);
        const bool incomplete = content.empty() || content == std::string(queue.size(), '\0');
        EXPECT_EQ(TextOf<std::runtime_error>([&] { ShmWriterBoost(m_shm, TOPIC); }),
                  (incomplete ? "Failed to create/open shared memory: no queue that its creator has completed"
                              : "Data size mismatch in shared memory") +
                      (" (" + m_name + ")"));
        EXPECT_TRUE(Content() == content) << content.size();
    }
}

TEST_F(ShmBoost, LockThatIsHeldCostsAMessageAndAKilledHolderTheQueueUntilItsSuccessor) {
    ShmWriterBoost writer{m_shm, TOPIC};
    {
        QueueLock held{m_name};
        const std::lock_guard lock{held.Get()};
        EXPECT_THAT(TextOf<std::runtime_error>([&] { Send(writer, 1); }),
                    testing::StartsWith("Boost exception: "));
    }
    Send(writer, 2);
    EXPECT_THAT(Drain(m_name), ElementsAre(BytesOf(2)));

    QueueLock{m_name}.Get().lock();  // as a process leaves it that is killed inside an operation
    const auto restarted = MakeQueue();
    EXPECT_THROW(Send(writer, 3), std::runtime_error);
    Send(writer, 4);
    EXPECT_THAT(Drain(*restarted), ElementsAre(BytesOf(4)));
}

TEST_F(ShmBoost, SuccessorThatIsNoSuchQueueHoldsNobodyUp) {
    const LogCapture log;
    ShmWriterBoost writer{m_shm, TOPIC};
    for (int i = 0; i < 100; ++i) Send(writer, 1);
    PutContent({});
    Send(writer, 1);
    EXPECT_TRUE(log.Lines().empty());
    PutContent("x");
    for (int i = 0; i < 3; ++i) Send(writer, 1);
    EXPECT_EQ(log.Texts("Data size mismatch in shared memory (" + m_name).size(), 1U);
    Remove();
    Send(writer, 1);
    Send(writer, 2);
    EXPECT_THAT(Drain(m_name), ElementsAre(BytesOf(2)));
}

}  // namespace
