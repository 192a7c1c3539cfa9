#include <fmt/format.h>
#include <vosk/image_processing/centroidingFactory.hpp>
#include <vosk/test/node.hpp>
#include <vosk/test/support.hpp>

namespace vosk::image_processing {
namespace {

std::unique_ptr<Centroiding<float>> FromKey(const std::string& instance) {
    return factory::CreateCentroiding<float>(test::NodeOf("a: " + instance)["a"], "c", 20, 10);
}

// Option (1 TSH, 2 NBR, 3 COG), threshold, number of brightest pixels and whether they are weighted; the
// frame and the saturation.
std::string Describe(const Centroiding<float>& made) {
    const auto options = factory::OptionsOf(made);
    const auto* nbr = dynamic_cast<const CentroidingNBR<float>*>(&made);
    return fmt::format("{} {} {} {}, {} x {}, {}", options.option, options.threshold, options.nbrightest,
                       nbr != nullptr && nbr->GetWeightPixels(), made.img_width, made.img_height,
                       made.saturation);
}

TEST(CentroidingFactory, MakesEachTypeWithItsDefaultsAndCogWithoutASection) {
    for (const auto& [keys, made] : std::vector<std::pair<std::string, std::string>>{
             {"type: cog, saturation: .inf", "3 0 0 false, 20 x 10, inf"},
             {"type: tsh, treshold: -2.5", "1 -2.5 0 false, 20 x 10, 10"},
             {"type: nbr, nbrightest: 30", "2 0 30 true, 20 x 10, 10"},
             {"type: nbr, nbrightest: 3, weight_pixels: false, saturation: 2", "2 0 3 false, 20 x 10, 2"}}) {
        EXPECT_EQ(Describe(*FromKey("{c: {" + keys + "}}")), made);
    }
    for (const char* text : {"{}", "3", "{c: nbr}"}) {
        EXPECT_EQ(Describe(*FromKey(text)), "3 0 0 false, 20 x 10, 10") << text;
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

TEST(EstimatorOptions, MakeEachEstimator) {
    const auto made = [](std::size_t option) { return factory::MakeEstimator(option, 3.5F, 5, 20, 10, 2.0); };
    EXPECT_EQ(Describe(*made(1)), "1 3.5 0 false, 20 x 10, 2");
    EXPECT_EQ(Describe(*made(2)), "2 0 5 true, 20 x 10, 2");
    EXPECT_EQ(Describe(*made(3)), "3 0 0 false, 20 x 10, 2");
    EXPECT_EQ(made(0), nullptr);
    EXPECT_EQ(made(4), nullptr);
}

}  // namespace
}  // namespace vosk::image_processing
