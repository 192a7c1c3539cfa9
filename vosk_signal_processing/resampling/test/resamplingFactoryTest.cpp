// From text to resamplers, and every text that is refused.

#include "resamplerModels.hpp"

#include <gtest/gtest.h>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/node.hpp>

namespace vosk::signal_processing::test {
namespace {

using vosk::test::LogCapture;
using vosk::test::TextOf;

const std::string UP = "{type: upsampler, name: lerp, input_sample_rate: 100, outut_sample_rate: 1000}";
const std::string DOWN =
    "{type: downsampler, name: decimation, input_sample_rate: 1000, outut_sample_rate: 100, timeout_us: 5}";
const std::string IDENTITY = "{type: identity, name: identity}";

std::string FilterText(const std::string& order, const std::string& a, const std::string& b,
                       const std::string& c, const std::string& d = "[[0]]") {
    return "{type: filter, name: statespace, order: " + order + ", a: " + a + ", b: " + b + ", c: " + c +
           ", d: " + d + ", initialize_state: true}";
}

const std::string FIRST = FilterText("1", "[[0.5]]", "[[0.5]]", "[[1]]");
const std::string SECOND = FilterText("2", "[[0.5, 0.25], [0, 0.5]]", "[[1], [2]]", "[[3, 4]]");

template <class A = Accessed>
std::unique_ptr<Resampler<Sample>> Create(const std::string& definition, bool waitable = false) {
    const auto node = vosk::test::NodeOf("definition: " + definition)["definition"];
    return factory::CreateResampler<Sample, A>(node, waitable);
}

template <class R>
bool Is(const std::unique_ptr<Resampler<Sample>>& resampler) {
    const Resampler<Sample>& object = *resampler;
    return typeid(object) == typeid(R);
}

TEST(ResamplingFactory, OneStageComesBareAndSeveralAsAChain) {
    using Lerp = LerpUpsampler<Sample, Accessed>;
    EXPECT_TRUE(Is<Lerp>(Create("[" + UP + "]")));
    EXPECT_TRUE((Is<SampleIdDecimatingDownsampler<Sample, Opaque>>(Create<Opaque>("[" + DOWN + "]"))));
    EXPECT_TRUE((Is<IdentityResampler<Sample, Accessed>>(Create("[" + IDENTITY + "]"))));
    EXPECT_TRUE((Is<StateSpaceFilter<Sample, Accessed, 1, 1, 1>>(Create("[" + FIRST + "]"))));
    EXPECT_TRUE(Is<ResamplerContainer<Sample>>(Create("[" + UP + ", " + SECOND + "]")));
    EXPECT_TRUE(Is<WaitableResamplerImplementation<Lerp>>(Create("[" + UP + "]", true)));
    EXPECT_TRUE(Is<WaitableResamplerImplementation<ResamplerContainer<Sample>>>(
        Create("[" + UP + ", " + DOWN + "]", true)));
}

TEST(ResamplingFactory, KeysReachTheirStages) {
    atomclk::ManualClock clock{At(4'999)};
    const auto chain = Create("[" + SECOND + ", " + DOWN + "]");
    chain->AddSample({At(0), 1, {6.0F, 0.0F}});
    // At rest x1 = 2 u / 0.5 = 4 u and x0 = (u + 0.25 x1) / 0.5 = 4 u, so y = 3 x0 + 4 x1 = 28 u.
    EXPECT_EQ(chain->GetSample()->tt.tip, 168.0F);
    clock.Advance(std::chrono::nanoseconds{1});
    EXPECT_FALSE(chain->GetSample());  // 5 us after its origin
}

TEST(ResamplingFactory, WhatCannotBeMadeIsRefusedInTheLogAndByException) {
    const auto stage = [](const std::string& type, const std::string& name) {
        return "[{type: " + type + ", name: " + name + "}]";
    };
    const std::string shape = "CreateFilter coefficients vector size mismatch";
    const std::pair<std::string, std::string> cases[] = {
        {"{}", "CreateResampler could not recognize configuration"},
        {"[]", "CreateResampler could not recognize configuration"},
        {"", "CreateResampler could not recognize configuration"},
        {"[3]", "CreateResamplerComponent node is not a map"},
        {"[" + IDENTITY + ", []]", "CreateResamplerComponent node is not a map"},
        {stage("magic", "lerp"), "CreateResamplerComponent could not create magic: lerp"},
        {stage("upsampler", "cubic"), "CreateUpsampler could not create cubic"},
        {stage("downsampler", "mean"), "CreateDownsampler could not create mean"},
        {stage("identity", "id"), "CreateIdentityResampler could not create id"},
        {stage("filter", "fir"), "CreateFilter could not create fir"},
        {"[" + FilterText("3", "[[1]]", "[[1]]", "[[1]]") + "]", "CreateFilter could not create statespace"},
        {"[" + FilterText("0", "[[1]]", "[[1]]", "[[1]]") + "]", "CreateFilter could not create statespace"},
        {"[" + FilterText("1", "[[1, 2]]", "[[1]]", "[[1]]") + "]", shape},
        {"[" + FilterText("2", "[[1, 2], [3, 4]]", "[[1, 2]]", "[[1, 2]]") + "]", shape},
        {"[" + FilterText("2", "[[1, 2], [3, 4]]", "[[1], [2]]", "[[1], [2]]") + "]", shape},
        {"[" + FilterText("1", "[[1]]", "[[1]]", "[[1]]", "[[1], [2]]") + "]", shape},
        {"[" + FilterText("1", "[[.nan]]", "[[1]]", "[[1]]") + "]",
         "CreateFilter coefficients must be finite"},
        {"[{type: identity, name: identity, timeout_us: 9223372036854776}]",
         "definition[0].timeout_us is out of range"},
    };
    for (const auto& [definition, text] : cases) {
        const LogCapture log;
        EXPECT_EQ(TextOf<std::runtime_error>([&wanted = definition] { return Create(wanted); }), text)
            << definition;
        EXPECT_EQ(log.Count(log4cplus::ERROR_LOG_LEVEL, text), 1) << definition;
    }
    EXPECT_NO_THROW(Create("[{type: identity, name: identity, timeout_us: 9223372036854775}]"));
    EXPECT_THROW(Create("[{type: identity}]"), oru::configng::PliConfigNotFoundError);
    EXPECT_THROW(Create("[{type: upsampler, name: lerp, input_sample_rate: -1, outut_sample_rate: 1}]"),
                 oru::configng::PliConfigValueError);
}

TEST(ResamplingFactory, WarnsOfChainsThatMayMoveManySamplesAtOnce) {
    const auto up = [](const std::string& output) {
        return "{type: upsampler, name: lerp, input_sample_rate: 1, outut_sample_rate: " + output + "}";
    };
    const LogCapture log;
    Create("[" + up("1000") + ", " + IDENTITY + ", " + up("1001") + "]");
    Create("[" + up("1001") + "]");
    EXPECT_TRUE(log.Lines().empty());
    Create("[" + IDENTITY + ", " + up("1001") + ", " + IDENTITY + "]");
    EXPECT_EQ(
        log.Count(log4cplus::WARN_LOG_LEVEL, "definition[1]: one call of the chain may move 1001 samples"),
        1);
}

TEST(ResamplingFactory, OpaqueSamplesHaveNoFilters) {
    EXPECT_EQ(TextOf<std::runtime_error>([] { return Create<Opaque>("[" + FIRST + "]"); }),
              "CreateResamplerComponent could not create filter: statespace");
}

}  // namespace
}  // namespace vosk::signal_processing::test
