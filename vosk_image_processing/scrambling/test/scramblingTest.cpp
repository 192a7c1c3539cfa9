#include <vosk/common/fits.hpp>
#include <vosk/image_processing/scrambling.hpp>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

namespace {

using namespace vosk::image_processing;
using testing::ElementsAre;
using vosk::common::Fits;
using vosk::test::TextOf;
using Table = vosk::defs::AlignedFrame<std::uint32_t>;
using Frame = std::vector<std::uint16_t>;

// 4 x 3 pixels from a raw buffer of 5 x 3.
const Table TABLE{14, 13, 12, 11, 0, 1, 2, 3, 7, 7, 0, 5};

TEST(Scrambler, RefusesATableOfAnotherSizeOrWithAPositionOutside) {
    const auto make = [](const Table& table) { return [=] { ScramblerBase(4, 3, 5, 3, table); }; };
    EXPECT_NO_THROW(make(TABLE)());
    EXPECT_NO_THROW((ScramblerBase{0, 2, 0, 0, Table{}}));
    EXPECT_THROW(make({0, 1})(), std::invalid_argument);
    EXPECT_EQ(TextOf<std::invalid_argument>(make({0, 0, 0, 15, 99, 0, 0, 0, 0, 0, 0, 0})),
              "ScramblerBase: idx: 15 out of range: 0..15");
}

TEST(Descrambler, PutsTheRoiAloneIntoTheFrameByATableFromAFile) {
    const vosk::test::TempDir dir;
    const std::string path = dir / "table.fits";
    const auto make = [&](const Table& table) {
        Fits::WriteImg<std::uint32_t>(Fits::FitsFileWrite(path, true), table, {table.size()});
        return Descrambler<std::uint16_t, float>{4, 3, 5, 3, path};
    };
    EXPECT_THAT(TextOf([&] { return make(Table(12, 15)); }),
                testing::HasSubstr("idx: 15 out of range: 0..15 for: " + path));
    auto descrambler = make(TABLE);
    Frame raw(15);
    std::iota(raw.begin(), raw.end(), std::uint16_t{100});
    EXPECT_THROW(descrambler.Descramble(Frame(12)), std::invalid_argument);
    EXPECT_THROW(descrambler.Descramble(raw, Roi{0, 4, 2, 4, 9, 9, 0, 0}), std::invalid_argument);
    EXPECT_THAT(descrambler.GetFrame(), testing::Each(0));
    for (const Roi& roi : {Roi{1, 3, 1, 3, 4, 3, 0, 0}, {1, 1, 1, 3, 4, 3, 0, 0}}) {
        descrambler.Descramble(raw, roi);
        EXPECT_THAT(descrambler.GetFrame(), ElementsAre(0, 0, 0, 0, 0, 101, 102, 0, 0, 107, 100, 0));
    }
    descrambler.Descramble(raw);
    EXPECT_THAT(descrambler.GetFrame(),
                ElementsAre(114, 113, 112, 111, 100, 101, 102, 103, 107, 107, 100, 105));
}

class Pieces : public ScramblerBase {
public:
    using ScramblerBase::ScramblerBase;
    std::vector<std::int32_t> Steps() const {
        std::vector<std::int32_t> steps;
        std::size_t hint = 0;
        ForEachPiece(0, 0, m_width, hint, [&](const Piece& piece) { steps.push_back(piece.step); });
        return steps;
    }
};

TEST(Scrambler, TakesSixteenPixelsInEqualStepsForARun) {
    constexpr std::uint32_t RAW_SIZE = 1000;
    const auto steps = [](std::uint32_t length, std::uint32_t first, std::int32_t step) {
        Table table{70};  // before the run, then behind it
        for (std::uint32_t i = 0; i < length; ++i)
            table.push_back(first + i * static_cast<std::uint32_t>(step));
        table.insert(table.end(), {90, 20});
        return Pieces{table.size(), 1, RAW_SIZE, 1, table}.Steps();
    };
    for (const std::int32_t step : {1, 8, -8}) {
        EXPECT_THAT(steps(15, 500, step), ElementsAre(0)) << step;
        EXPECT_THAT(steps(16, 500, step), ElementsAre(0, step, 0)) << step;
    }
    for (const std::int32_t step : {-1, 0, 2}) EXPECT_THAT(steps(16, 500, step), ElementsAre(0)) << step;
    EXPECT_THAT(steps(16, RAW_SIZE - 16, 1), ElementsAre(0, 1, 0));
    // Eight values from the last one on are the last of the raw buffer.
    EXPECT_THAT(steps(16, RAW_SIZE - 128, 8), ElementsAre(0, 8, 0));
    EXPECT_THAT(steps(16, RAW_SIZE - 127, 8), ElementsAre(0));
    EXPECT_THAT(steps(16, RAW_SIZE - 8, -8), ElementsAre(0, -8, 0));
    EXPECT_THAT(steps(16, RAW_SIZE - 7, -8), ElementsAre(0));
}

}  // namespace
