#include <fmt/format.h>
#include <vosk/common/logger.hpp>
#include <vosk/image_processing/centroidingFactory.hpp>

#include <cmath>

namespace vosk::image_processing::factory {

using oru::configng::PliConfigInstanceNode;

namespace {

constexpr double DEFAULT_SATURATION = 10.0;

constexpr std::size_t TSH = 1;
constexpr std::size_t NBR = 2;
constexpr std::size_t COG = 3;

double ReadSaturation(const PliConfigInstanceNode& node) {
    if (!node.Has("saturation")) return DEFAULT_SATURATION;
    const auto saturation = node["saturation"].As<double>();
    if (saturation >= 0.0) return saturation;
    common::LogAndThrow(
        fmt::format("CreateCentroidingAlgorithm saturation must not be negative: {}", saturation));
}

float ReadTreshold(const PliConfigInstanceNode& node) {
    if (!node.Has("treshold")) common::LogAndThrow("CreateCentroidingAlgorithm treshold missing");
    const auto treshold = node["treshold"].As<float>();
    if (!std::isnan(treshold)) return treshold;
    common::LogAndThrow("CreateCentroidingAlgorithm treshold must be a number");
}

}  // namespace

template <class T>
std::unique_ptr<Centroiding<T>> CreateCentroiding(const PliConfigInstanceNode& node, const std::string& key,
                                                  std::size_t img_width, std::size_t img_height) {
    if (node.IsMap() && node.Has(key) && node[key].IsMap()) {
        return CreateCentroidingAlgorithm<T>(node[key], img_width, img_height);
    }
    common::LogDebug("Using CentroidingCOG by default");
    return std::make_unique<CentroidingCOG<T>>(img_width, img_height, DEFAULT_SATURATION);
}

template <class T>
std::unique_ptr<Centroiding<T>> CreateCentroidingAlgorithm(const PliConfigInstanceNode& node,
                                                           std::size_t img_width, std::size_t img_height) {
    if (!node.IsMap()) common::LogAndThrow("CreateCentroidingAlgorithm node not a map");
    const double saturation = ReadSaturation(node);
    if (!node.Has("type")) common::LogAndThrow("CreateCentroidingAlgorithm node misconfigured");
    const auto type = node["type"].As<std::string>();
    if (type == "cog") return std::make_unique<CentroidingCOG<T>>(img_width, img_height, saturation);
    if (type == "tsh") {
        return std::make_unique<CentroidingTSH<T>>(img_width, img_height, saturation, ReadTreshold(node));
    }
    if (type == "nbr") {
        if (!node.Has("nbrightest")) common::LogAndThrow("CreateCentroidingAlgorithm nbrightest missing");
        const bool weight_pixels = !node.Has("weight_pixels") || node["weight_pixels"].As<bool>();
        auto centroiding = std::make_unique<CentroidingNBR<T>>(img_width, img_height, saturation);
        centroiding->SetNBrightest(node["nbrightest"].As<unsigned long>(), weight_pixels);
        return centroiding;
    }
    common::LogAndThrow(fmt::format("CreateCentroidingAlgorithm could not create \"{}\"", type));
}

std::unique_ptr<Centroiding<float>> MakeEstimator(std::size_t option, float threshold, std::size_t nbrightest,
                                                  std::size_t img_width, std::size_t img_height,
                                                  double saturation) {
    switch (option) {
        case TSH:
            return std::make_unique<CentroidingTSH<float>>(img_width, img_height, saturation, threshold);
        case NBR: {
            auto estimator = std::make_unique<CentroidingNBR<float>>(img_width, img_height, saturation);
            estimator->SetNBrightest(nbrightest, true);
            return estimator;
        }
        case COG:
            return std::make_unique<CentroidingCOG<float>>(img_width, img_height, saturation);
        default:
            return nullptr;
    }
}

EstimatorOptions OptionsOf(const Centroiding<float>& estimator) {
    if (const auto* tsh = dynamic_cast<const CentroidingTSH<float>*>(&estimator)) {
        return {0, tsh->treshold, TSH};
    }
    if (const auto* nbr = dynamic_cast<const CentroidingNBR<float>*>(&estimator)) {
        return {nbr->GetNBrightest(), 0.0F, NBR};
    }
    return {0, 0.0F, COG};
}

template std::unique_ptr<Centroiding<float>> CreateCentroiding<float>(const PliConfigInstanceNode&,
                                                                      const std::string&, std::size_t,
                                                                      std::size_t);
template std::unique_ptr<Centroiding<float>> CreateCentroidingAlgorithm<float>(const PliConfigInstanceNode&,
                                                                               std::size_t, std::size_t);

}  // namespace vosk::image_processing::factory
