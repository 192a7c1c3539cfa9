// Any text is either a definition, whose resampler takes hostile samples, or is refused. The first byte of
// the input tells how many bytes at its end are the samples' course.

#include <oru/configng/pliConfigDocument.hpp>
#include <vosk/common/logSetup.hpp>
#include <vosk/defs/valueTypes.hpp>
#include <vosk/signal_processing/resamplingFactory.hpp>

#include <bit>
#include <cstdint>
#include <cstring>
#include <exception>
#include <stdexcept>

namespace {

using namespace vosk::signal_processing;
using atomclk::AtomClk;
using oru::configng::PliConfigInstanceNode;
using Sample = vosk::lumo::MsOutputSample;
using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t MAX_FACTOR = 1'000;

// A chain moves as many samples at once as it is told to; more only takes time.
bool MovesFew(const PliConfigInstanceNode& definition) {
    for (const auto& stage : definition) {
        if (stage["type"].As<std::string>() != "upsampler") continue;
        const auto input = stage["input_sample_rate"].As<unsigned long>();
        const auto output = stage["outut_sample_rate"].As<unsigned long>();
        if (output / input > MAX_FACTOR) return false;
    }
    return definition.GetSize() <= 4;
}

void Drive(Resampler<Sample>& resampler, Bytes course, atomclk::ManualClock& clock) {
    for (; course.size() >= 9; course = course.subspan(9)) {
        std::int64_t number = 0;
        std::memcpy(&number, course.data() + 1, sizeof number);
        const AtomClk::time_point time{AtomClk::duration{number}};
        const auto value = std::bit_cast<float>(static_cast<std::uint32_t>(number));
        switch (course[0] % 4) {
            case 0:
                clock.Set(time);
                break;
            case 1:
                if (resampler.HasSamples() && course[0] % 8 == 1 && !resampler.GetSample()) std::terminate();
                break;
            case 2:
                static_cast<void>(resampler.GetSample());
                break;
            default:
                resampler.AddSample({time, static_cast<std::uint32_t>(number), {value, -value}});
        }
    }
}

template <class A>
void Try(const PliConfigInstanceNode& definition, bool waitable, Bytes course) {
    atomclk::ManualClock clock{AtomClk::time_point{}};
    try {
        const auto resampler = factory::CreateResampler<Sample, A>(definition, waitable);
        if (MovesFew(definition)) Drive(*resampler, course, clock);
    } catch (const std::runtime_error&) {
        // Refused, as most input.
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    vosk::common::SetupLogging(log4cplus::OFF_LOG_LEVEL, "/dev/null");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Bytes input{data, size};
    if (input.empty()) return 0;
    const std::size_t course_size = std::min<std::size_t>(input[0], size - 1);
    const Bytes text = input.subspan(1, size - 1 - course_size);
    try {
        const auto document = oru::configng::PliConfigDocument::FromText(
            "definition: " + std::string{text.begin(), text.end()}, "fuzz.yaml");
        const auto definition = document.Instances()["definition"];
        Try<DefaultDataAccessor<Sample, float>>(definition, course_size % 2 == 0, input.last(course_size));
        Try<NoDataAccessor<Sample>>(definition, course_size % 2 == 0, input.last(course_size));
    } catch (const oru::configng::PliConfigDocumentError&) {
        // No document at all.
    }
    return 0;
}
