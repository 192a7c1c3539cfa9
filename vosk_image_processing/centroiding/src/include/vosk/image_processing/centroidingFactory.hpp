#pragma once

// Makes estimators: from the configuration, at set-up, and from the options of the host, while the cameras
// run. Failures of a configuration are logged at ERROR and thrown as std::runtime_error; a value of the wrong
// type is thrown with the configuration's own error. Only T = float is built.

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

// An estimator as the host sets it and sees it.
struct EstimatorOptions {
    std::size_t nbrightest{0};  // of NBR
    float threshold{0.0F};      // of TSH
    std::size_t option{3};      // 1 for TSH, 2 for NBR, 3 for COG
};

// Null of an unknown option. NBR is weighted. std::invalid_argument, logged, as the estimator throws it: of
// an `nbrightest` of 0, a threshold that is NaN.
std::unique_ptr<Centroiding<float>> MakeEstimator(std::size_t option, float threshold, std::size_t nbrightest,
                                                  std::size_t img_width, std::size_t img_height,
                                                  double saturation);

// The option of an estimator and the parameter that counts with it; the other parameter is 0.
EstimatorOptions OptionsOf(const Centroiding<float>& estimator);

}  // namespace vosk::image_processing::factory
