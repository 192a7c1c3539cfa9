#include <vosk/common/shmif/shmBaseRt.hpp>
#include <vosk/common/shmif/shmBoost.hpp>

#include "childProcess.hpp"

#include <gmock/gmock.h>

#include <array>
#include <boost/interprocess/mapped_region.hpp>
#include <boost/interprocess/shared_memory_object.hpp>
#include <cstdint>
#include <fstream>
#include <memory>

namespace bip = boost::interprocess;
using namespace vosk::common::shmif;
using vosk::test::ChildProcess;
using vosk::test::Signals;

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

    static Message NextMessage(bip::message_queue&& queue) { return NextMessage(queue); }
    static Message NextMessage(bip::message_queue& queue) {
        Message message{};
        bip::message_queue::size_type size = 0;
        unsigned int priority = 0;
        EXPECT_TRUE(queue.try_receive(message.data(), sizeof(message), size, priority));
        return message;
    }

    std::string Name() const { return m_prefix.NameOf(TOPIC); }
    bip::message_queue OpenQueue() const { return {bip::open_only, Name().c_str()}; }

    vosk::test::UniquePrefix m_prefix;
    ShmIf m_shm;
};

TEST_F(ShmBoost, KeepsTheFirstHundredMessagesForAnotherProcess) {
    ShmWriterBoost writer{m_shm, TOPIC};
    for (std::uint64_t i = 1; i <= 101; ++i) writer.TrySend(Message{i, i, i, i}.data());
    ChildProcess child{[&](Signals&) {
        bip::message_queue queue = OpenQueue();
        Message message{};
        bip::message_queue::size_type size = 0;
        unsigned int priority = 1;
        for (std::uint64_t i = 1; i <= 100; ++i) {
            if (!queue.try_receive(message.data(), sizeof(message), size, priority)) return false;
            if (size != sizeof(Message) || priority != 0 || message != Message{i, i, i, i}) return false;
        }
        return !queue.try_receive(message.data(), sizeof(message), size, priority);
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
        EXPECT_EQ(OpenQueue().get_num_msg(), 1U) << size;
    }
}

TEST_F(ShmBoost, QueueLockedByAKilledProcessIsMadeAnew) {
    ShmWriterBoost writer{m_shm, TOPIC};
    KillAHolder();
    writer.TrySend(Message{1}.data());  // lost
    writer.TrySend(Message{2}.data());
    EXPECT_EQ(NextMessage(OpenQueue()), Message{2});
}

TEST_F(ShmBoost, QueueThatARestartedCollectorHasMadeIsTaken) {
    ShmWriterBoost writer{m_shm, TOPIC};
    KillAHolder();
    m_prefix.Remove(TOPIC);
    bip::message_queue queue{bip::create_only, Name().c_str(), 10, sizeof(Message)};
    writer.TrySend(Message{1}.data());  // lost
    writer.TrySend(Message{2}.data());
    EXPECT_EQ(NextMessage(queue), Message{2});
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
    EXPECT_EQ(NextMessage(OpenQueue()), Message{3});
}

}  // namespace
