#include <fmt/format.h>
#include <vosk/image_processing/centroidingFactory.hpp>
#include <vosk/test/node.hpp>
#include <vosk/test/support.hpp>

namespace vosk::image_processing {
namespace {

std::unique_ptr<Centroiding<float>> FromKey(const std::string& instance) {
    return factory::CreateCentroiding<float>(test::NodeOf("a: " + instance)["a"], "c", 20, 10);
}

// The type and its own parameters, the frame and the saturation.
std::string Describe(const Centroiding<float>& made) {
    std::string type = "another";
    if (dynamic_cast<const CentroidingCOG<float>*>(&made) != nullptr) type = "cog";
    if (const auto* tsh = dynamic_cast<const CentroidingTSH<float>*>(&made)) {
        type = fmt::format("tsh {}", tsh->treshold);
    }
    if (const auto* nbr = dynamic_cast<const CentroidingNBR<float>*>(&made)) {
        type = fmt::format("nbr {} {}", nbr->GetNBrightest(), nbr->GetWeightPixels());
    }
    return fmt::format("{}, {} x {}, {}", type, made.img_width, made.img_height, made.saturation);
}

TEST(CentroidingFactory, MakesEachTypeWithItsDefaultsAndCogWithoutASection) {
    for (const auto& [keys, made] : std::vector<std::pair<std::string, std::string>>{
             {"type: cog, saturation: .inf", "cog, 20 x 10, inf"},
             {"type: tsh, treshold: -2.5", "tsh -2.5, 20 x 10, 10"},
             {"type: nbr, nbrightest: 30", "nbr 30 true, 20 x 10, 10"},
             {"type: nbr, nbrightest: 3, weight_pixels: false, saturation: 2", "nbr 3 false, 20 x 10, 2"}}) {
        EXPECT_EQ(Describe(*FromKey("{c: {" + keys + "}}")), made);
    }
    for (const char* text : {"{}", "3", "{c: nbr}"}) {
        EXPECT_EQ(Describe(*FromKey(text)), "cog, 20 x 10, 10") << text;
    }
}

TEST(CentroidingFactory, RefusesWhatItCannotMake) {
    for (const auto& [text, reason] : std::vector<std::pair<std::string, std::string>>{
             {"{}", "node misconfigured"},
             {"{type: tsh}", "treshold missing"},
             {"{type: tsh, treshold: .nan}", "treshold must be a number"},
             {"{type: nbr}", "nbrightest missing"},
             {"{type: COG}", "could not create \"COG\""},
             {"{type: cog, saturation: -1}", "saturation must not be negative: -1"}}) {
        EXPECT_EQ(test::TextOf<std::runtime_error>([&t = text] { return FromKey("{c: " + t + "}"); }),
                  "CreateCentroidingAlgorithm " + reason);
    }
}

TEST(EstimatorOptions, MakeEachEstimatorAndComeBackFromIt) {
    const auto made = [](std::size_t option) { return factory::MakeEstimator(option, 3.5F, 5, 20, 10, 2.0); };
    const std::pair<std::string, factory::EstimatorOptions> estimators[]{
        {"tsh 3.5", {0, 3.5F, 1}}, {"nbr 5 true", {5, 0.0F, 2}}, {"cog", {0, 0.0F, 3}}};
    for (const auto& [name, expected] : estimators) {
        const auto estimator = made(expected.option);
        EXPECT_EQ(Describe(*estimator), name + ", 20 x 10, 2");
        const auto options = factory::OptionsOf(*estimator);
        EXPECT_EQ(std::tie(options.nbrightest, options.threshold, options.option),
                  std::tie(expected.nbrightest, expected.threshold, expected.option));
    }
    EXPECT_EQ(made(0), nullptr);
    EXPECT_EQ(made(4), nullptr);
}

}  // namespace
}  // namespace vosk::image_processing
