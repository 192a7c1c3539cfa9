// The registry of resamplers: which users share one, how its definition is found, what it refuses.

#include <lumolib/dataSyncRecords.hpp>
#include <lumolib/resamplerManager.hpp>

#include <vosk/test/logCapture.hpp>
#include <vosk/test/node.hpp>
#include <vosk/test/support.hpp>

namespace vosk::lumo {
namespace {

using defs::CentroidError;
using vosk::test::LogCapture;
using vosk::test::NodeOf;
using Centroids = signal_processing::NoDataAccessor<CentroidError>;
using PfsSample = defs::SampleData<PfsInputData>;
using Pfs = signal_processing::NoDataAccessor<PfsSample>;
using Ms = signal_processing::DefaultDataAccessor<MsOutputSample, float>;

constexpr const char* DOCUMENT = R"(
cfg:
  other: [{id: default_resampler, definition: [{type: magic, name: m}]}]
  resamplers:
    - id: half
      definition: [{type: downsampler, name: decimation, input_sample_rate: 2, outut_sample_rate: 1}]
    - id: smooth
      definition:
        - {type: filter, name: statespace, order: 1, a: [[0]], b: [[0]], c: [[0]], d: [[2]]}
        - {type: identity, name: identity}
    - id: without_definition
    - definition: []
    - {id: [1], definition: []}
    - text
)";

template <class T = CentroidError, class A = Centroids>
auto Get(const std::string& node, int instance = 0, bool waitable = false) {
    return ResamplerManager::GetInstance().GetOrRegisterResampler<T, A>(NodeOf(node), "resampler", instance,
                                                                        waitable);
}

void Read(const std::string& text, const std::string& key = "resamplers") {
    gim::Config config;
    config.ParseText(text, "test.yaml");
    ResamplerManager::CreateInstance(config, key);
}

class ResamplerManagerTest : public ::testing::Test {
protected:
    ResamplerManagerTest() { Read(DOCUMENT); }

    const LogCapture m_log;
};

TEST_F(ResamplerManagerTest, OneInstanceForEachTypeDefinitionAndNumber) {
    const auto first = Get("resampler: half", 4);
    EXPECT_EQ(Get("resampler: half", 4, true), first);  // the first caller decides
    EXPECT_NE(Get("resampler: half", 5), first);
    EXPECT_NE(Get("{}", 4), first);
    const auto pfs = Get<PfsSample, Pfs>("resampler: half", 4);
    EXPECT_NE(static_cast<void*>(pfs.get()), static_cast<void*>(first.get()));
    for (const bool waitable : {false, true}) {
        const auto resampler = Get("resampler: half", waitable, waitable);
        EXPECT_EQ(dynamic_cast<signal_processing::WaitableResampler*>(resampler.get()) != nullptr, waitable);
    }
}

TEST_F(ResamplerManagerTest, ANodeWithoutADefinitionGetsAMailboxWhichCanBeReplaced) {
    const auto mailbox = Get<MsOutputSample, Ms>("{}");
    for (const char* node : {"resampler: ''", "resampler: [a]", "resampler: default_resampler"})
        EXPECT_EQ((Get<MsOutputSample, Ms>(node)), mailbox) << node;
    mailbox->AddSample({{}, 77, {1, 2}});  // no age is too old for it
    EXPECT_EQ(mailbox->GetSample()->sample_id, 77);
    const auto doubling = Get<MsOutputSample, Ms>("resampler: smooth");
    doubling->AddSample({{}, 1, {3, 4}});
    EXPECT_EQ(doubling->GetSample()->tt, (defs::FloatVectorTT{6, 8}));
    Read(DOCUMENT, "other");
    EXPECT_THROW(Get("{}"), std::runtime_error);
}

TEST_F(ResamplerManagerTest, WarnsOfTheThirdUserAndRefusesWhatIsNotThere) {
    for (const std::string id : {"without_definition", "elsewhere"})
        EXPECT_THROW(Get("resampler: " + id), std::runtime_error) << id;
    const auto producer = Get("resampler: half", 3);
    const auto consumer = Get("resampler: half", 3);
    EXPECT_TRUE(m_log.Texts("use count > 2").empty());
    const auto third = Get("resampler: half", 3);
    EXPECT_EQ(m_log.Texts("use count > 2", log4cplus::WARN_LOG_LEVEL).size(), 1U);
}

TEST_F(ResamplerManagerTest, ANewStartForgetsTheOldWithoutTakingItFromItsHolders) {
    for (const char* text : {"cfg:", "cfg: {resamplers: {id: half}}"}) {
        Read(DOCUMENT);
        const auto held = Get("resampler: half");
        const auto mailbox = Get("{}");
        Read(text);
        EXPECT_THROW(Get("resampler: half"), std::runtime_error) << text;
        EXPECT_NE(Get("{}"), mailbox);
        held->AddSample({});
        EXPECT_TRUE(held->HasSamples());
    }
}

}  // namespace
}  // namespace vosk::lumo
