// Any configuration either makes an estimator and a bad pixel correction that work, or is refused.

#include <log4cplus/nullappender.h>
#include <oru/configng/pliConfigDocument.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/image_processing/badPixelCorrection.hpp>
#include <vosk/image_processing/centroidingFactory.hpp>

#include <cstdint>
#include <stdexcept>
#include <vector>

using namespace vosk::image_processing;
using oru::configng::PliConfigInstanceNode;

namespace {

constexpr std::uint16_t WIDTH = 16;
constexpr std::uint16_t HEIGHT = 12;

template <class Make>
auto MadeBy(Make make) -> decltype(make()) {
    try {
        return make();
    } catch (const std::runtime_error&) {
        // What a set-up says of a bad document.
    } catch (const std::invalid_argument&) {
        // What an estimator says of a bad parameter.
    }
    return nullptr;
}

void Work(Centroiding<float>* centroiding, bad_pixel_correction_block* correction) {
    std::vector<float> frame(std::size_t{WIDTH} * HEIGHT, 1.0F);
    const std::vector<Roi> rois(3, Roi{2, 9, 3, 11, WIDTH, HEIGHT, 5.0, 5.0});
    std::vector<vosk::defs::Slope> slopes(rois.size());
    if (correction) correction->work(frame, rois[0]);
    if (centroiding) centroiding->ComputeMany(frame, rois, slopes);
}

void Configure(const PliConfigInstanceNode& node) {
    const auto centroiding = MadeBy(
        [&] { return factory::CreateCentroiding<float>(node, "centroiding_algorithm", WIDTH, HEIGHT); });
    const auto correction = MadeBy(
        [&] { return factory::CreateBadPixelCorrection(node, "bad_pixel_correction", WIDTH, HEIGHT); });
    Work(centroiding.get(), correction.get());
    // And from the node itself, whatever it is.
    Work(MadeBy([&] { return factory::CreateCentroidingAlgorithm<float>(node, WIDTH, HEIGHT); }).get(),
         MadeBy([&] { return factory::CreateBadPixelCorrectionAlgorithm(node, WIDTH, HEIGHT); }).get());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    vosk::common::GetLogger().setAdditivity(false);
    vosk::common::GetLogger().addAppender(log4cplus::SharedAppenderPtr{new log4cplus::NullAppender});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        const auto document = oru::configng::PliConfigDocument::FromText(
            std::string{reinterpret_cast<const char*>(data), size}, "fuzz.yaml");
        Configure(document.Instances());
        for (const auto& node : document.Instances()) Configure(node);
    } catch (const oru::configng::PliConfigDocumentError&) {
        // No document.
    }
    return 0;
}
