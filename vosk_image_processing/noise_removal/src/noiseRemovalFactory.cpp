#include <fmt/format.h>
#include <oru/configng/pliConfigReview.hpp>
#include <vosk/common/calibrationFile.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/defs/alignedFrame.hpp>
#include <vosk/image_processing/noiseRemovalFactory.hpp>

#include <utility>

namespace vosk::image_processing::factory {

namespace {

using oru::configng::PliConfigInstanceNode;

// Of the master bias and of the flat field.
std::pair<std::string, std::string> CalibrationPaths(const PliConfigInstanceNode& node,
                                                     const std::string& key, const char* factory) {
    if (!node.IsMap() || !node.Has(key) || !node[key].IsMap()) {
        common::LogAndThrow(fmt::format("{} could not create \"{}\"", factory, key));
    }
    const PliConfigInstanceNode section = node[key];
    if (!section.Has("dark_path") || !section.Has("flat_path")) {
        common::LogAndThrow(fmt::format("{}: node misconfigured", factory));
    }
    return {section["dark_path"].As<std::string>(), section["flat_path"].As<std::string>()};
}

// A review is to find the faults of both files, each at its key; a run ends with the first.
void ReviewFiles(const PliConfigInstanceNode& section, std::size_t width, std::size_t height) {
    if (oru::configng::PliConfigReview::Current() == nullptr) return;
    for (const auto& [key, what] : {std::pair{"dark_path", "dark"}, {"flat_path", "flat"}}) {
        oru::configng::Attempt(section[key], [&, key = key, what = what] {
            defs::AlignedFrame<float> image(width * height);
            common::LoadInto(image, section[key].As<std::string>(), {width, height}, what);
        });
    }
}

}  // namespace

std::unique_ptr<LisaNoiseRemoval> CreateLisaNoiseRemoval(const PliConfigInstanceNode& node,
                                                         const std::string& key) {
    const auto [dark, flat] = CalibrationPaths(node, key, "CreateLisaNoiseRemoval");
    ReviewFiles(node[key], LisaGeometry::WIDTH, LisaGeometry::HEIGHT);
    return std::make_unique<LisaNoiseRemoval>(dark, flat, std::nullopt);
}

std::unique_ptr<AliceNoiseRemoval> CreateAliceNoiseRemoval(const PliConfigInstanceNode& node,
                                                           const std::string& key) {
    const auto [dark, flat] = CalibrationPaths(node, key, "CreateAliceNoiseRemoval");
    ReviewFiles(node[key], AliceNoiseRemoval::WIDTH, AliceNoiseRemoval::HEIGHT);
    return std::make_unique<AliceNoiseRemoval>(dark, flat);
}

std::unique_ptr<MaranaNoiseRemoval> CreateMaranaNoiseRemoval(const PliConfigInstanceNode& node,
                                                             const std::string& key) {
    const auto [dark, flat] = CalibrationPaths(node, key, "CreateMaranaNoiseRemoval");
    ReviewFiles(node[key], MaranaNoiseRemoval::WIDTH, MaranaNoiseRemoval::HEIGHT);
    return std::make_unique<MaranaNoiseRemoval>(dark, flat);
}

}  // namespace vosk::image_processing::factory
