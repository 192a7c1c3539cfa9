// The registry of resamplers: who shares what, what it says, what it refuses.

#include <lumolib/dataSyncRecords.hpp>
#include <lumolib/resamplerManager.hpp>

#include <gtest/gtest.h>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/node.hpp>
#include <vosk/test/support.hpp>

namespace vosk::lumo {
namespace {

using defs::CentroidError;
using vosk::test::LogCapture;
using vosk::test::NodeOf;
using vosk::test::TextOf;
using PfsSample = defs::SampleData<PfsInputData>;
using Centroids = signal_processing::NoDataAccessor<CentroidError>;
using Pfs = signal_processing::NoDataAccessor<PfsSample>;
using Ms = signal_processing::DefaultDataAccessor<MsOutputSample, float>;

constexpr const char* DOCUMENT = R"(
cfg:
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

template <class T, class A>
auto Get(const std::string& node, int instance = 0, bool waitable = false) {
    return ResamplerManager::GetInstance().GetOrRegisterResampler<T, A>(NodeOf(node), "resampler", instance,
                                                                        waitable);
}

gim::Config ConfigOf(const std::string& text) {
    gim::Config config;
    config.ParseText(text, "test.yaml");
    return config;
}

class ResamplerManagerTest : public ::testing::Test {
protected:
    ResamplerManagerTest() { ResamplerManager::CreateInstance(ConfigOf(DOCUMENT), "resamplers"); }

    ResamplerManager& m_manager = ResamplerManager::GetInstance();
};

TEST_F(ResamplerManagerTest, OneInstanceForEachTypeDefinitionAndNumber) {
    const auto first = Get<CentroidError, Centroids>("resampler: half", 4);
    EXPECT_EQ((Get<CentroidError, Centroids>("resampler: half", 4)), first);
    EXPECT_NE((Get<CentroidError, Centroids>("resampler: half", 5)), first);
    EXPECT_NE((Get<CentroidError, Centroids>("{}", 4)), first);
    const auto pfs = Get<PfsSample, Pfs>("resampler: half", 4);
    EXPECT_NE(static_cast<void*>(pfs.get()), static_cast<void*>(first.get()));
}

TEST_F(ResamplerManagerTest, TheFirstCallerDecidesWhetherItIsWaitable) {
    for (const bool waitable : {false, true}) {
        const auto first = Get<CentroidError, Centroids>("resampler: half", waitable, waitable);
        EXPECT_EQ(dynamic_cast<signal_processing::WaitableResampler*>(first.get()) != nullptr, waitable);
        EXPECT_EQ((Get<CentroidError, Centroids>("resampler: half", waitable, !waitable)), first);
    }
}

TEST_F(ResamplerManagerTest, WhoNamesNoneGetsAMailbox) {
    const auto mailbox = Get<MsOutputSample, Ms>("{}");
    for (const char* node :
         {"resampler: ''", "resampler:", "resampler: [a]", "resampler: default_resampler"}) {
        EXPECT_EQ((Get<MsOutputSample, Ms>(node)), mailbox) << node;
    }
    mailbox->AddSample({{}, 77, {1, 2}});  // of no age that counts
    EXPECT_EQ(mailbox->GetSample()->sample_id, 77);
    EXPECT_FALSE(mailbox->HasSamples());
}

TEST_F(ResamplerManagerTest, DefinitionsMakeTheirChainsAndTheDefaultCanBeReplaced) {
    const auto doubling = Get<MsOutputSample, Ms>("resampler: smooth");
    doubling->AddSample({{}, 1, {3, 4}});
    EXPECT_EQ(doubling->GetSample()->tt, (defs::FloatVectorTT{6, 8}));
    ResamplerManager::CreateInstance(
        ConfigOf("cfg: {other: [{id: default_resampler, definition: [{type: magic, name: m}]}]}"), "other");
    EXPECT_EQ(TextOf<std::runtime_error>([] { return Get<MsOutputSample, Ms>("{}"); }),
              "CreateResamplerComponent could not create magic: m");
}

TEST_F(ResamplerManagerTest, TheThirdUserIsWarnedOfAndServed) {
    const LogCapture log;
    const auto producer = Get<CentroidError, Centroids>("resampler: half", 3);
    const auto consumer = Get<CentroidError, Centroids>("resampler: half", 3);
    const std::string text =
        "ResamplerManager: resampler use count > 2 for configuration id: half, instance id: 3";
    EXPECT_EQ(log.Count(log4cplus::WARN_LOG_LEVEL, text), 0);
    EXPECT_EQ((Get<CentroidError, Centroids>("resampler: half", 3)), producer);
    EXPECT_EQ(log.Count(log4cplus::WARN_LOG_LEVEL, text), 1);
}

TEST_F(ResamplerManagerTest, WhatIsNotThereIsRefused) {
    const LogCapture log;
    for (const std::string id : {"without_definition", "elsewhere"}) {
        const std::string text = "ResamplerManager: configuration not found: id: " + id;
        EXPECT_EQ(TextOf<std::runtime_error>([&] { return Get<MsOutputSample, Ms>("resampler: " + id); }),
                  text);
        EXPECT_TRUE(log.Has(log4cplus::ERROR_LOG_LEVEL, text));
    }
    const std::string text = "ResamplerManager: resampler not found: configuration id: half, instance id: 2";
    const ResamplerManager::ResamplerId id{typeid(CentroidError), "half", 2};
    EXPECT_EQ(TextOf<std::runtime_error>([&] { return m_manager.GetResamplerOrThrow(id); }), text);
    EXPECT_TRUE(log.Has(log4cplus::ERROR_LOG_LEVEL, text));
    EXPECT_EQ(m_manager.GetResampler(id), nullptr);
    const auto resampler = Get<CentroidError, Centroids>("resampler: half", 2);
    EXPECT_EQ(m_manager.GetResamplerOrThrow(id), resampler);
}

TEST_F(ResamplerManagerTest, ANewStartTellsWhatItFoundAndForgetsTheOldWithoutTakingItFromItsHolders) {
    const auto held = Get<CentroidError, Centroids>("resampler: half");
    const auto mailbox = Get<CentroidError, Centroids>("{}");
    const std::vector<std::string> none{"no resampler configuration"};
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {DOCUMENT, {"resampler configuration: half", "resampler configuration: smooth"}},
        {"cfg: {}", none},
        {"cfg:", none},
        {"cfg: 5", none},
        {"other: 1", none},
        {"cfg: {resamplers: {id: half}}", none}};
    for (const auto& [text, found] : cases) {
        const LogCapture log;
        ResamplerManager::CreateInstance(ConfigOf(text), "resamplers");
        std::vector<LogCapture::Line> lines{{log4cplus::INFO_LOG_LEVEL, "ResamplerManager::Reset()"}};
        for (const std::string& what : found)
            lines.push_back({log4cplus::DEBUG_LOG_LEVEL, "ResamplerManager: found " + what});
        auto logged = log.Lines();  // but for warnings of what is passed over
        std::erase_if(logged, [](const auto& line) { return line.level == log4cplus::WARN_LOG_LEVEL; });
        EXPECT_EQ(logged, lines) << text;
    }
    ResamplerManager::CreateInstance({}, "resamplers");
    EXPECT_THROW((Get<CentroidError, Centroids>("resampler: half")), std::runtime_error);
    EXPECT_NE((Get<CentroidError, Centroids>("{}")), mailbox);
    held->AddSample({});
    EXPECT_TRUE(held->HasSamples());
}

}  // namespace
}  // namespace vosk::lumo
