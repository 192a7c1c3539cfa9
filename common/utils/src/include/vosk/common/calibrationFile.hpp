#pragma once

// Calibration files as the configuration names them. Finding and reading such a file is the same for all of
// them, and so is what the log says of it: one INFO line with its full path, a WARN for each doubt about it,
// one ERROR line if it can't be used. For set-up, on the controlling thread.

#include <vosk/common/fits.hpp>

#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace vosk::common {

// Finds the file, hands it, open, to `read` and returns its full path. `what` names it in the log ("dark").
// What goes wrong, in `read` too, is logged and thrown with the text
//
//     ERR: Unable to load <what> FITS file: <path>: <reason>
//
// where the axes of an image, if they are not `dims`, stand behind the reason. std::invalid_argument where
// the reason was one, else std::runtime_error.
std::string ReadCalibration(const std::string& name, const std::string& what, const Fits::Dims& dims,
                            const std::function<void(const Fits::Handle&)>& read);

// The image of exactly these two axes, of elements T or one of the alternatives; NAXIS1 runs fastest.
template <class T, class... Alternatives>
std::vector<T> LoadMatrix(const std::string& name, std::size_t naxis1, std::size_t naxis2,
                          const std::string& what) {
    const Fits::Dims dims{{naxis1, naxis2}};
    std::vector<T> matrix;
    ReadCalibration(name, what, dims, [&](const Fits::Handle& file) {
        matrix = Fits::ReadImg<T, Alternatives...>(file, dims);
    });
    return matrix;
}

// Throws std::runtime_error if a value is infinite or NaN.
void RequireFinite(std::span<const float> matrix);

// As LoadMatrix, of floats; refused if a value is infinite or NaN.
template <class... Alternatives>
std::vector<float> LoadFiniteMatrix(const std::string& name, std::size_t naxis1, std::size_t naxis2,
                                    const std::string& what) {
    const Fits::Dims dims{{naxis1, naxis2}};
    std::vector<float> matrix;
    ReadCalibration(name, what, dims, [&](const Fits::Handle& file) {
        matrix = Fits::ReadImg<float, Alternatives...>(file, dims);
        RequireFinite(matrix);
    });
    return matrix;
}

// The image of exactly these axes into a container of its size and element type. Returns the file's full
// path.
template <class Container>
std::string LoadInto(Container& image, const std::string& name, const std::vector<std::size_t>& dims,
                     const std::string& what) {
    using Traits = Fits::Traits<typename Container::value_type>;
    return ReadCalibration(name, what, dims, [&](const Fits::Handle& file) {
        Fits::ReadImgPriv(file, image.data(), image.size(), Traits::BITPIX, Traits::DATATYPE, dims);
    });
}

}  // namespace vosk::common
