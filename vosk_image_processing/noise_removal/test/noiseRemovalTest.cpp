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
    const auto ones = [](std::size_t size) { return AlignedFrame<float>(size, 1.0F); };
    LisaTable table(LISA_SIZE);
    for (std::uint32_t i = 0; i < table.size(); ++i) table[i] = i % 100 < 50 ? i : 7 * (i % 1000);
    std::vector<Camera> cameras;
    cameras.push_back({MakeLisa(ones(LISA_SIZE), ones(LISA_SIZE), table), LISA_RAW_SIZE});
    cameras.push_back({std::make_unique<AliceNoiseRemoval>(ones(ALICE_SIZE), ones(ALICE_SIZE)), ALICE_SIZE});
    cameras.push_back(
        {std::make_unique<MaranaNoiseRemoval>(ones(MARANA_SIZE), ones(MARANA_SIZE)), MARANA_SIZE});
    return cameras;
}

TEST(NoiseRemoval, RefusesOtherFramesRoisAndWindowsAndLeavesTheOutputAlone) {
    struct Case {
        std::size_t camera;
        std::size_t raw_size;
        std::optional<Window> window;
        std::optional<Roi> roi;
        std::string text;
    };
    const Roi empty{0, 24, 5, 5, 240, 240, 0, 0};
    const Window too_large{0, 0, 2049, 2048};
    const std::string window = "RemoveNoise: window of 2049 x 2048 does not fit in a frame of 4194304 pixels";
    const std::string size = "RemoveNoise: unexpected frame size: ";
    const auto cameras = Cameras();
    const std::vector<std::uint16_t> raw(MARANA_SIZE);
    for (const Case& at : std::vector<Case>{
             {0, LISA_SIZE, {}, Roi{0, 24, 0, 24, 240, 240, 0, 0}, size + "685440, expected: 783360"},
             {0, LISA_SIZE, {}, empty, size + "685440, expected: 783360"},
             {0,
              LISA_RAW_SIZE,
              {},
              Roi{800, 841, 0, 24, 2048, 2048, 0, 0},
              "RemoveNoise: ROI (800..841),(0..24) does not fit a frame of 840 x 816"},
             {0,
              LISA_RAW_SIZE,
              {},
              Roi{0, 24, 800, 817, 2048, 2048, 0, 0},
              "RemoveNoise: ROI (0..24),(800..817) does not fit a frame of 840 x 816"},
             {1, 57599, {}, empty, size + "57599, expected: 57600"},
             {1,
              ALICE_SIZE,
              {},
              Roi{230, 241, 0, 9, 840, 816, 0, 0},
              "RemoveNoise: ROI (230..241),(0..9) does not fit a frame of 240 x 240"},
             {2, MARANA_SIZE, too_large, {}, window},
             {2, MARANA_SIZE, Window{0, 0, 65535, 65535}, Roi{0, 1, 0, 1, 240, 240, 0, 0},
              "RemoveNoise: window of 65535 x 65535 does not fit in a frame of 4194304 pixels"},
             {2, MARANA_SIZE, too_large, empty, "no exception"}}) {
        const test::LogCapture log;
        NoiseRemovalBase& removal = *cameras[at.camera].removal;
        EXPECT_EQ(TextOf<std::invalid_argument>([&] {
                      removal.RemoveNoise({raw.data(), at.raw_size}, at.window, at.roi);
                      return 0;
                  }),
                  at.text);
        EXPECT_EQ(log.Count(log4cplus::ERROR_LOG_LEVEL, at.text), at.text == "no exception" ? 0 : 1);
        EXPECT_THAT(removal.GetFrame(), Each(0.0F));
    }
}

TEST(NoiseRemoval, ChecksTheMasterBiasBeforeTheFlat) {
    const AlignedFrame<float> right(ALICE_SIZE);
    const AlignedFrame<float> wrong(ALICE_SIZE - 1);
    const auto failure = [](const auto& bias, const auto& flat) {
        return TextOf<std::invalid_argument>([&] { return AliceNoiseRemoval{bias, flat}.GetFrame().size(); });
    };
    EXPECT_EQ(failure(wrong, wrong),
              "NoiseRemovalBase: unexpected master bias vector size: 57599, expected: 57600");
    EXPECT_EQ(failure(right, wrong), "NoiseRemovalBase: unexpected flat vector size: 57599, expected: 57600");
}

TEST(NoiseRemoval, KnowsTheInstructionSetBeforeItsFirstFrame) {
    hwy::GetChosenTarget().DeInit();
    const AlignedFrame<float> zeroes(ALICE_SIZE);
    const AliceNoiseRemoval removal{zeroes, zeroes};
    EXPECT_TRUE(hwy::GetChosenTarget().IsInitialized());
}

