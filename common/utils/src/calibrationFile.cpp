#include <vosk/common/calibrationFile.hpp>

#include <fmt/format.h>
#include <vosk/common/fileSystem.hpp>
#include <vosk/common/logger.hpp>

#include <algorithm>
#include <cmath>
#include <exception>
#include <stdexcept>

namespace vosk::common {

namespace {

std::string TextOfAxes(const std::vector<std::size_t>& axes) {
    std::string text;
    for (std::size_t i = 0; i < axes.size(); ++i)
        text += fmt::format("{}NAXIS{} = {}", i == 0 ? "" : ", ", i + 1, axes[i]);
    return text.empty() ? "no axes" : text;
}

// Empty where the image has the axes that are wanted.
std::string TextOfOtherAxes(const Fits::Handle& file, const Fits::Dims& dims) {
    const auto axes = Fits::ReadImgParams(file).first;
    if (!dims || axes == *dims) return {};
    return fmt::format(" (wanted: {}; found: {})", TextOfAxes(*dims), TextOfAxes(axes));
}

}  // namespace

std::string ReadCalibration(const std::string& name, const std::string& what, const Fits::Dims& dims,
                            const std::function<void(const Fits::Handle&)>& read) {
    std::string path;
    std::string other_axes;
    const auto refusal = [&](const std::exception& error) {
        std::string reason = error.what();
        if (reason.starts_with(", ")) reason.erase(0, 2);  // the first of ReadImg's reasons
        if (reason.find(path) == std::string::npos) reason = path + ": " + reason;
        return fmt::format("ERR: Unable to load {} FITS file: {}{}", what, reason, other_axes);
    };
    try {
        path = FileSystem::FindFileOrThrow(name, {});
        const Fits::Handle file = Fits::FitsFile(path);
        LogInfo("Reading {} FITS file {}", what, path);
        for (const std::string& doubt : Fits::FindDoubts(file))
            LogWarn("{} FITS file {}: {}", what, path, doubt);
        other_axes = TextOfOtherAxes(file, dims);
        read(file);
        return path;
    } catch (const std::invalid_argument& error) {
        LogAndThrow<std::invalid_argument>(refusal(error));
    } catch (const std::exception& error) {
        LogAndThrow(refusal(error));
    }
}

void RequireFinite(std::span<const float> matrix) {
    if (!std::ranges::all_of(matrix, [](float value) { return std::isfinite(value); }))
        throw std::runtime_error("a value is not finite");
}

}  // namespace vosk::common
