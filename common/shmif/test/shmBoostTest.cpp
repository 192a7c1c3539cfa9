#include <vosk/common/shmif/shmBaseRt.hpp>
#include <vosk/common/shmif/shmBoost.hpp>

#include "childProcess.hpp"

#include <vosk/test/messageQueue.hpp>
#include <vosk/test/support.hpp>

#include <boost/interprocess/mapped_region.hpp>
#include <boost/interprocess/shared_memory_object.hpp>
#include <fstream>

namespace bip = boost::interprocess;
using namespace vosk::common::shmif;
using testing::ElementsAre;
using namespace vosk::test;

namespace {

constexpr const char* TOPIC = "queue";
using Message = std::array<std::uint64_t, 4>;

// Takes the queue's own lock, as a process does that is killed inside an operation.
void LeaveQueueLocked(const std::string& name) {
    using Header = bip::ipcdetail::mq_hdr_t<bip::offset_ptr<void>>;
    using Impl = bip::ipcdetail::managed_open_or_create_impl<bip::shared_memory_object, 0, true, false>;
    bip::shared_memory_object memory{bip::open_only, name.c_str(), bip::read_write};
    bip::mapped_region region{memory, bip::read_write};
    auto* header = static_cast<char*>(region.get_address()) + Impl::ManagedOpenOrCreateUserOffset;
    reinterpret_cast<Header*>(header)->m_mutex.lock();
    ::_exit(0);
}

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

    void KillAHolder() const {
        ChildProcess child{[&](Signals&) -> bool {
            LeaveQueueLocked(Name());
            return true;
        }};
        ASSERT_TRUE(child.Succeeds());
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

TEST_F(ShmBoost, QueueOfSmallerMessagesRefusesInWords) {
    const bip::message_queue small{bip::create_only, Name().c_str(), 10, sizeof(Message) - 1};
    ShmWriterBoost writer{m_shm, TOPIC};
    EXPECT_THAT([&] { writer.TrySend(Message{}.data()); },
                testing::ThrowsMessage<std::runtime_error>(testing::StartsWith("Boost exception: ")));
}

TEST_F(ShmBoost, TopicOfTheOtherKindIsRefused) {
    EXPECT_THROW(ShmWriterBoost(m_shm, "fs_in"), std::runtime_error);
    EXPECT_THROW(ShmWriterBoost(m_shm, "no_such_topic"), std::runtime_error);
}

TEST_F(ShmBoost, QueueThatWasNeverFinishedIsMadeAnew) {
    for (std::size_t size : {1, 20000}) {
        std::ofstream{"/dev/shm" + Name(), std::ios::binary} << std::string(size, '\0');
        ShmWriterBoost writer{m_shm, TOPIC};
        writer.TrySend(Message{}.data());
        EXPECT_EQ(Drain(Name()).size(), 1U) << size;
    }
}

TEST_F(ShmBoost, QueueLockedByAKilledProcessIsMadeAnew) {
    ShmWriterBoost writer{m_shm, TOPIC};
    KillAHolder();
    writer.TrySend(Message{1}.data());  // lost
    writer.TrySend(Message{2}.data());
    EXPECT_THAT(Drain(Name()), ElementsAre(BytesOf({2})));
}

TEST_F(ShmBoost, QueueThatARestartedCollectorHasMadeIsTaken) {
    ShmWriterBoost writer{m_shm, TOPIC};
    KillAHolder();
    m_prefix.Remove(TOPIC);
    bip::message_queue queue{bip::create_only, Name().c_str(), 10, sizeof(Message)};
    writer.TrySend(Message{1}.data());  // lost
    writer.TrySend(Message{2}.data());
    EXPECT_THAT(Drain(queue), ElementsAre(BytesOf({2})));
}

TEST_F(ShmBoost, LostMessageIsAllThatANameTakenByOthersCosts) {
    ShmWriterBoost writer{m_shm, TOPIC};
    KillAHolder();
    m_prefix.Remove(TOPIC);
    RtRegion region{};
    region.data_size = 8;
    std::ofstream{"/dev/shm" + Name(), std::ios::binary}
        << std::string(reinterpret_cast<const char*>(&region), sizeof(region)) + std::string(8, '\0');
    EXPECT_NO_THROW(writer.TrySend(Message{1}.data()));
    m_prefix.Remove(TOPIC);
    writer.TrySend(Message{2}.data());  // lost too, and the queue made anew
    writer.TrySend(Message{3}.data());
    EXPECT_THAT(Drain(Name()), ElementsAre(BytesOf({3})));
}

}  // namespace