bool IsAligned(const void* pixels) {
    return reinterpret_cast<std::uintptr_t>(pixels) % 32 == 0;
}

TEST(NoiseRemoval, AllocatesNothingWhileItCleans) {
    for (const Camera& camera : Cameras()) {
        const AlignedFrame<std::uint16_t> raw(camera.raw_size, 7);
        NoiseRemovalBase& removal = *camera.removal;
        const float* const pixels = removal.GetFrame().data();
        EXPECT_TRUE(IsAligned(pixels));
        const std::size_t before = test::AllocationsOfThisThread();
        ASSERT_GT(before, 0U);
        for (int frame = 0; frame < 3; ++frame) {
            removal.InvalidateCache();
            removal.RemoveNoise(raw, {}, Roi{10, 34, 5, 29, 240, 240, 0.0, 0.0});
            removal.RemoveNoise(raw, Window{0, 0, 20, 20}, {});
        }
        EXPECT_EQ(test::AllocationsOfThisThread(), before);
        EXPECT_EQ(removal.GetFrame().data(), pixels);
    }
}

TEST(AlignedFrame, StartsOn32BytesAlsoAfterItHasGrown) {
    std::vector<AlignedFrame<std::uint16_t>> frames;  // all at once, so that none gets the place of another
    for (std::size_t size = 1; size < 200; size += 3) {
        frames.emplace_back(size);
        frames.back().push_back(0);
        EXPECT_TRUE(IsAligned(frames.back().data())) << size;
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

TEST_F(NoiseRemovalFactory, TakesTheMasterBiasAndTheFlatFromTheirFiles) {
    const auto expect = [](NoiseRemovalBase& removal) {
        const std::vector<std::uint16_t> raw(removal.GetFrame().size(), 10);
        removal.RemoveNoise(raw, {}, {});
        EXPECT_THAT(removal.GetFrame(), Each(3.5F));
    };
    expect(*factory::CreateAliceNoiseRemoval(WriteBoth(240, 240), "nr"));
    expect(*factory::CreateMaranaNoiseRemoval(WriteBoth(2048, 2048), "nr"));
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
    const auto expect = [](const auto& create, const std::string& name) {
        const std::string unusable = name + " could not create \"nr\"";
        const std::string incomplete = name + ": node misconfigured";
        for (const auto& [text, error] :
             std::vector<std::pair<std::string, std::string>>{{"t: {other: 1}", unusable},
                                                              {"t: {nr: text}", unusable},
                                                              {"t: {nr: [dark_path, flat_path]}", unusable},
                                                              {"t: text", unusable},
                                                              {"", unusable},
                                                              {"t: {nr: {dark_path: a}}", incomplete},
                                                              {"t: {nr: {flat_path: a}}", incomplete}}) {
            const test::LogCapture log;
            const auto node = text.empty() ? oru::configng::PliConfigInstanceNode{} : NodeOf(text)["t"];
            EXPECT_EQ(TextOf<std::runtime_error>([&, &at = node] { return create(at, "nr"); }), error);
            EXPECT_EQ(log.Count(log4cplus::ERROR_LOG_LEVEL, error), 1);
        }
        EXPECT_THAT(TextOf([&] { return create(NodeOf("nr: {dark_path: [a], flat_path: b}"), "nr"); }),
                    HasSubstr("nr.dark_path"));
    };
    expect(factory::CreateLisaNoiseRemoval, "CreateLisaNoiseRemoval");
    expect(factory::CreateAliceNoiseRemoval, "CreateAliceNoiseRemoval");
    expect(factory::CreateMaranaNoiseRemoval, "CreateMaranaNoiseRemoval");
}

TEST_F(NoiseRemovalFactory, NamesTheFileThatIsRefused) {
    const auto node = WriteBoth(240, 240);
    const auto failure = [&] { return TextOf([&] { return factory::CreateAliceNoiseRemoval(node, "nr"); }); };
    Write(m_flat, 120, 480, 1.0F);
    EXPECT_THAT(failure(), AllOf(HasSubstr(m_flat), HasSubstr("load flat FITS"), HasSubstr("NAXIS1 = 240")));
    std::filesystem::remove(m_dark);
    EXPECT_THAT(failure(), AllOf(HasSubstr(m_dark), HasSubstr("load dark FITS"), HasSubstr("not found")));
}

}  // namespace
}  // namespace vosk::image_processing
