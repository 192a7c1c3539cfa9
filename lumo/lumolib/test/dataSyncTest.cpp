#include <lumolib/dataSync.hpp>
#include <lumolib/dataSyncManager.hpp>

#include <future>
#include <vosk/test/support.hpp>

namespace vosk::lumo {
namespace {

using testing::ElementsAre;
using namespace vosk::test;

// From another thread, as the owner of a lock may not try it again.
std::string StateOf(std::shared_mutex& mutex) {
    const bool is_free = std::async(std::launch::async, [&mutex] {
                             return std::unique_lock(mutex, std::try_to_lock).owns_lock();
                         }).get();
    return is_free ? "unlocked" : "locked";
}

struct ProbingSetter {
    void SetData(int& data, std::atomic<sample_id_t>& /*sample_id*/, std::atomic<time_point>& /*timestamp*/,
                 int value, const std::function<void()>& probe) const {
        probe();
        data = value;
    }
};

TEST(SyncDataAttribute, SetsUnderTheLockAndCallsBackOutsideIt) {
    std::vector<std::string> events;
    SyncDataAttribute<int, ProbingSetter> attribute([&] {
        events.push_back((attribute.IsNewData() ? "new, " : "not new, ") + StateOf(attribute.GetMutex()));
    });
    attribute.SetData(5, [&] { events.push_back("set, " + StateOf(attribute.GetMutex())); });
    EXPECT_THAT(events, ElementsAre("set, locked", "new, unlocked"));
    EXPECT_EQ(attribute.GetData(), 5);
    attribute.ClearNewData();
    EXPECT_FALSE(attribute.IsNewData());
}

// Every word is the generation, so that a torn copy shows.
using Generation = std::array<std::uint32_t, 1024>;
using GenerationSync = DataSyncSingleWaitable<Generation, BasicDataSetter<Generation>>;

void Write(GenerationSync& sync, std::uint32_t number) {
    Generation generation;
    generation.fill(number);
    sync.SetData(generation, number, At(number));
}

TEST(DataSyncUnderLoad, UnderTheLockRecordIdAndTimeBelongTogether) {
    GenerationSync sync(false);
    std::atomic<bool> done{false};
    auto writer = std::async(std::launch::async, [&] {
        for (std::uint32_t i = 1; !done; ++i) Write(sync, i);
    });
    std::uint32_t last = 0;
    int changes = 0;
    EXPECT_TRUE(Eventually([&] {
        const std::shared_lock lock(sync.GetMutex());
        const Generation& record = sync.GetDataRef();
        EXPECT_EQ(std::ranges::count(record, record[0]), std::ssize(record));
        EXPECT_EQ(sync.GetSampleId(), record[0]);
        EXPECT_EQ(sync.GetTimestamp(), At(record[0]));
        EXPECT_GE(record[0], last);
        if (std::exchange(last, record[0]) != record[0]) ++changes;
        return changes == 100 || testing::Test::HasFailure();
    }));
    done = true;
    writer.wait();
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
            last = sync.GetData()[0];
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

TEST(DataSyncManager, KeepsOneObjectPerClassAndTagUntilAReset) {
    using enum FirstSync::InstanceTag;
    auto& manager = DataSyncManager::GetInstance();
    const auto first = manager.GetOrRegisterDataSync<FirstSync>(ONE, true);
    EXPECT_EQ(manager.GetOrRegisterDataSync<FirstSync>(ONE, false), first);
    EXPECT_NE(dynamic_cast<vosk::common::BusyWaitSynchronizer*>(first->GetSynchronizer().get()), nullptr);
    EXPECT_NE(manager.GetOrRegisterDataSync<FirstSync>(TWO, true), first);
    EXPECT_THROW(manager.GetDataSyncOrThrow({typeid(FirstSync), 17}), std::runtime_error);
    first->SetData(5, 1U);
    manager.Reset();
    EXPECT_EQ(first->GetData(), 5);  // a reset leaves objects to their holders
    EXPECT_NE(manager.GetOrRegisterDataSync<FirstSync>(ONE, true), first);
    manager.Reset();
}

}  // namespace
}  // namespace vosk::lumo
