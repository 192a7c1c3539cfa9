#include <vosk/common/fits.hpp>
#include <vosk/image_processing/noiseRemovalFactory.hpp>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/node.hpp>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

#include <cstdlib>
#include <filesystem>

namespace {

using namespace vosk::image_processing;
using testing::AllOf;
using testing::HasSubstr;
using vosk::common::Fits;
using vosk::test::NodeOf;
using vosk::test::TextOf;

template <class T>
void WriteImage(const std::string& path, std::size_t width, std::size_t height, T value) {
    const std::vector<T> data(width * height, value);
    Fits::WriteImg<T>(Fits::FitsFileWrite(path, true), data, {width, height});
}

class NoiseRemovalFactory : public testing::Test {
protected:
    NoiseRemovalFactory() {
        WriteImage<float>(m_dark, 240, 240, 3.0F);
        WriteImage<float>(m_flat, 240, 240, 2.0F);
    }

    auto Node() const { return NodeOf("nr: {dark_path: " + m_dark + ", flat_path: " + m_flat + "}"); }
    auto Create() const { return factory::CreateAliceNoiseRemoval(Node(), "nr"); }
    std::string Failure() const {
        return TextOf([this] { return Create(); });
    }

    const vosk::test::TempDir m_dir;
    const std::string m_dark = m_dir / "dark.fits";
    const std::string m_flat = m_dir / "flat.fits";
};

TEST_F(NoiseRemovalFactory, TakesTheMasterBiasAndTheFlatFromTheirFiles) {
    const auto expect = [](NoiseRemovalBase& removal) {
        const std::vector<std::uint16_t> raw(removal.GetFrame().size(), 10);
        removal.RemoveNoise(raw, {}, {});
        EXPECT_THAT(removal.GetFrame(), testing::Each(3.5F));
    };
    expect(*Create());
    WriteImage<float>(m_dark, 2048, 2048, 3.0F);
    WriteImage<float>(m_flat, 2048, 2048, 2.0F);
    expect(*factory::CreateMaranaNoiseRemoval(Node(), "nr"));
}

TEST_F(NoiseRemovalFactory, FindsTheTableOfLisaAtItsOnePlace) {
    WriteImage<float>(m_dark, LisaGeometry::WIDTH, LisaGeometry::HEIGHT, 3.0F);
    WriteImage<float>(m_flat, LisaGeometry::WIDTH, LisaGeometry::HEIGHT, 2.0F);
    const auto create = [&] { return factory::CreateLisaNoiseRemoval(Node(), "nr"); };
    EXPECT_THAT(TextOf(create), HasSubstr("data/scrambling/lisa_descrambling_vector.fits not found"));
    // The last count for all pixels that see light, the first for those that don't.
    std::vector<std::uint32_t> table(LisaGeometry::WIDTH * LisaGeometry::HEIGHT, 783359);
    const auto is_dark = [](std::size_t i) { return i % 840 < 20 || i % 840 >= 820; };
    for (std::size_t i = 0; i < table.size(); ++i) table[i] = is_dark(i) ? 0 : table[i];
    Fits::WriteImg<std::uint32_t>(Fits::FitsFileWrite(m_dir / LisaGeometry::TABLE, true), table,
                                  {table.size()});
    ::setenv("CFGPATH", m_dir.Path().c_str(), 1);  // NOLINT(concurrency-mt-unsafe): one thread
    const auto removal = create();
    ::unsetenv("CFGPATH");  // NOLINT(concurrency-mt-unsafe): one thread
    std::vector<std::uint16_t> raw(783360, 0);
    raw.front() = 4;
    raw.back() = 15;
    removal->RemoveNoise(raw, {}, {});
    const auto& frame = removal->GetFrame();
    for (std::size_t i = 0; i < frame.size(); ++i) {
        ASSERT_EQ(frame[i], is_dark(i) ? 0.0F : ((15.0F - 3.0F) - (4.0F - 3.0F)) / 2.0F) << i;
    }
}

TEST_F(NoiseRemovalFactory, SaysWhatIsWrongWithTheConfiguration) {
    const vosk::test::LogCapture log;
    const auto expect = [&](const auto& create, const std::string& name) {
        const std::string unusable = name + " could not create \"nr\"";
        const std::string incomplete = name + ": node misconfigured";
        const auto failure = [&](const auto& node) {
            return TextOf<std::runtime_error>([&] { return create(node, "nr"); });
        };
        EXPECT_EQ(failure(NodeOf("other: 1")), unusable);
        EXPECT_EQ(failure(NodeOf("nr: text")), unusable);
        EXPECT_EQ(failure(NodeOf("nr: [dark_path, flat_path]")), unusable);
        EXPECT_EQ(failure(NodeOf("top: text")["top"]), unusable);
        EXPECT_EQ(failure(oru::configng::PliConfigInstanceNode{}), unusable);
        EXPECT_EQ(failure(NodeOf("nr: {dark_path: a}")), incomplete);
        EXPECT_EQ(failure(NodeOf("nr: {flat_path: a}")), incomplete);
        EXPECT_TRUE(log.Has(log4cplus::ERROR_LOG_LEVEL, unusable));
        EXPECT_TRUE(log.Has(log4cplus::ERROR_LOG_LEVEL, incomplete));
        EXPECT_THAT(failure(NodeOf("nr: {dark_path: [a], flat_path: b}")), HasSubstr("nr.dark_path"));
    };
    expect(factory::CreateLisaNoiseRemoval, "CreateLisaNoiseRemoval");
    expect(factory::CreateAliceNoiseRemoval, "CreateAliceNoiseRemoval");
    expect(factory::CreateMaranaNoiseRemoval, "CreateMaranaNoiseRemoval");
}

TEST_F(NoiseRemovalFactory, NamesTheFileThatIsMissingOrOfAnotherTypeOrShapeOrCutShort) {
    for (const auto& [path, what] : {std::pair{m_dark, "load dark FITS"}, {m_flat, "load flat FITS"}}) {
        const auto expect_refusal = [this, &path, what](const std::string& reason) {
            EXPECT_THAT(Failure(), AllOf(HasSubstr(path), HasSubstr(what), HasSubstr(reason)));
        };
        std::filesystem::remove(path);
        expect_refusal("not found");
        WriteImage<double>(path, 240, 240, 1.0);
        expect_refusal("Fits: File has wrong image type, expected: -32 , acctual: -64");
        WriteImage<float>(path, 120, 480, 1.0F);
        expect_refusal("(wanted: NAXIS1 = 240, NAXIS2 = 240; found: NAXIS1 = 120, NAXIS2 = 480)");
        WriteImage<float>(path, 240, 240, 2.0F);
        std::filesystem::resize_file(path, 100'000);
        expect_refusal("Fits: Could not open");
        WriteImage<float>(path, 240, 240, 2.0F);
        EXPECT_NO_THROW(Create());
    }
}

}  // namespace
