#include <lumolib/wfsConfiguration.hpp>

#include <lumolib/utilities.hpp>
#include <vosk/common/calibrationFile.hpp>
#include <vosk/common/fileSystem.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/defs/sizes.hpp>
#include <vosk/image_processing/scrambling.hpp>

#include <array>
#include <cstdint>
#include <string>

namespace vosk::lumo {

namespace {

using common::Fits;
using image_processing::LisaGeometry;
using oru::configng::Attempt;
using oru::configng::PliConfigInstanceNode;

struct ImageFile {
    const char* key;
    std::string path{};
    std::vector<std::size_t> axes{};  // NAXIS1 first

    bool IsUsable() const { return axes.size() == 2; }
    std::size_t Rows() const { return axes[1]; }
};

void Find(const PliConfigInstanceNode& node, ImageFile& image) {
    const auto name = GetParam<std::string>(node, image.key);
    Attempt(node[image.key], [&] { image.path = common::FileSystem::FindFileOrThrow(name, {}); });
}

void ReadAxes(const PliConfigInstanceNode& node, ImageFile& image) {
    if (image.path.empty()) return;
    Attempt(node[image.key], [&] { image.axes = Fits::ReadImgParams(Fits::FitsFile(image.path)).first; });
}

void RequirePlane(const PliConfigInstanceNode& node, const ImageFile& image) {
    if (image.IsUsable()) return;
    Refuse(
        node, image.key,
        fmt::format("Unexpecded dimensions for {}, expected: 2D, got: {}D", image.path, image.axes.size()));
}

// The values of an image as load(path) gives them; none under a review.
template <class Load>
auto Read(const PliConfigInstanceNode& node, const ImageFile& image, const Load& load) {
    decltype(load(image.path)) values;
    if (!image.IsUsable()) return values;
    Attempt(node[image.key], [&] { values = load(image.path); });
    return values;
}

}  // namespace

std::optional<WfsConfiguration> ReadWfsConfiguration(const PliConfigInstanceNode& node) {
    ImageFile control{"control_matrix_path"};
    ImageFile references{"reference_points_path"};
    ImageFile rois{"rois_path"};
    for (ImageFile* image : {&control, &references, &rois}) Find(node, *image);
    const std::array images{&rois, &references, &control};
    for (const ImageFile* image : images) common::LogDebug("Reading {}", image->path);
    for (ImageFile* image : images) ReadAxes(node, *image);
    for (const ImageFile* image : images) RequirePlane(node, *image);
    if (!rois.IsUsable()) return std::nullopt;

    const std::size_t count = rois.Rows();
    if (references.IsUsable() && references.Rows() != count) {
        Refuse(node, references.key,
               fmt::format("Unexpecded Y (rows) dimension for {}, expected: {}, got: {}", references.path,
                           count, references.Rows()));
    }
    if (control.IsUsable() && control.axes[0] != 2 * count) {
        Refuse(node, control.key,
               fmt::format("Unexpecded X (columns) dimension for {}, expected: {}, got: {}", control.path,
                           2 * count, control.axes[0]));
    }
    const auto edges = Read(node, rois, [&](const std::string& path) {
        return common::LoadMatrix<std::uint16_t, std::uint32_t, long>(path, 4, count, "ROI");
    });
    const auto points = Read(node, references, [&](const std::string& path) {
        return common::LoadFiniteMatrix<double>(path, 2, count, "reference point");
    });
    WfsConfiguration configuration;
    configuration.control_matrix = Read(node, control, [&](const std::string& path) {
        return common::LoadFiniteMatrix<double>(path, 2 * count, defs::GPAO_CMD_SIZE, "control matrix");
    });
    if (edges.size() != 4 * count || points.size() != 2 * count) return std::nullopt;
    Attempt(node[rois.key], [&] {
        for (std::size_t i = 0; i < count; ++i) {
            configuration.rois.emplace_back(edges[4 * i], edges[4 * i + 1], edges[4 * i + 2],
                                            edges[4 * i + 3], LisaGeometry::WIDTH, LisaGeometry::HEIGHT,
                                            points[2 * i], points[2 * i + 1]);
        }
    });
    if (configuration.rois.size() != count) return std::nullopt;
    return configuration;
}

}  // namespace vosk::lumo
