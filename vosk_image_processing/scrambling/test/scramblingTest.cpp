#include <vosk/common/fits.hpp>
#include <vosk/image_processing/scrambling.hpp>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

#include <filesystem>
#include <random>

namespace {

using namespace vosk::image_processing;
using testing::ElementsAre;
using testing::HasSubstr;
using vosk::common::Fits;
using vosk::test::LogCapture;
using vosk::test::TempDir;
using vosk::test::TextOf;
using Table = vosk::defs::AlignedFrame<std::uint32_t>;
namespace fs = std::filesystem;

constexpr auto ERROR_LEVEL = log4cplus::ERROR_LOG_LEVEL;

// 4 x 3 pixels from a raw buffer of 5 x 3.
ScramblerBase Make(const Table& table) {
    return {4, 3, 5, 3, table};
}

const Table TABLE{14, 13, 12, 11, 0, 1, 2, 3, 7, 7, 0, 5};

TEST(Scrambler, AcceptsEveryPositionOfTheRawBuffer) {
    EXPECT_NO_THROW(Make(TABLE));
    EXPECT_NO_THROW((ScramblerBase{0, 0, 5, 3, Table{}}));
    EXPECT_NO_THROW((ScramblerBase{0, 2, 0, 0, Table{}}));
}

TEST(Scrambler, RefusesATableOfAnotherSizeOrWithAPositionOutside) {
    const LogCapture log;
    const std::string size = "ScramblerBase: unexpected scramble vector size: 2, expected: 12";
    EXPECT_EQ(TextOf<std::invalid_argument>([] { return Make({0, 99}); }), size);
    EXPECT_TRUE(log.Has(ERROR_LEVEL, size));
    Table table = TABLE;
    table[3] = 15;
    table[4] = 99;
    const std::string entry = "ScramblerBase: idx: 15 out of range: 0..15";
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { return Make(table); }), entry);
    EXPECT_TRUE(log.Has(ERROR_LEVEL, entry));
}

class ScramblerFile : public testing::Test {
protected:
    template <class T>
    void Write(const std::vector<T>& data, const std::vector<std::size_t>& dims) const {
        Fits::WriteImg<T>(Fits::FitsFileWrite(m_path, true), data, dims);
    }

    std::string Failure() const {
        return TextOf([this] { return ScramblerBase{4, 3, 5, 3, m_path}; });
    }

    const TempDir m_dir;
    const std::string m_path = m_dir / "table.fits";
};

TEST_F(ScramblerFile, IsReadAndCheckedLikeATableInMemory) {
    Write<std::uint32_t>({TABLE.begin(), TABLE.end()}, {12});
    Descrambler<std::uint16_t, float> descrambler{4, 3, 5, 3, m_path};
    std::vector<std::uint16_t> raw(15);
    std::iota(raw.begin(), raw.end(), std::uint16_t{100});
    descrambler.Descramble(raw);
    EXPECT_THAT(descrambler.GetFrame(),
                ElementsAre(114, 113, 112, 111, 100, 101, 102, 103, 107, 107, 100, 105));

    Write<std::uint32_t>(std::vector<std::uint32_t>(12, 15), {12});
    EXPECT_EQ(Failure(), "ScramblerBase: idx: 15 out of range: 0..15 for: " + fs::absolute(m_path).string());
}

TEST_F(ScramblerFile, IsRefusedIfMissingOrOfAnotherTypeOrShapeOrCutShort) {
    EXPECT_THAT(Failure(), HasSubstr("descrambling table FITS file: FileSystem: "));
    Write<float>(std::vector<float>(12), {12});
    EXPECT_THAT(Failure(), HasSubstr("Fits: File has wrong image type, expected: 32 , acctual: -32"));
    Write<std::uint32_t>(std::vector<std::uint32_t>(12), {4, 3});
    EXPECT_THAT(Failure(), HasSubstr("(wanted: NAXIS1 = 12; found: NAXIS1 = 4, NAXIS2 = 3)"));
    Write<std::uint32_t>(std::vector<std::uint32_t>(12), {12});
    fs::resize_file(m_path, 2880 + 40);
    EXPECT_THAT(Failure(), HasSubstr("Fits: Could not open"));
    Write<long>(std::vector<long>(12, -1), {12});
    EXPECT_THAT(Failure(), HasSubstr("Fits: Error reading image"));
}

TEST(Descrambler, PutsTheRoiAloneIntoTheFrame) {
    Descrambler<std::uint16_t, std::uint16_t> descrambler{4, 3, 5, 3, TABLE};
    std::vector<std::uint16_t> raw(15);
    std::iota(raw.begin(), raw.end(), std::uint16_t{100});
    descrambler.Descramble(raw, Roi{1, 3, 1, 3, 4, 3, 0.0, 0.0});
    EXPECT_THAT(descrambler.GetFrame(), ElementsAre(0, 0, 0, 0, 0, 101, 102, 0, 0, 107, 100, 0));
    descrambler.Descramble(raw, Roi{1, 1, 1, 3, 4, 3, 0.0, 0.0});
    descrambler.Descramble(raw, Roi{1, 3, 3, 3, 4, 3, 0.0, 0.0});
    EXPECT_THAT(descrambler.GetFrame(), ElementsAre(0, 0, 0, 0, 0, 101, 102, 0, 0, 107, 100, 0));
}

int Try(Descrambler<std::uint16_t, std::uint16_t>& descrambler, const std::vector<std::uint16_t>& raw,
        const std::optional<Roi>& roi) {
    descrambler.Descramble(raw, roi);
    return 0;
}

