#include <vosk/common/shmif/shmBaseRt.hpp>
#include <vosk/common/shmif/shmBoost.hpp>

#include "childProcess.hpp"

#include <vosk/test/logCapture.hpp>
#include <vosk/test/messageQueue.hpp>
#include <vosk/test/support.hpp>

#include <boost/interprocess/mapped_region.hpp>
#include <boost/interprocess/shared_memory_object.hpp>
#include <fstream>
#include <mutex>

namespace bip = boost::interprocess;
using namespace vosk::common::shmif;
using testing::ElementsAre;
using namespace vosk::test;

namespace {

constexpr const char* TOPIC = "queue";
using Message = std::array<std::uint64_t, 4>;

// The queue's own lock, which Boost hides.
class InnerLock {
public:
    explicit InnerLock(const std::string& name)
        : m_region{bip::shared_memory_object{bip::open_only, name.c_str(), bip::read_write},
                   bip::read_write} {}

    auto& Get() {
        using Header = bip::ipcdetail::mq_hdr_t<bip::offset_ptr<void>>;
        using Impl = bip::ipcdetail::managed_open_or_create_impl<bip::shared_memory_object, 0, true, false>;
        auto* header = static_cast<char*>(m_region.get_address()) + Impl::ManagedOpenOrCreateUserOffset;
        return reinterpret_cast<Header*>(header)->m_mutex;
    }

private:
    bip::mapped_region m_region;
};

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
            InnerLock{Name()}.Get().lock();
            return true;
        }};
        ASSERT_TRUE(child.Succeeds());
    }

    std::unique_ptr<bip::message_queue> MakeQueue() const {
        m_prefix.Remove(TOPIC);
        return std::make_unique<bip::message_queue>(bip::create_only, Name().c_str(), 10, sizeof(Message));
    }
    void PutFile(const std::string& bytes) const {
        m_prefix.Remove(TOPIC);
        std::ofstream{"/dev/shm" + Name(), std::ios::binary} << bytes;
    }
    void PutRegion() const {
        RtRegion region{};
        region.data_size = 8;
        PutFile(std::string(reinterpret_cast<const char*>(&region), sizeof(region)) + std::string(8, '\0'));
    }

    // How many messages were lost until the log said so.
    static int LoseUntil(ShmWriterBoost& writer, const LogCapture& log, const char* text) {
        int lost = 0;
        EXPECT_TRUE(Eventually([&] {
            writer.TrySend(Message{1}.data());
            ++lost;
            return !log.Texts(text).empty();
        }));
        return lost;
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
    for (const std::size_t size : {1U, 20000U}) {
        PutFile(std::string(size, '\0'));
        ShmWriterBoost writer{m_shm, TOPIC};
        writer.TrySend(Message{}.data());
        EXPECT_EQ(Drain(Name()).size(), 1U) << size;
    }
}

TEST_F(ShmBoost, LockHeldByALiveProcessCostsTheMessagesSentMeanwhile) {
    ShmWriterBoost writer{m_shm, TOPIC};
    {
        InnerLock held{Name()};
        const std::lock_guard lock{held.Get()};
        for (int i = 0; i < 3; ++i) writer.TrySend(Message{1}.data());
    }
    writer.TrySend(Message{1}.data());  // in the pause after a refusal
    std::vector<std::string> got;
    EXPECT_TRUE(Eventually([&] {
        writer.TrySend(Message{2}.data());
        got = Drain(Name());
        return !got.empty();
    }));
    EXPECT_THAT(got, ElementsAre(BytesOf({2})));
}

// By what has the name when the lock has been refused for long enough.
TEST_F(ShmBoost, QueueLockedByAKilledProcessIsReplaced) {
    std::unique_ptr<bip::message_queue> restarted;
    const std::pair<const char*, std::function<void()>> cases[] = {
        {"the queue itself", [] {}},
        {"nothing", [&] { m_prefix.Remove(TOPIC); }},
        {"a restarted collector's queue", [&] { restarted = MakeQueue(); }},
    };
    for (const auto& [name, put] : cases) {
        const LogCapture log;
        ShmWriterBoost writer{m_shm, TOPIC};
        KillAHolder();
        put();
        LoseUntil(writer, log, "is replaced");
        writer.TrySend(Message{2}.data());
        EXPECT_THAT(Drain(Name()), ElementsAre(BytesOf({2}))) << name;
    }
}

TEST_F(ShmBoost, SuccessorThatIsNoQueueYetHoldsNobodyUp) {
    const LogCapture log;
    ShmWriterBoost writer{m_shm, TOPIC};
    KillAHolder();
    PutRegion();
    LoseUntil(writer, log, "the old one is kept");
    for (int i = 0; i < 3; ++i) writer.TrySend(Message{1}.data());
    EXPECT_EQ(log.Texts("the old one is kept").size(), 1U);
    PutFile({});
    EXPECT_GT(LoseUntil(writer, log, "was left unfinished"), 3);  // one, if that send had waited for the end
    writer.TrySend(Message{2}.data());
    EXPECT_THAT(Drain(Name()), ElementsAre(BytesOf({2})));
}

TEST_F(ShmBoost, FullQueueIsLeftForItsSuccessor) {
    ShmWriterBoost writer{m_shm, TOPIC};
    for (int i = 0; i < 100; ++i) writer.TrySend(Message{1}.data());
    const auto restarted = MakeQueue();
    writer.TrySend(Message{1}.data());  // lost
    writer.TrySend(Message{2}.data());
    EXPECT_THAT(Drain(*restarted), ElementsAre(BytesOf({2})));
}

}  // namespace
