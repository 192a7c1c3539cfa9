#pragma once

// The calibration of a wavefront sensor from three FITS files, for set-up.

#include <oru/configng/pliConfig.hpp>
#include <vosk/image_processing/roi.hpp>

#include <optional>
#include <vector>

namespace vosk::lumo {

struct WfsConfiguration {
    std::vector<image_processing::Roi> rois;  // one for each active sub-aperture, in frames of LISA
    // For each component of the slopes (x of the first, y of the first, x of the second ...) a run of its
    // weights, one for each mode.
    std::vector<float> control_matrix;
};

// Keys, all required: `control_matrix_path`, `reference_points_path`, `rois_path`. The ROI file decides the
// number of sub-apertures. std::runtime_error, logged, where the files don't fit together; the errors of
// LoadMatrix and of Roi. Nothing under a review that has found a fault.
std::optional<WfsConfiguration> ReadWfsConfiguration(const oru::configng::PliConfigInstanceNode& node);

}  // namespace vosk::lumo
