// Any document either is read, walked, converted and built from, or is refused. What follows a zero byte is
// no document but the course of the samples that its resamplers take.

#include <lumolib/utilities.hpp>
#include <oru/configng/pliConfigDocument.hpp>
#include <vosk/common/logSetup.hpp>
#include <vosk/defs/valueTypes.hpp>
#include <vosk/image_processing/badPixelCorrection.hpp>
#include <vosk/image_processing/centroidingFactory.hpp>
#include <vosk/image_processing/noiseRemovalFactory.hpp>
#include <vosk/signal_processing/resamplingFactory.hpp>

#include <algorithm>
#include <bit>
#include <cstring>
#include <exception>
#include <stdexcept>

namespace images = vosk::image_processing;
namespace resampling = vosk::signal_processing;
using namespace oru::configng;
using atomclk::AtomClk;
using Sample = vosk::lumo::MsOutputSample;
using Bytes = std::span<const std::uint8_t>;

namespace {

constexpr std::uint16_t WIDTH = 16;
constexpr std::uint16_t HEIGHT = 12;

// Null if it is refused, as most input.
template <class Make>
auto MadeBy(Make make) -> decltype(make()) {
    try {
        return make();
    } catch (const std::runtime_error&) {
        // A bad document.
    } catch (const std::invalid_argument&) {
        // A bad parameter.
    }
    return {};
}

template <class... T>
void Convert(const PliConfigInstanceNode& node) {
    (MadeBy([&node] { return std::optional{node.As<T>()}; }), ...);
}

// The same in both units up to rounding.
void ReadDuration(const std::string& text) try {
    using namespace std::chrono;
    const auto fine = vosk::lumo::ParseDuration<microseconds>(text);
    if (vosk::lumo::ParseDuration<milliseconds>(text) != ceil<milliseconds>(fine)) std::terminate();
} catch (const std::invalid_argument&) {
    // No duration.
} catch (const std::out_of_range&) {
    // Too long a duration.
}

void Walk(const PliConfigInstanceNode& node) {
    Convert<bool, int, unsigned char, unsigned long, float, double, std::string,
            oru::experimental::datatypes::PliMatrix2D<double>>(node);
    if (node.GetKind() == PliConfigNodeKind::SCALAR) ReadDuration(node.As<std::string>());
    if (!node.IsSequence() && !node.IsMap()) return;
    for (const auto& child : node) Walk(child);
}

void Work(images::Centroiding<float>* centroiding, images::bad_pixel_correction_block* correction) {
    std::vector<float> frame(std::size_t{WIDTH} * HEIGHT, 1.0F);
    const std::vector<images::Roi> rois(3, images::Roi{2, 9, 3, 11, WIDTH, HEIGHT, 5.0, 5.0});
    std::vector<vosk::defs::Slope> slopes(rois.size());
    if (correction) correction->work(frame, rois[0]);
    if (centroiding) centroiding->ComputeMany(frame, rois, slopes);
}

// By their keys in the node, and from the node itself, whatever it is.
void MakeImageBlocks(const PliConfigInstanceNode& node) {
    using namespace images::factory;
    Work(MadeBy([&] { return CreateCentroiding<float>(node, "centroiding_algorithm", WIDTH, HEIGHT); }).get(),
         MadeBy([&] { return CreateBadPixelCorrection(node, "bad_pixel_correction", WIDTH, HEIGHT); }).get());
    Work(MadeBy([&] { return CreateCentroidingAlgorithm<float>(node, WIDTH, HEIGHT); }).get(),
         MadeBy([&] { return CreateBadPixelCorrectionAlgorithm(node, WIDTH, HEIGHT); }).get());
    MadeBy([&] { return CreateLisaNoiseRemoval(node, "noise_removal"); });
    MadeBy([&] { return CreateAliceNoiseRemoval(node, "noise_removal"); });
    MadeBy([&] { return CreateMaranaNoiseRemoval(node, "noise_removal"); });
}

// The document sets how many samples a chain moves at once. A large number only takes time.
bool MovesFew(const PliConfigInstanceNode& definition) {
    constexpr std::size_t MAX_FACTOR = 1'000;
    for (const auto& stage : definition) {
        if (stage["type"].As<std::string>() != "upsampler") continue;
        const auto input = stage["input_sample_rate"].As<unsigned long>();
        const auto output = stage["outut_sample_rate"].As<unsigned long>();
        if (output / input > MAX_FACTOR) return false;
    }
    return definition.GetSize() <= 4;
}

void Drive(resampling::Resampler<Sample>& resampler, Bytes course, atomclk::ManualClock& clock) {
    for (; course.size() >= 9; course = course.subspan(9)) {
        std::int64_t number = 0;
        std::memcpy(&number, course.data() + 1, sizeof number);
        const AtomClk::time_point time{AtomClk::duration{number}};
        const auto value = std::bit_cast<float>(static_cast<std::uint32_t>(number));
        const int step = course[0] % 8;
        if (step % 4 == 0) clock.Set(time);
        if (step % 4 == 2) static_cast<void>(resampler.GetSample());
        if (step % 4 == 3) resampler.AddSample({time, static_cast<std::uint32_t>(number), {value, -value}});
        if (step == 1 && resampler.HasSamples() && !resampler.GetSample()) std::terminate();
        if (step == 5) static_cast<void>(resampler.HasSamples());
    }
}

template <class A>
void MakeResampler(const PliConfigInstanceNode& definition, Bytes course) {
    atomclk::ManualClock clock{AtomClk::time_point{}};
    const auto resampler = MadeBy([&] {
        auto made = resampling::factory::CreateResampler<Sample, A>(definition, course.size() % 2 == 0);
        return MovesFew(definition) ? std::move(made) : nullptr;
    });
    if (resampler) Drive(*resampler, course, clock);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    vosk::common::SetupLogging(log4cplus::OFF_LOG_LEVEL, "/dev/null");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Bytes input{data, size};
    const auto text_end = std::find(input.begin(), input.end(), 0);
    const Bytes course = text_end == input.end() ? Bytes{} : Bytes{text_end + 1, input.end()};
    const auto document = MadeBy([&] {
        return std::optional{PliConfigDocument::FromText({input.begin(), text_end}, "fuzz.yaml")};
    });
    if (!document) return 0;
    Walk(document->Instances());
    if (!UnreadKeys(*document).empty()) std::terminate();  // the walk has asked for everything
    MakeImageBlocks(document->Instances());
    for (const auto& node : document->Instances()) {
        MakeImageBlocks(node);
        MakeResampler<resampling::DefaultDataAccessor<Sample, float>>(node, course);
        MakeResampler<resampling::NoDataAccessor<Sample>>(node, course);
    }
    return 0;
}