TEST(Descrambler, RefusesAnotherRawBufferOrARoiOfALargerFrame) {
    const LogCapture log;
    Descrambler<std::uint16_t, std::uint16_t> descrambler{4, 3, 5, 3, TABLE};
    const std::vector<std::uint16_t> image(12, 7);
    const std::string size = "Descramble: unexpected frame size: 12, expected: 15";
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { return Try(descrambler, image, {}); }), size);
    EXPECT_TRUE(log.Has(ERROR_LEVEL, size));
    const std::vector<std::uint16_t> raw(15, 7);
    const auto with_roi = [&](const Roi& roi) {
        return TextOf<std::invalid_argument>([&] { return Try(descrambler, raw, roi); });
    };
    EXPECT_EQ(with_roi({3, 5, 0, 1, 9, 9, 0, 0}),
              "Descramble: ROI (3..5),(0..1) does not fit a frame of 4 x 3");
    EXPECT_EQ(with_roi({0, 4, 2, 4, 9, 9, 0, 0}),
              "Descramble: ROI (0..4),(2..4) does not fit a frame of 4 x 3");
    EXPECT_THAT(descrambler.GetFrame(), testing::Each(0));
}

// What the derived classes see of the table.
class Pieces : public ScramblerBase {
public:
    using ScramblerBase::ScramblerBase;

    // Positions of a stretch, as its pieces give them, and the steps of the pieces.
    std::vector<std::uint32_t> Positions(std::size_t row, std::size_t x_start, std::size_t x_stop) {
        std::vector<std::uint32_t> positions;
        m_steps.clear();
        std::size_t x = x_start;
        ForEachPiece(row, x_start, x_stop, m_hint, [&](const Piece& piece) {
            m_steps.push_back(piece.step);
            EXPECT_EQ(piece.x_start, x);
            EXPECT_GT(piece.x_stop, piece.x_start);
            for (; x < piece.x_stop; ++x) {
                const auto offset = static_cast<std::uint32_t>(x - piece.x_start);
                positions.push_back(piece.step != 0
                                        ? piece.source + offset * static_cast<std::uint32_t>(piece.step)
                                        : m_scramble[row * m_width + x]);
            }
        });
        return positions;
    }

    std::size_t m_hint = 0;
    std::vector<std::int32_t> m_steps;
};

TEST(Scrambler, TakesTheTableApartIntoRunsAndTheRest) {
    constexpr std::size_t WIDTH = 100;
    constexpr std::size_t HEIGHT = 40;
    Table table(WIDTH * HEIGHT);
    std::mt19937 random{5};
    for (std::size_t i = 0; i < table.size();) {  // runs of 1 to 50, also across the ends of rows
        const std::size_t length = std::min<std::size_t>(1 + random() % 50, table.size() - i);
        auto position = static_cast<std::uint32_t>(400 + random() % (table.size() - 800));
        const auto step = static_cast<std::uint32_t>(std::array{1, 8, -8}[random() % 3]);
        for (const std::size_t end = i + length; i < end; ++i, position += step) table[i] = position;
    }
    Pieces pieces{WIDTH, HEIGHT, WIDTH, HEIGHT, table};
    for (int trial = 0; trial < 5000; ++trial) {
        const std::size_t row = random() % HEIGHT;
        const std::size_t x_start = random() % (WIDTH + 1);
        const std::size_t x_stop = x_start + random() % (WIDTH + 1 - x_start);
        const auto first = table.begin() + static_cast<std::ptrdiff_t>(row * WIDTH);
        const std::vector<std::uint32_t> expected(first + static_cast<std::ptrdiff_t>(x_start),
                                                  first + static_cast<std::ptrdiff_t>(x_stop));
        ASSERT_EQ(pieces.Positions(row, x_start, x_stop), expected) << row << ' ' << x_start << ' ' << x_stop;
    }
}

TEST(Scrambler, TakesSixteenPixelsInEqualStepsForARun) {
    using Steps = std::vector<std::int32_t>;
    struct Case {
        std::uint32_t length;
        std::uint32_t first;
        std::int32_t step;
        Steps pieces;
    };
    constexpr std::size_t RAW_SIZE = 1000;
    const Steps rest{0};
    const std::vector<Case> cases{{15, 500, 1, rest},
                                  {16, 500, 1, {0, 1, 0}},
                                  {16, 500, -1, rest},
                                  {16, 500, 2, rest},
                                  {16, 500, 0, rest},
                                  {15, 500, 8, rest},
                                  {16, 500, 8, {0, 8, 0}},
                                  {15, 500, -8, rest},
                                  {16, 500, -8, {0, -8, 0}},
                                  {16, RAW_SIZE - 16, 1, {0, 1, 0}},
                                  // Eight values from the last one on are the last of the raw buffer.
                                  {16, RAW_SIZE - 128, 8, {0, 8, 0}},
                                  {16, RAW_SIZE - 127, 8, rest},
                                  {16, RAW_SIZE - 8, -8, {0, -8, 0}},
                                  {16, RAW_SIZE - 7, -8, rest}};
    for (const Case& at : cases) {
        Table table{70};  // before the run, then behind it
        for (std::uint32_t i = 0; i < at.length; ++i)
            table.push_back(at.first + i * static_cast<std::uint32_t>(at.step));
        table.insert(table.end(), {90, 20});
        Pieces pieces{table.size(), 1, RAW_SIZE, 1, table};
        pieces.Positions(0, 0, table.size());
        EXPECT_EQ(pieces.m_steps, at.pieces) << at.length << " from " << at.first << " by " << at.step;
    }
}

}  // namespace
