#pragma once

// Noise removal from the configuration, at set-up. The map `key` of the node has the FITS files of the master
// bias, `dark_path`, and of the flat field, `flat_path`. std::runtime_error without them; else the errors of
// the class. LISA's descrambling table is always LisaGeometry::TABLE.

#include <oru/configng/pliConfig.hpp>
#include <vosk/image_processing/noiseRemoval.hpp>

#include <memory>
#include <string>

namespace vosk::image_processing::factory {

std::unique_ptr<LisaNoiseRemoval> CreateLisaNoiseRemoval(const oru::configng::PliConfigInstanceNode& node,
                                                         const std::string& key);
std::unique_ptr<AliceNoiseRemoval> CreateAliceNoiseRemoval(const oru::configng::PliConfigInstanceNode& node,
                                                           const std::string& key);
std::unique_ptr<MaranaNoiseRemoval> CreateMaranaNoiseRemoval(const oru::configng::PliConfigInstanceNode& node,
                                                             const std::string& key);

}  // namespace vosk::image_processing::factory
