#include <lumolib/dataSync.hpp>
#include <lumolib/dataSyncManager.hpp>

#include <atomclk/atomClk.hpp>
#include <future>
#include <mutex>
#include <shared_mutex>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/support.hpp>

namespace {

using namespace vosk::lumo;
using namespace std::chrono_literals;
using testing::ElementsAre;
using namespace vosk::test;

// From another thread, as the owner of a lock may not try it again.
bool IsFree(std::shared_mutex& mutex) {
    return std::async(std::launch::async,
                      [&mutex] { return std::unique_lock(mutex, std::try_to_lock).owns_lock(); })
        .get();
}

struct Probe {
    std::vector<std::string> events;
    std::shared_mutex* mutex = nullptr;

    void Note(const std::string& event) {
        events.push_back(event + (IsFree(*mutex) ? ", unlocked" : ", locked"));
    }
};

struct ProbingSetter {
    void SetData(int& data, std::atomic<sample_id_t>& sample_id, std::atomic<time_point>& timestamp,
                 int value, Probe& probe, sample_id_t id, const time_point& time = {}) const {
        probe.Note("set");
        data = value;
        sample_id = id;
        timestamp = time;
    }
};

struct ProbingTriggerSetter {
    void SetData(int& data, std::atomic<sample_id_t>& sample_id, std::atomic<time_point>& timestamp,
                 std::atomic_flag& trigger, int value, bool wake, Probe& probe, sample_id_t id,
                 const time_point& time = {}) const {
        ProbingSetter{}.SetData(data, sample_id, timestamp, value, probe, id, time);
        if (wake) trigger.test_and_set();
    }
};

TEST(SyncDataAttribute, SetsUnderTheLockAndCallsBackOutsideIt) {
    Probe probe;
    SyncDataAttribute<int, ProbingSetter> attribute(
        [&] { probe.Note(attribute.IsNewData() ? "new" : "not new"); });
    probe.mutex = &attribute.GetMutex();
    EXPECT_FALSE(attribute.IsNewData());
    EXPECT_EQ(attribute.GetData(), 0);

    attribute.SetData(5, probe, 7U, At(9));

    EXPECT_THAT(probe.events, ElementsAre("set, locked", "new, unlocked"));
    EXPECT_EQ(attribute.GetData(), 5);
    EXPECT_EQ(attribute.GetSampleId(), 7U);
    EXPECT_EQ(attribute.GetTimestamp(), At(9));
    attribute.ClearNewData();
    EXPECT_FALSE(attribute.IsNewData());
}

TEST(SyncDataAttribute, BasicSetterTakesThePresentTimeIfNoneIsGiven) {
    const atomclk::ManualClock clock{At(1234)};
    SyncDataAttribute<int, BasicDataSetter<int>> attribute;
    attribute.SetData(5, 7U);
    EXPECT_EQ(attribute.GetTimestamp(), At(1234));
    attribute.SetData(5, 7U, At(0));
    EXPECT_EQ(attribute.GetTimestamp(), At(1234));
    attribute.SetData(5, 7U, At(-1));
    EXPECT_EQ(attribute.GetTimestamp(), At(-1));
}

using Triggered = DataSyncTrigger<int, ProbingTriggerSetter>;

TEST(DataSyncTrigger, WakesOnlyWhereTheSetterSaysSoButIsNewAlways) {
    Probe probe;
    Triggered sync(false);
    probe.mutex = &sync.GetMutex();
    sync.SetData(5, false, probe, 1U);
    EXPECT_TRUE(sync.IsNewData());
    EXPECT_FALSE(sync.IsDataReady());
    sync.SetData(6, true, probe, 1U);
    EXPECT_TRUE(sync.IsDataReady());
    DataSyncWaitable& base = sync;
    base.ClearDataReady();
    EXPECT_FALSE(sync.IsNewData());
    EXPECT_FALSE(sync.IsDataReady());
    EXPECT_EQ(sync.GetData(), 6);
    EXPECT_THAT(probe.events, ElementsAre("set, locked", "set, locked"));
}

// Every word is the generation, so that a torn copy shows.
struct Generation {
    std::array<std::uint32_t, 1024> words{};

