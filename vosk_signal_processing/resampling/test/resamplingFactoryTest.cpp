// From text to resamplers, and every text that is refused.

#include "resamplerModels.hpp"

#include <gtest/gtest.h>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/node.hpp>

using namespace std::chrono_literals;

namespace vosk::signal_processing::test {
namespace {

using vosk::test::LogCapture;
using vosk::test::TextOf;

std::string Up(int factor) {
    return "{type: upsampler, name: lerp, input_sample_rate: 100, outut_sample_rate: " +
           std::to_string(100 * factor) + "}";
}

std::string Down(int decimation) {
    return "{type: downsampler, name: decimation, outut_sample_rate: 100, input_sample_rate: " +
           std::to_string(100 * decimation) + "}";
}

const std::string UP = Up(2);
const std::string DOWN = Down(2);
const std::string IDENTITY = "{type: identity, name: identity}";

// The stage with one key more.
std::string With(const std::string& key, std::string stage) {
    return stage.insert(1, key + ", ");
}

std::string FilterText(const std::string& order, const std::string& a, const std::string& b,
                       const std::string& c, const std::string& d = "[[0]]") {
    return "{type: filter, name: statespace, order: " + order + ", a: " + a + ", b: " + b + ", c: " + c +
           ", d: " + d + "}";
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
    EXPECT_TRUE((Is<StateSpaceFilter<Sample, Accessed, 1, 1, 1>>(Create("[" + FIRST + "]"))));
    EXPECT_TRUE(Is<ResamplerContainer<Sample>>(Create("[" + UP + ", " + SECOND + "]")));
    EXPECT_TRUE(Is<WaitableResamplerImplementation<Lerp>>(Create("[" + UP + "]", true)));
    EXPECT_TRUE(Is<WaitableResamplerImplementation<ResamplerContainer<Sample>>>(
        Create("[" + UP + ", " + DOWN + "]", true)));
}

// Definitions, what comes out after two inputs 10 ms apart, and whether it ages.
TEST(ResamplingFactory, KeysReachTheirStages) {
    const std::string first = FilterText("1", "[[0.5]]", "[[0.5]]", "[[1]]", "[[2]]");
    const std::tuple<std::string, Outputs, bool> cases[] = {
        {With("timeout_us: 5", UP), {{0, 1, 6}, {5'000, 2, 6}, {10'000, 3, 8}, {15'000, 4, 9}}, true},
        {With("timeout_us: 5", DOWN), {{0, 1, 6}}, true},
        {IDENTITY, {{0, 1, 6}, {10'000, 2, 8}}, false},
        {With("timeout_us: 5", IDENTITY), {{0, 1, 6}, {10'000, 2, 8}}, true},
        {first, {{0, 1, 12}, {10'000, 2, 19}}, false},
        {With("initialize_state: true", first), {{0, 1, 18}, {10'000, 2, 22}}, false},
        // At rest x1 = 2 u / 0.5 = 4 u and x0 = (u + 0.25 x1) / 0.5 = 4 u, so y = 3 x0 + 4 x1 = 28 u.
        {With("initialize_state: true", SECOND) + ", " + With("timeout_us: 5", DOWN), {{0, 1, 168}}, true},
    };
    for (const auto& [definition, outputs, ages] : cases) {
        const auto resampler = Create("[" + definition + "]");
        atomclk::ManualClock clock{At(0)};
        Outputs actual;
        for (const Sample& input : {Sample{At(0), 1, {6.0F, 0.0F}}, Sample{At(10ms), 2, {8.0F, 0.0F}}}) {
            clock.Set(input.timestamp);
            resampler->AddSample(input);
            for (const auto& output : ReadDue(*resampler, 9)) actual.push_back(output);
        }
        EXPECT_EQ(actual, outputs) << definition;
        clock.Advance(4'999ns);
        EXPECT_TRUE(resampler->GetSample()) << definition;
        clock.Advance(1ns);
        EXPECT_EQ(resampler->GetSample().has_value(), !ages) << definition;
    }
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
    EXPECT_EQ(TextOf<std::runtime_error>([] { return Create<Opaque>("[" + FIRST + "]"); }),
              "CreateResamplerComponent could not create filter: statespace");
    EXPECT_NO_THROW(Create("[{type: identity, name: identity, timeout_us: 9223372036854775}]"));
    EXPECT_THROW(Create("[{type: identity}]"), oru::configng::PliConfigNotFoundError);
    EXPECT_THROW(Create("[{type: upsampler, name: lerp, input_sample_rate: -1, outut_sample_rate: 1}]"),
                 oru::configng::PliConfigValueError);
}

TEST(ResamplingFactory, WarnsOfChainsThatMayMoveManySamplesAtOnce) {
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {Up(1001), {}},
        {Up(1001) + ", " + IDENTITY + ", " + Down(1001), {}},  // one sample a call
        {Up(1001) + ", " + With("timeout_us: 5", FIRST), {}},  // which has no such key
        {Up(1001) + ", " + Down(1000), {}},
        {Up(1000) + ", " + Down(1001), {}},
        {IDENTITY + ", " + Up(3003) + ", " + Down(1001),
         {"definition[1]: one call of the chain may move 1001 samples"}},
        {Up(1001) + ", " + With("timeout_us: 5", IDENTITY),
         {"definition[0]: one call of the chain may move 1001 samples"}},
    };
    for (const auto& [definition, lines] : cases) {
        const LogCapture log;
        Create("[" + definition + "]");
        EXPECT_EQ(log.Texts("", log4cplus::WARN_LOG_LEVEL), lines) << definition;
    }
}

}  // namespace
}  // namespace vosk::signal_processing::test
