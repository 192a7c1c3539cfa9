#include <vosk/image_processing/centroidingFactory.hpp>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/node.hpp>
#include <vosk/test/support.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace vosk::image_processing {
namespace {

// The document's instance `a` is what the factory gets.
std::unique_ptr<Centroiding<float>> FromNode(const std::string& text) {
    return factory::CreateCentroidingAlgorithm<float>(test::NodeOf(text)["a"], 20, 10);
}

std::unique_ptr<Centroiding<float>> FromKey(const std::string& text) {
    return factory::CreateCentroiding<float>(test::NodeOf(text)["a"], "centroiding_algorithm", 20, 10);
}

TEST(CentroidingFactory, MakesEachTypeWithItsDefaults) {
    const auto cog = FromNode("a: {type: cog}");
    ASSERT_NE(dynamic_cast<CentroidingCOG<float>*>(cog.get()), nullptr);
    EXPECT_EQ(cog->saturation, 10.0);
    EXPECT_EQ(cog->img_width, 20U);
    EXPECT_EQ(cog->img_height, 10U);

    const auto tsh = FromNode("a: {type: tsh, treshold: 2.5, saturation: 0}");
    ASSERT_NE(dynamic_cast<CentroidingTSH<float>*>(tsh.get()), nullptr);
    EXPECT_EQ(dynamic_cast<CentroidingTSH<float>&>(*tsh).treshold, 2.5F);
    EXPECT_EQ(tsh->saturation, 0.0);

    for (const auto& [text, weight_pixels] : std::vector<std::pair<std::string, bool>>{
             {"a: {type: nbr, nbrightest: 20}", true},
             {"a: {type: nbr, nbrightest: 20, weight_pixels: false}", false}}) {
        const auto nbr = FromNode(text);
        ASSERT_NE(dynamic_cast<CentroidingNBR<float>*>(nbr.get()), nullptr);
        EXPECT_EQ(dynamic_cast<CentroidingNBR<float>&>(*nbr).GetNBrightest(), 20U);
        EXPECT_EQ(dynamic_cast<CentroidingNBR<float>&>(*nbr).GetWeightPixels(), weight_pixels);
    }
}

TEST(CentroidingFactory, TakesCogWhereNoSectionIsAMap) {
    for (const char* text :
         {"a: {}", "a: 3", "a: {centroiding_algorithm: nbr}", "a: {centroiding_algorithm: [type, nbr]}"}) {
        test::LogCapture log;
        const auto centroiding = FromKey(text);
        EXPECT_NE(dynamic_cast<CentroidingCOG<float>*>(centroiding.get()), nullptr) << text;
        EXPECT_EQ(centroiding->saturation, 10.0) << text;
        EXPECT_TRUE(log.Has(log4cplus::DEBUG_LOG_LEVEL, "Using CentroidingCOG by default")) << text;
    }
    const auto section = FromKey("a: {centroiding_algorithm: {type: tsh, treshold: 1}}");
    EXPECT_NE(dynamic_cast<CentroidingTSH<float>*>(section.get()), nullptr);
}

TEST(CentroidingFactory, TellsWhatIsWrong) {
    struct Case {
        std::string text;
        std::string error;
    };
    for (const Case& bad : std::vector<Case>{
             {"a: 3", "CreateCentroidingAlgorithm node not a map"},
             {"a: {}", "CreateCentroidingAlgorithm node misconfigured"},
             {"a: {type: tsh}", "CreateCentroidingAlgorithm treshold missing"},
             {"a: {type: nbr}", "CreateCentroidingAlgorithm nbrightest missing"},
             {"a: {type: COG}", "CreateCentroidingAlgorithm could not create \"COG\""},
             {"a: {type: cog, saturation: -1}",
              "CreateCentroidingAlgorithm saturation must not be negative: -1"},
             {"a: {saturation: .nan}", "CreateCentroidingAlgorithm saturation must not be negative: nan"}}) {
        test::LogCapture log;
        EXPECT_EQ(test::TextOf<std::runtime_error>([&] { return FromNode(bad.text); }), bad.error);
        EXPECT_EQ(log.Count(log4cplus::ERROR_LOG_LEVEL, bad.error), 1);
    }
    EXPECT_THROW(FromNode("a: {type: nbr, nbrightest: 0}"), std::invalid_argument);
    EXPECT_THROW(FromNode("a: {type: nbr, nbrightest: -1}"), oru::configng::PliConfigValueError);
    EXPECT_THROW(FromNode("a: {type: cog, saturation: 1 px}"), oru::configng::PliConfigValueError);
}

}  // namespace
}  // namespace vosk::image_processing
