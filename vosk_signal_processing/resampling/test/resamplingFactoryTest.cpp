// From text to resamplers, and the texts that are refused.

#include "resamplerChains.hpp"

#include <vosk/test/logCapture.hpp>
#include <vosk/test/node.hpp>

using namespace std::chrono_literals;

namespace vosk::signal_processing::test {
namespace {

using vosk::test::LogCapture;

const std::string UP = "{type: upsampler, name: lerp, input_sample_rate: 100, outut_sample_rate: 200}";
const std::string DOWN =
    "{type: downsampler, name: decimation, outut_sample_rate: 100, input_sample_rate: 200}";
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

// Definitions, what comes out after two inputs 10 ms apart, and whether it ages.
TEST(ResamplingFactory, KeysReachTheirStages) {
    const std::string first = FilterText("1", "[[0.5]]", "[[0.5]]", "[[1]]", "[[2]]");
    const std::tuple<std::string, Outputs, bool> cases[] = {
        {With("timeout_us: 5", UP), {{0, 1, 6}, {5'000, 2, 6}, {10'000, 3, 8}, {15'000, 4, 9}}, true},
        {With("timeout_us: 5", DOWN), {{0, 1, 6}}, true},
        {With("timeout_us: 5", IDENTITY), {{0, 1, 6}, {10'000, 2, 8}}, true},
        {first, {{0, 1, 12}, {10'000, 2, 19}}, false},
        {With("initialize_state: true", first), {{0, 1, 18}, {10'000, 2, 22}}, false},
        // At rest x1 = 2 u / 0.5 = 4 u and x0 = (u + 0.25 x1) / 0.5 = 4 u, so y = 3 x0 + 4 x1 = 28 u.
        {With("initialize_state: true", SECOND) + ", " + With("timeout_us: 5", DOWN), {{0, 1, 168}}, true},
    };
    for (const auto& [definition, outputs, ages] : cases) {
        const auto resampler = Create("[" + definition + "]", true);
        EXPECT_NE(dynamic_cast<WaitableResampler*>(resampler.get()), nullptr) << definition;
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

TEST(Resampling, RefusesWhatItCannotMakeInTheLogAndByException) {
    using Call = std::function<void()>;
    const auto stage = [](const std::string& keys) -> Call { return [=] { Create("[{" + keys + "}]"); }; };
    const auto rates = [&](const std::string& kind, std::size_t in, std::size_t out) {
        return stage(kind + ", input_sample_rate: " + std::to_string(in) +
                     ", outut_sample_rate: " + std::to_string(out));
    };
    const auto filter = [](auto... matrices) -> Call {
        return [=] { Create("[" + FilterText(matrices...) + "]"); };
    };
    const std::string lerp = "type: upsampler, name: lerp";
    const std::string decimation = "type: downsampler, name: decimation";
    const std::vector<Call> cases{[] { Create("[]"); },
                                  [] { Create("[3]"); },
                                  [] { Create<Opaque>("[" + FIRST + "]"); },
                                  stage("type: upsampler, name: cubic"),
                                  stage("type: identity, name: identity, timeout_us: 9223372036854776"),
                                  filter("3", "[[1]]", "[[1]]", "[[1]]"),
                                  filter("1", "[[1, 2]]", "[[1]]", "[[1]]"),
                                  filter("2", "[[1, 2], [3, 4]]", "[[1, 2]]", "[[1, 2]]"),
                                  filter("2", "[[1, 2], [3, 4]]", "[[1], [2]]", "[[1], [2]]"),
                                  filter("1", "[[1]]", "[[1]]", "[[1]]", "[[1], [2]]"),
                                  filter("1", "[[.nan]]", "[[1]]", "[[1]]"),
                                  rates(lerp, 1, 1'000'000'001),
                                  rates(lerp, 0, 1),
                                  rates(lerp, 2, 1),
                                  rates(lerp, 2, 5),
                                  rates(decimation, 1, 2),
                                  rates(decimation, 0, 0),
                                  rates(decimation, 5, 2)};
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const LogCapture log;
        EXPECT_THROW(cases[i](), std::runtime_error) << i;
        EXPECT_EQ(log.Texts("", log4cplus::ERROR_LOG_LEVEL).size(), 1U) << i;
    }
    EXPECT_NO_THROW(rates(lerp, 1, 1'000'000'000)());
    EXPECT_NO_THROW(stage("type: identity, name: identity, timeout_us: 9223372036854775")());
    EXPECT_THROW((IdentityResampler<Sample, Opaque>{-1ns}), std::runtime_error);
}

}  // namespace
}  // namespace vosk::signal_processing::test
