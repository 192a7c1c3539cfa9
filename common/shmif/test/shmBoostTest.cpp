#include <vosk/common/shmif/shmBaseRt.hpp>
#include <vosk/common/shmif/shmBoost.hpp>

#include "childProcess.hpp"

#include <vosk/test/logCapture.hpp>
#include <vosk/test/messageQueue.hpp>
#include <vosk/test/support.hpp>

#include <fstream>
#include <mutex>

using namespace vosk::common::shmif;
using testing::ElementsAre;
using namespace vosk::test;

namespace {

constexpr const char* TOPIC = "queue";
using Message = std::array<std::uint64_t, 4>;

class ShmBoost : public ::testing::Test {
protected:
    ShmBoost() {
        ShmIf::Setup(m_prefix.Get());
        ShmIf::RegisterTopic(TOPIC, ShmType::SHM_QUEUE, sizeof(Message));
    }
    ~ShmBoost() override {
        ShmIf::Teardown();
        m_prefix.Remove(TOPIC);
    }

    // Leaves the queue locked, as a process does that is killed inside an operation.
    void KillAHolder() const {
        ChildProcess child{[&](Signals&) {
            QueueLock{Name()}.Get().lock();
            return true;
        }};
        ASSERT_TRUE(child.Succeeds());
    }

    // As a collector does, in the place of the one that is there.
    std::unique_ptr<bip::message_queue> MakeQueue(std::size_t message_size = sizeof(Message)) const {
        m_prefix.Remove(TOPIC);
        return std::make_unique<bip::message_queue>(bip::create_only, Name().c_str(), 100, message_size);
    }
    void PutFile(const std::string& bytes) const {
        m_prefix.Remove(TOPIC);
        std::ofstream{"/dev/shm" + Name(), std::ios::binary} << bytes;
    }
    std::string Content() const {
        std::ifstream file{"/dev/shm" + Name(), std::ios::binary};
        return {std::istreambuf_iterator<char>{file}, {}};
    }

    static std::string BytesOf(const Message& message) {
        return {reinterpret_cast<const char*>(message.data()), sizeof(message)};
    }

    std::string Name() const { return m_prefix.NameOf(TOPIC); }

    vosk::test::UniquePrefix m_prefix;
    ShmIf m_shm;
};

TEST_F(ShmBoost, KeepsTheFirstHundredMessagesForAnotherProcess) {
    ShmWriterBoost writer{m_shm, TOPIC};
    for (std::uint64_t i = 1; i <= 101; ++i) writer.TrySend(Message{i, i, i, i}.data());
    ChildProcess child{[&](Signals&) {
        const std::vector<std::string> messages = Drain(Name());
        for (std::uint64_t i = 1; i <= messages.size(); ++i)
            if (messages[i - 1] != BytesOf({i, i, i, i})) return false;
        return messages.size() == 100;
    }};
    EXPECT_TRUE(child.Succeeds());
}

TEST_F(ShmBoost, FirstWriterToCloseRemovesTheName) {
    auto first = std::make_unique<ShmWriterBoost>(m_shm, TOPIC);
    ShmWriterBoost second{m_shm, TOPIC};
    EXPECT_TRUE(m_prefix.Exists(TOPIC));
    first.reset();
    EXPECT_FALSE(m_prefix.Exists(TOPIC));
    second.TrySend(Message{}.data());
}

TEST_F(ShmBoost, QueueThatWasMadeUnderTheNameSinceStays) {
    auto old = std::make_unique<ShmWriterBoost>(m_shm, TOPIC);
    m_prefix.Remove(TOPIC);
    const ShmWriterBoost successor{m_shm, TOPIC};
    old.reset();
    EXPECT_TRUE(m_prefix.Exists(TOPIC));
}

TEST_F(ShmBoost, TopicOfTheOtherKindIsRefused) {
    EXPECT_THROW(ShmWriterBoost(m_shm, "fs_in"), std::runtime_error);
    EXPECT_THROW(ShmWriterBoost(m_shm, "no_such_topic"), std::runtime_error);
}

TEST_F(ShmBoost, WhatIsNoSuchQueueIsRefusedByNameAndStaysAsItWas) {
    MakeQueue();
    const std::string queue = Content();
    MakeQueue(sizeof(Message) - 1);  // of the same size in all
    const std::string shorter_messages = Content();
    const std::string mismatch = "Data size mismatch in shared memory";
    const std::string incomplete =
        "Failed to create/open shared memory: no queue that its creator has completed";
    const std::pair<std::string, std::string> cases[] = {{queue.substr(0, queue.size() - 1), mismatch},
                                                         {queue.substr(0, 4096), mismatch},
                                                         {queue + 'x', mismatch},
                                                         {shorter_messages, mismatch},
                                                         {std::string(queue.size(), '\0'), incomplete},
                                                         {"", incomplete}};
    for (const auto& [content, text] : cases) {
        PutFile(content);
        EXPECT_EQ(TextOf<std::runtime_error>([&] { ShmWriterBoost(m_shm, TOPIC); }),
                  text + " (" + Name() + ")");
        EXPECT_TRUE(Content() == content) << content.size();
    }
}

TEST_F(ShmBoost, LockThatIsHeldRefusesInWords) {
    ShmWriterBoost writer{m_shm, TOPIC};
    {
        QueueLock held{Name()};
        const std::lock_guard lock{held.Get()};
        EXPECT_THAT([&] { writer.TrySend(Message{1}.data()); },
                    testing::ThrowsMessage<std::runtime_error>(testing::StartsWith("Boost exception: ")));
    }
    writer.TrySend(Message{2}.data());
    EXPECT_THAT(Drain(Name()), ElementsAre(BytesOf({2})));
}

TEST_F(ShmBoost, LockedQueueIsLeftForItsSuccessor) {
    ShmWriterBoost writer{m_shm, TOPIC};
    KillAHolder();
    const auto restarted = MakeQueue();
    EXPECT_THROW(writer.TrySend(Message{1}.data()), std::runtime_error);
    writer.TrySend(Message{2}.data());
    EXPECT_THAT(Drain(*restarted), ElementsAre(BytesOf({2})));
}

TEST_F(ShmBoost, SuccessorThatIsNoSuchQueueHoldsNobodyUp) {
    const LogCapture log;
    ShmWriterBoost writer{m_shm, TOPIC};
    for (int i = 0; i < 100; ++i) writer.TrySend(Message{1}.data());
    PutFile({});
    writer.TrySend(Message{1}.data());
    EXPECT_TRUE(log.Lines().empty());
    PutFile("x");
    for (int i = 0; i < 3; ++i) writer.TrySend(Message{1}.data());
    EXPECT_EQ(log.Texts("Data size mismatch in shared memory (" + Name()).size(), 1U);
    m_prefix.Remove(TOPIC);
    writer.TrySend(Message{1}.data());
    writer.TrySend(Message{2}.data());
    EXPECT_THAT(Drain(Name()), ElementsAre(BytesOf({2})));
}

}  // namespace