    static Generation Of(std::uint32_t generation) {
        Generation result;
        result.words.fill(generation);
        return result;
    }
    bool IsWhole() const {
        return std::all_of(words.begin(), words.end(),
                           [this](std::uint32_t word) { return word == words[0]; });
    }
};

using GenerationSync = DataSyncSingleWaitable<Generation, BasicDataSetter<Generation>>;

void Write(GenerationSync& sync, std::uint32_t generation) {
    sync.SetData(Generation::Of(generation), generation, At(generation));
}

// Reads while another thread writes without pause, until `read` has seen many writes: it gives the generation
// that it found. Generations must never go back.
template <class Read>
void ReadWhileWritten(GenerationSync& sync, Read read) {
    constexpr int CHANGES = 100;
    std::atomic<bool> done{false};
    auto writer = std::async(std::launch::async, [&] {
        for (std::uint32_t i = 1; !done; ++i) Write(sync, i);
    });
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    std::uint32_t last = 0;
    for (int changes = 0; changes < CHANGES && !testing::Test::HasFailure();) {
        if (std::chrono::steady_clock::now() > deadline) ADD_FAILURE() << "the writer does not come through";
        const std::uint32_t generation = read();
        EXPECT_GE(generation, last);
        if (std::exchange(last, generation) != generation) ++changes;
    }
    done = true;
    writer.wait();
}

TEST(DataSyncUnderLoad, UnderTheLockRecordIdAndTimeBelongTogether) {
    GenerationSync sync(false);
    ReadWhileWritten(sync, [&] {
        const std::shared_lock lock(sync.GetMutex());
        const Generation& record = sync.GetDataRef();
        EXPECT_TRUE(record.IsWhole());
        EXPECT_EQ(sync.GetSampleId(), record.words[0]);
        EXPECT_EQ(sync.GetTimestamp(), At(record.words[0]));
        return record.words[0];
    });
}

class WaitKinds : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(DataSync, WaitKinds, testing::Bool());

TEST_P(WaitKinds, AWaitingReaderAlwaysComesToSeeTheLastWrite) {
    constexpr std::uint32_t GENERATIONS = 2000;
    int running = 1;
    GenerationSync sync(GetParam());
    auto reader = std::async(std::launch::async, [&] {
        std::uint32_t last = 0;
        while (last < GENERATIONS && sync.GetSynchronizer()->Wait(running)) {
            sync.ClearDataReady();
            last = sync.GetData().words[0];
        }
        return last;
    });
    for (std::uint32_t i = 1; i <= GENERATIONS; ++i) Write(sync, i);
    EXPECT_EQ(reader.wait_for(PATIENCE), std::future_status::ready);
    vosk::common::SetRunning(running, false);
    EXPECT_EQ(reader.get(), GENERATIONS);
}

class FirstSync final : public DataSyncSingleWaitable<int, BasicDataSetter<int>> {
public:
    enum class InstanceTag { ONE, TWO };
    using DataSyncSingleWaitable::DataSyncSingleWaitable;
};

class SecondSync final : public DataSyncSingle<int, BasicDataSetter<int>> {
public:
    enum class InstanceTag { ONE };
};

class Registry : public testing::Test {
protected:
    void TearDown() override { m_manager.Reset(); }

    DataSyncManager& m_manager = DataSyncManager::GetInstance();
};

TEST_F(Registry, KeepsOneObjectPerClassAndTag) {
    const auto first = m_manager.GetOrRegisterDataSync<FirstSync>(FirstSync::InstanceTag::ONE, true);
    EXPECT_EQ(m_manager.GetOrRegisterDataSync<FirstSync>(FirstSync::InstanceTag::ONE, false), first);
    EXPECT_NE(dynamic_cast<vosk::common::BusyWaitSynchronizer*>(first->GetSynchronizer().get()), nullptr);
    EXPECT_NE(m_manager.GetOrRegisterDataSync<FirstSync>(FirstSync::InstanceTag::TWO, true), first);
    const std::shared_ptr<DataSync> other =
        m_manager.GetOrRegisterDataSync<SecondSync>(SecondSync::InstanceTag::ONE);
    EXPECT_NE(other, first);
    EXPECT_EQ(m_manager.GetDataSync({typeid(SecondSync), 0}), other);
}

TEST_F(Registry, SaysWhichObjectIsMissing) {
    const DataSyncManager::Key key{typeid(FirstSync), 17};
    EXPECT_EQ(m_manager.GetDataSync(key), nullptr);
    EXPECT_EQ(vosk::test::TextOf<std::runtime_error>([&] { return m_manager.GetDataSyncOrThrow(key); }),
              "no data sync object with given type (" + std::string(typeid(FirstSync).name()) +
                  ") and instance id (17)");
}

TEST_F(Registry, AResetLeavesObjectsToTheirHolders) {
    const auto held = m_manager.GetOrRegisterDataSync<SecondSync>(SecondSync::InstanceTag::ONE);
    held->SetData(5, 1U);
    const std::weak_ptr<DataSync> dropped =
        m_manager.GetOrRegisterDataSync<FirstSync>(FirstSync::InstanceTag::ONE, false);

    const vosk::test::LogCapture log;
    DataSyncManager::CreateInstance();
    EXPECT_TRUE(log.Has(log4cplus::INFO_LOG_LEVEL, "DataSyncManager::Reset()"));
    EXPECT_TRUE(dropped.expired());
    EXPECT_EQ(held->GetData(), 5);
    EXPECT_NE(m_manager.GetOrRegisterDataSync<SecondSync>(SecondSync::InstanceTag::ONE), held);
}

}  // namespace
