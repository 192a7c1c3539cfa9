#pragma once

// Makes estimators from the configuration, at set-up. Failures are logged at ERROR and thrown as
// std::runtime_error; a value of the wrong type is thrown as the configuration tells it. Only T = float is
// built.

#include <oru/configng/pliConfig.hpp>
#include <vosk/image_processing/centroiding.hpp>

#include <cstddef>
#include <memory>
#include <string>

namespace vosk::image_processing::factory {

// From the map `node[key]`; if there is none, a COG with a saturation of 10.
template <class T>
std::unique_ptr<Centroiding<T>> CreateCentroiding(const oru::configng::PliConfigInstanceNode& node,
                                                  const std::string& key, std::size_t img_width,
                                                  std::size_t img_height);

// From the map itself. `type` is "cog", "tsh" (with `treshold`, a number) or "nbr" (with `nbrightest` and,
// unless it is true, `weight_pixels`); `saturation` is 10 unless told, and not negative.
template <class T>
std::unique_ptr<Centroiding<T>> CreateCentroidingAlgorithm(const oru::configng::PliConfigInstanceNode& node,
                                                           std::size_t img_width, std::size_t img_height);

}  // namespace vosk::image_processing::factory
