// What all three cameras refuse, and how they are made from a configuration.

#include <vosk/image_processing/noiseRemovalFactory.hpp>
#include <vosk/test/node.hpp>

#include <cstdlib>
#include <filesystem>

#include "cleaningBench.hpp"

namespace vosk::image_processing {
namespace {

using namespace testing;
using common::Fits;
using defs::AlignedFrame;
using test::NodeOf;
using test::TextOf;

constexpr std::size_t LISA_SIZE = LisaGeometry::WIDTH * LisaGeometry::HEIGHT;
constexpr std::size_t LISA_RAW_SIZE = 783360;
constexpr std::size_t ALICE_SIZE = 57600;
constexpr std::size_t MARANA_SIZE = 4194304;

TEST(NoiseRemoval, RefusesOtherFramesRoisAndWindowsAndLeavesTheOutputAlone) {
    const auto ones = [](std::size_t size) { return AlignedFrame<float>(size, 1.0F); };
    hwy::GetChosenTarget().DeInit();
    const auto lisa = MakeLisa(ones(LISA_SIZE), ones(LISA_SIZE), LisaTable(LISA_SIZE));
    AliceNoiseRemoval alice{ones(ALICE_SIZE), ones(ALICE_SIZE)};
    MaranaNoiseRemoval marana{ones(MARANA_SIZE), ones(MARANA_SIZE)};
    EXPECT_TRUE(hwy::GetChosenTarget().IsInitialized());  // before the first frame
    const std::vector<std::uint16_t> raw(MARANA_SIZE);
    const auto refuses = [&](NoiseRemovalBase& removal, std::size_t size, const std::optional<Roi>& roi,
                             const std::optional<Window>& window = {}) {
        EXPECT_THROW(removal.RemoveNoise({raw.data(), size}, window, roi), std::invalid_argument);
        EXPECT_THAT(removal.GetFrame(), Each(0.0F));
    };
    const Roi empty = At(0, 24, 5, 5);
    refuses(*lisa, LISA_SIZE, empty);
    refuses(alice, ALICE_SIZE - 1, empty);
    refuses(*lisa, LISA_RAW_SIZE, At(800, 841, 0, 24));
    refuses(*lisa, LISA_RAW_SIZE, At(0, 24, 800, 817));
    refuses(alice, ALICE_SIZE, At(230, 241, 0, 9));
    const Window too_large{0, 0, 2049, 2048};
    refuses(marana, MARANA_SIZE, {}, too_large);
    EXPECT_NO_THROW(marana.RemoveNoise(raw, too_large, empty));
    EXPECT_THROW(AliceNoiseRemoval(ones(ALICE_SIZE - 1), ones(ALICE_SIZE)), std::invalid_argument);
    EXPECT_THROW(AliceNoiseRemoval(ones(ALICE_SIZE), ones(ALICE_SIZE - 1)), std::invalid_argument);
}

class NoiseRemovalFactory : public testing::Test {
protected:
    static void Write(const std::string& path, std::size_t width, std::size_t height, float value) {
        const std::vector<float> data(width * height, value);
        Fits::WriteImg<float>(Fits::FitsFileWrite(path, true), data, {width, height});
    }
    oru::configng::PliConfigInstanceNode WriteBoth(std::size_t width, std::size_t height) const {
        Write(m_dark, width, height, 3.0F);
        Write(m_flat, width, height, 2.0F);
        return NodeOf("nr: {dark_path: " + m_dark + ", flat_path: " + m_flat + "}");
    }

    const test::TempDir m_dir;
    const std::string m_dark = m_dir / "dark.fits";
    const std::string m_flat = m_dir / "flat.fits";
};

TEST_F(NoiseRemovalFactory, TakesTheMasterBiasAndTheFlatFromTheirFilesAndNamesARefusedOne) {
    const auto node = WriteBoth(240, 240);
    const auto create = [&] { return factory::CreateAliceNoiseRemoval(node, "nr"); };
    const auto removal = create();
    removal->RemoveNoise(std::vector<std::uint16_t>(ALICE_SIZE, 10), {}, {});
    EXPECT_THAT(removal->GetFrame(), Each(3.5F));
    EXPECT_THAT(TextOf([&] { return factory::CreateMaranaNoiseRemoval(node, "nr"); }),
                AllOf(HasSubstr(m_dark), HasSubstr("NAXIS1 = 2048")));
    Write(m_flat, 120, 480, 1.0F);
    EXPECT_THAT(TextOf(create), AllOf(HasSubstr(m_flat), HasSubstr("NAXIS1 = 240")));
    std::filesystem::remove(m_dark);
    EXPECT_THAT(TextOf(create), AllOf(HasSubstr(m_dark), HasSubstr("not found")));
}

TEST_F(NoiseRemovalFactory, FindsTheTableOfLisaAtItsOnePlace) {
    const auto node = WriteBoth(LisaGeometry::WIDTH, LisaGeometry::HEIGHT);
    const auto create = [&] { return factory::CreateLisaNoiseRemoval(node, "nr"); };
    EXPECT_THAT(TextOf(create), HasSubstr("data/scrambling/lisa_descrambling_vector.fits not found"));
    const std::vector<std::uint32_t> table(LISA_SIZE, LISA_RAW_SIZE - 1);
    Fits::WriteImg<std::uint32_t>(Fits::FitsFileWrite(m_dir / LisaGeometry::TABLE, true), table,
                                  {table.size()});
    ::setenv("CFGPATH", m_dir.Path().c_str(), 1);  // NOLINT(concurrency-mt-unsafe): one thread
    EXPECT_NO_THROW(create());
    ::unsetenv("CFGPATH");  // NOLINT(concurrency-mt-unsafe): one thread
}

TEST(NoiseRemovalConfiguration, IsRefusedWithoutASectionOrAPath) {
    const auto text_of = [](const auto& create, const std::string& section) {
        return TextOf<std::runtime_error>([&] { return create(NodeOf("t: " + section)["t"], "nr"); });
    };
    for (const char* section : {"{other: 1}", "{nr: text}", "text"}) {
        EXPECT_EQ(text_of(factory::CreateLisaNoiseRemoval, section),
                  "CreateLisaNoiseRemoval could not create \"nr\"");
    }
    EXPECT_EQ(text_of(factory::CreateAliceNoiseRemoval, "{nr: {dark_path: a}}"),
              "CreateAliceNoiseRemoval: node misconfigured");
    EXPECT_EQ(text_of(factory::CreateMaranaNoiseRemoval, "{nr: {flat_path: a}}"),
              "CreateMaranaNoiseRemoval: node misconfigured");
}

}  // namespace
}  // namespace vosk::image_processing
