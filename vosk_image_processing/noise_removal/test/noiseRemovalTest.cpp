// What all three cameras refuse, that none allocates, and how they are made from a configuration.

#include <vosk/image_processing/noiseRemovalFactory.hpp>
#include <vosk/test/allocationCount.hpp>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/node.hpp>

#include <cstdlib>
#include <filesystem>

#include "cleaningBench.hpp"

namespace vosk::image_processing {
namespace {

using common::Fits;
using defs::AlignedFrame;
using test::NodeOf;
using test::TextOf;
using testing::AllOf;
using testing::Each;
using testing::HasSubstr;

constexpr std::size_t LISA_SIZE = LisaGeometry::WIDTH * LisaGeometry::HEIGHT;
constexpr std::size_t LISA_RAW_SIZE = 783360;
constexpr std::size_t ALICE_SIZE = 57600;
constexpr std::size_t MARANA_SIZE = 4194304;

struct Camera {
    std::unique_ptr<NoiseRemovalBase> removal;
    std::size_t raw_size;
};

std::vector<Camera> Cameras() {
    const AlignedFrame<float> middle(LISA_SIZE, 1.0F);
    LisaTable table(LISA_SIZE);
    for (std::uint32_t i = 0; i < table.size(); ++i) table[i] = i % 100 < 50 ? i : 7 * (i % 1000);
    std::vector<Camera> cameras;
    const AlignedFrame<float> small(ALICE_SIZE, 1.0F);
    const AlignedFrame<float> large(MARANA_SIZE, 1.0F);
    cameras.push_back({MakeLisa(middle, middle, table), LISA_RAW_SIZE});
    cameras.push_back({std::make_unique<AliceNoiseRemoval>(small, small), ALICE_SIZE});
    cameras.push_back({std::make_unique<MaranaNoiseRemoval>(large, large), MARANA_SIZE});
    return cameras;
}

// The call fails with the text, which also stands in the log.
template <class Error>
void ExpectRefused(const std::function<void()>& call, const std::string& text) {
    const test::LogCapture log;
    EXPECT_EQ(TextOf<Error>(call), text);
    EXPECT_EQ(log.Count(log4cplus::ERROR_LOG_LEVEL, text), 1);
}

TEST(NoiseRemoval, RefusesOtherFramesRoisAndWindowsAndLeavesTheOutputAlone) {
    const auto cameras = Cameras();
    const std::vector<std::uint16_t> raw(MARANA_SIZE);
    const auto expect = [&](std::size_t camera, std::size_t size, const std::optional<Window>& window,
                            const std::optional<Roi>& roi, const std::string& text) {
        NoiseRemovalBase& removal = *cameras[camera].removal;
        ExpectRefused<std::invalid_argument>(
            [&] {
                removal.RemoveNoise({raw.data(), size}, window, roi);
            },
            "RemoveNoise: " + text);
        EXPECT_THAT(removal.GetFrame(), Each(0.0F));
    };
    expect(0, LISA_SIZE, {}, At(0, 24, 0, 24), "unexpected frame size: 685440, expected: 783360");
    expect(0, LISA_SIZE, {}, At(0, 24, 5, 5), "unexpected frame size: 685440, expected: 783360");
    expect(1, ALICE_SIZE - 1, {}, At(0, 24, 5, 5), "unexpected frame size: 57599, expected: 57600");
    const std::string misfit = " does not fit a frame of ";
    expect(0, LISA_RAW_SIZE, {}, At(800, 841, 0, 24), "ROI (800..841),(0..24)" + misfit + "840 x 816");
    expect(0, LISA_RAW_SIZE, {}, At(0, 24, 800, 817), "ROI (0..24),(800..817)" + misfit + "840 x 816");
    expect(1, ALICE_SIZE, {}, At(230, 241, 0, 9), "ROI (230..241),(0..9)" + misfit + "240 x 240");
    const std::string large = " does not fit in a frame of 4194304 pixels";
    const Window window{0, 0, 2049, 2048};
    expect(2, MARANA_SIZE, window, {}, "window of 2049 x 2048" + large);
    expect(2, MARANA_SIZE, Window{0, 0, 65535, 65535}, At(0, 1, 0, 1), "window of 65535 x 65535" + large);
    EXPECT_NO_THROW(cameras[2].removal->RemoveNoise(raw, window, At(0, 9, 5, 5)));
    const AlignedFrame<float> right(ALICE_SIZE);
    const AlignedFrame<float> wrong(ALICE_SIZE - 1);
    const std::string size = " vector size: 57599, expected: 57600";
    ExpectRefused<std::invalid_argument>([&] { AliceNoiseRemoval(wrong, wrong); },
                                         "NoiseRemovalBase: unexpected master bias" + size);
    ExpectRefused<std::invalid_argument>([&] { AliceNoiseRemoval(right, wrong); },
                                         "NoiseRemovalBase: unexpected flat" + size);
}

TEST(NoiseRemoval, KnowsTheInstructionSetBeforeItsFirstFrame) {
    hwy::GetChosenTarget().DeInit();
    const AlignedFrame<float> zeroes(ALICE_SIZE);
    const AliceNoiseRemoval removal{zeroes, zeroes};
    EXPECT_TRUE(hwy::GetChosenTarget().IsInitialized());
}

TEST(NoiseRemoval, AllocatesNothingWhileItCleans) {
    for (const Camera& camera : Cameras()) {
        const AlignedFrame<std::uint16_t> raw(camera.raw_size, 7);
        NoiseRemovalBase& removal = *camera.removal;
        const float* const pixels = removal.GetFrame().data();
        const std::size_t before = test::AllocationsOfThisThread();
        for (int frame = 0; frame < 3; ++frame) {
            removal.InvalidateCache();
            removal.RemoveNoise(raw, {}, At(10, 34, 5, 29));
            removal.RemoveNoise(raw, Window{0, 0, 20, 20}, {});
        }
        EXPECT_EQ(test::AllocationsOfThisThread(), before);
        EXPECT_EQ(removal.GetFrame().data(), pixels);
    }
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
    const auto expect = [](NoiseRemovalBase& removal) {
        const std::vector<std::uint16_t> raw(removal.GetFrame().size(), 10);
        removal.RemoveNoise(raw, {}, {});
        EXPECT_THAT(removal.GetFrame(), Each(3.5F));
    };
    expect(*factory::CreateMaranaNoiseRemoval(WriteBoth(2048, 2048), "nr"));
    const auto node = WriteBoth(240, 240);
    const auto create = [&] { return factory::CreateAliceNoiseRemoval(node, "nr"); };
    expect(*create());
    Write(m_flat, 120, 480, 1.0F);
    EXPECT_THAT(TextOf(create),
                AllOf(HasSubstr(m_flat), HasSubstr("load flat FITS"), HasSubstr("NAXIS1 = 240")));
    std::filesystem::remove(m_dark);
    EXPECT_THAT(TextOf(create),
                AllOf(HasSubstr(m_dark), HasSubstr("load dark FITS"), HasSubstr("not found")));
}

TEST_F(NoiseRemovalFactory, FindsTheTableOfLisaAtItsOnePlace) {
    const auto node = WriteBoth(LisaGeometry::WIDTH, LisaGeometry::HEIGHT);
    const auto create = [&] { return factory::CreateLisaNoiseRemoval(node, "nr"); };
    EXPECT_THAT(TextOf(create), HasSubstr("data/scrambling/lisa_descrambling_vector.fits not found"));
    // The last count for all pixels that see light, the first for those that don't.
    const auto is_dark = [](std::size_t i) { return i % 840 < 20 || i % 840 >= 820; };
    std::vector<std::uint32_t> table(LISA_SIZE);
    for (std::size_t i = 0; i < table.size(); ++i) table[i] = is_dark(i) ? 0 : LISA_RAW_SIZE - 1;
    Fits::WriteImg<std::uint32_t>(Fits::FitsFileWrite(m_dir / LisaGeometry::TABLE, true), table,
                                  {table.size()});
    ::setenv("CFGPATH", m_dir.Path().c_str(), 1);  // NOLINT(concurrency-mt-unsafe): one thread
    const auto removal = create();
    ::unsetenv("CFGPATH");  // NOLINT(concurrency-mt-unsafe): one thread
    std::vector<std::uint16_t> raw(LISA_RAW_SIZE, 0);
    raw.front() = 4;
    raw.back() = 15;
    removal->RemoveNoise(raw, {}, {});
    for (std::size_t i = 0; i < LISA_SIZE; ++i) {
        ASSERT_EQ(removal->GetFrame()[i], is_dark(i) ? 0.0F : ((15.0F - 3.0F) - (4.0F - 3.0F)) / 2.0F) << i;
    }
}

TEST_F(NoiseRemovalFactory, SaysWhatIsWrongWithTheConfiguration) {
    const auto refuses = [](const auto& create, const std::string& section, const std::string& text) {
        ExpectRefused<std::runtime_error>([&] { create(NodeOf("t: " + section)["t"], "nr"); }, text);
    };
    for (const char* section : {"{other: 1}", "{nr: text}", "{nr: [dark_path]}", "text"}) {
        refuses(factory::CreateLisaNoiseRemoval, section, "CreateLisaNoiseRemoval could not create \"nr\"");
    }
    refuses(factory::CreateAliceNoiseRemoval, "{nr: {dark_path: a}}",
            "CreateAliceNoiseRemoval: node misconfigured");
    refuses(factory::CreateMaranaNoiseRemoval, "{nr: {flat_path: a}}",
            "CreateMaranaNoiseRemoval: node misconfigured");
}

}  // namespace
}  // namespace vosk::image_processing
