#include <vosk/common/fits.hpp>
#include <vosk/image_processing/noiseRemoval.hpp>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

#include <vosk/test/onEachInstructionSet.hpp>
#include "plainCleaning.hpp"

namespace vosk::image_processing {
namespace {

using common::Fits;
using defs::AlignedFrame;
using test::TextOf;
using Table = AlignedFrame<std::uint32_t>;

constexpr std::uint16_t WIDTH = LisaGeometry::WIDTH;
constexpr std::uint16_t HEIGHT = LisaGeometry::HEIGHT;
constexpr std::size_t SIZE = std::size_t{WIDTH} * HEIGHT;
constexpr std::size_t RAW_SIZE = LisaGeometry::SCRAMBLED_WIDTH * LisaGeometry::SCRAMBLED_HEIGHT;

template <class Removal = LisaNoiseRemoval>
std::unique_ptr<Removal> Make(const AlignedFrame<float>& bias, const AlignedFrame<float>& flat,
                              const Table& table) {
    const test::TempDir dir;
    const std::string path = dir / "table.fits";
    Fits::WriteImg<std::uint32_t>(Fits::FitsFileWrite(path, true), table, {table.size()});
    return std::make_unique<Removal>(bias, flat, path);
}

Table TableOf(const std::function<std::size_t(std::size_t)>& entry) {
    Table table(SIZE);
    for (std::size_t i = 0; i < SIZE; ++i) table[i] = static_cast<std::uint32_t>(entry(i));
    return table;
}

std::size_t InRows(std::size_t i) {
    return i / WIDTH * LisaGeometry::SCRAMBLED_WIDTH + i % WIDTH + 60;
}

// The whole of cleaning as it is told, pixel by pixel.
class PlainLisa {
public:
    PlainLisa(const AlignedFrame<float>& bias, const AlignedFrame<float>& flat, const Table& table)
        : frame(SIZE), m_bias{bias}, m_flat{flat}, m_table{table} {}

    void RemoveNoise(const AlignedFrame<std::uint16_t>& raw, const Roi& roi) {
        for (std::size_t row = roi.y_start; row < roi.y_stop; ++row) {
            const double dynamic = DynamicBias(raw, row / 4);
            for (std::size_t i = row * WIDTH + roi.x_start; i < row * WIDTH + roi.x_stop; ++i) {
                frame[i] = PlainPixel(raw[m_table[i]], m_bias[i], dynamic, m_flat[i]);
            }
        }
    }

    AlignedFrame<float> frame;

private:
    double DynamicBias(const AlignedFrame<std::uint16_t>& raw, std::size_t group) const {
        double sum = 0.0;
        std::size_t count = 0;
        for (std::size_t row = group * 4; row < group * 4 + 4; ++row) {
            for (const std::size_t offset : {0U, 820U}) {
                for (std::size_t i = row * WIDTH + offset; i < row * WIDTH + offset + 20; ++i, ++count) {
                    sum += static_cast<double>(raw[m_table[i]]);
                    sum -= static_cast<double>(m_bias[i]);
                }
            }
        }
        return sum / static_cast<double>(count);
    }

    const AlignedFrame<float>& m_bias;
    const AlignedFrame<float>& m_flat;
    const Table& m_table;
};

Roi At(unsigned x_start, unsigned x_stop, unsigned y_start, unsigned y_stop) {
    const auto cut = [](unsigned value) { return static_cast<std::uint16_t>(value); };
    return {cut(x_start), cut(x_stop), cut(y_start), cut(y_stop), WIDTH, HEIGHT, 0.0, 0.0};
}

using test::OnEachInstructionSet;
using LisaCleaning = OnEachInstructionSet;
INSTANTIATE_TEST_SUITE_P(Targets, LisaCleaning, OnEachInstructionSet::All(), OnEachInstructionSet::Name);

TEST_P(LisaCleaning, GivesTheBitsOfThePlainLoopForEveryTableAndRoi) {
    Values values{21};
    auto& random = values.Random();
    std::vector<std::uint32_t> positions(RAW_SIZE);
    std::iota(positions.begin(), positions.end(), 0U);
    std::shuffle(positions.begin(), positions.end(), random);
    const std::vector<std::pair<std::string, Table>> tables{
        {"neighbours", TableOf(InRows)},
        {"mirrored",
         TableOf([](std::size_t i) { return InRows(i / WIDTH * WIDTH + WIDTH - 1 - i % WIDTH); })},
        {"8 taps side by side", TableOf([](std::size_t i) { return InRows(i - i % 105) + i % 105; })},
        // Up to the very end of the raw frame, every second one from the right.
        {"8 taps by turns", TableOf([](std::size_t i) {
             const std::size_t tap = i % WIDTH / 105;
             const std::size_t step = tap % 2 == 0 ? i % 105 : 104 - i % 105;
             return i / WIDTH * 960 + 120 + step * 8 + tap;
         })},
        {"short and long runs",
         TableOf([](std::size_t i) { return i + (i / 23 % 2 == 0 ? i % 23 / 9 * 50 : 7); })},
        {"random", TableOf([&](std::size_t i) { return positions[i]; })}};
    const std::array rois{At(0, WIDTH, 0, HEIGHT), At(0, 24, 0, 24),      At(816, 840, 792, 816),
                          At(0, 1, 5, 30),         At(839, 840, 0, 816),  At(100, 205, 5, 6),
                          At(99, 122, 813, 816),   At(15, 22, 3, 9),      At(400, 408, 7, 400),
                          At(101, 110, 4, 8),      At(50, 50, 10, 30),    At(3, 700, 20, 20),
                          At(0, 840, 815, 816),    At(300, 331, 100, 131)};
    AlignedFrame<float> bias(SIZE);
    AlignedFrame<float> flat(SIZE);
    AlignedFrame<std::uint16_t> raw(RAW_SIZE);
    std::generate(raw.begin(), raw.end(), [&] { return values.Raw(); });
    for (const std::uint32_t rarity : {16U, 0U}) {
        Values calibration{22, rarity};
        std::generate(flat.begin(), flat.end(), [&] { return calibration.Flat(); });
        // Special values in the columns without light would spoil all pixels: in some groups only.
        for (std::size_t i = 0; i < SIZE; ++i) {
            const bool is_dark = i % WIDTH < 20 || i % WIDTH >= 820;
            const bool is_odd = i / WIDTH / 4 % 8 == 3;
            bias[i] = is_dark && !is_odd ? calibration.Real(-200.0F, 200.0F) : calibration.Bias();
        }
        for (const auto& [name, table] : tables) {
            const auto removal = Make(bias, flat, table);
            PlainLisa plain{bias, flat, table};
            for (const Roi& roi : rois) {
                for (std::uint16_t& count : raw) count = static_cast<std::uint16_t>(count * 3 + 1);
                removal->InvalidateCache();
                removal->RemoveNoise(raw, {}, roi);
                plain.RemoveNoise(raw, roi);
                ASSERT_TRUE(SameBits(removal->GetFrame(), plain.frame))
                    << name << ", x " << roi.x_start << ".." << roi.x_stop << ", y " << roi.y_start;
            }
        }
    }
}

// A flat of one and no bias: a cleaned pixel is its count less the dynamic bias, which is the count in the
// columns without light.
class LisaBias : public testing::Test {
protected:
    LisaBias() { SetDark(0); }

    // The count of the columns without light in all rows of a group.
    void SetDark(std::uint16_t count) {
        for (std::size_t i = 0; i < SIZE; ++i) {
            if (i % WIDTH < 20 || i % WIDTH >= 820) m_raw[InRows(i)] = count;
        }
    }
    void SetDarkOfGroup(std::size_t group, std::uint16_t count) {
        for (std::size_t i = group * 4 * WIDTH; i < (group + 1) * 4 * WIDTH; ++i) {
            if (i % WIDTH < 20 || i % WIDTH >= 820) m_raw[InRows(i)] = count;
        }
    }
    float Cleaned(const Roi& roi, std::size_t row) {
        m_removal->RemoveNoise(m_raw, {}, roi);
        return m_removal->GetFrame()[row * WIDTH + 100];
    }

    AlignedFrame<std::uint16_t> m_raw = AlignedFrame<std::uint16_t>(RAW_SIZE, 1000);
    std::unique_ptr<LisaNoiseRemoval> m_removal =
        Make(AlignedFrame<float>(SIZE, 0.0F), AlignedFrame<float>(SIZE, 1.0F), TableOf(InRows));
};

TEST_F(LisaBias, BelongsToTheGroupOfTheRow) {
    for (std::size_t group = 0; group < HEIGHT / 4; ++group) {
        SetDarkOfGroup(group, static_cast<std::uint16_t>(group));
    }
    m_removal->RemoveNoise(m_raw, Window{0, 0, 1, 1}, At(100, 101, 5, 10));  // the window counts for MARANA
    const auto& frame = m_removal->GetFrame();
    const auto at = [&](std::size_t row) { return frame[row * WIDTH + 100]; };
    EXPECT_EQ(at(4), 0.0F);
    EXPECT_EQ(at(5), 999.0F);
    EXPECT_EQ(at(7), 999.0F);
    EXPECT_EQ(at(8), 998.0F);
    EXPECT_EQ(at(9), 998.0F);
    EXPECT_EQ(at(10), 0.0F);
    EXPECT_EQ(Cleaned(At(100, 101, 815, 816), 815), 1000.0F - 203.0F);
    EXPECT_EQ(Cleaned(At(100, 101, 3, 4), 3), 1000.0F);
}

class CountedLisa : public LisaNoiseRemoval {
public:
    using LisaNoiseRemoval::LisaNoiseRemoval;
    mutable std::vector<std::size_t> measured;  // groups, in order

protected:
    double MeasureDynamicBias(const std::uint16_t* raw, std::size_t group) const override {
        measured.push_back(group);
        return LisaNoiseRemoval::MeasureDynamicBias(raw, group);
    }
};

TEST_F(LisaBias, IsMeasuredOnceAFrameHoweverManyRoisTouchTheGroup) {
    // Of group 10 the sums of counts and biases cannot be taken apart, as the biases are too small for it.
    AlignedFrame<float> bias(SIZE, 1.0F);
    for (std::ptrdiff_t row = 40; row < 44; ++row) std::fill_n(bias.begin() + row * WIDTH, WIDTH, 1e-20F);
    const auto lisa = Make<CountedLisa>(bias, AlignedFrame<float>(SIZE, 1.0F), TableOf(InRows));
    using Groups = std::vector<std::size_t>;
    const auto measured = [&](const std::vector<Roi>& rois) {
        lisa->measured.clear();
        for (const Roi& roi : rois) lisa->RemoveNoise(m_raw, {}, roi);
        return lisa->measured;
    };
    const std::vector<Roi> rois{At(90, 110, 41, 42), At(95, 120, 40, 46), At(0, 840, 45, 48)};
    EXPECT_EQ(measured(rois), (Groups{10, 11}));
    EXPECT_EQ(measured(rois), Groups{});
    EXPECT_EQ(measured({At(1, 2, 47, 49)}), Groups{12});
    lisa->InvalidateCache();
    EXPECT_EQ(measured(rois), (Groups{10, 11}));
    EXPECT_EQ(measured({At(5, 5, 60, 70), At(5, 9, 70, 70)}), Groups{});
}

// Biases whose sum depends on the order in which they and the counts are taken, seen in a pixel of neither.
TEST_F(LisaBias, TakesEachCountAndThenItsBiasWhereTheOrderMatters) {
    struct Case {
        float first;   // bias of the group's first dark pixel, whose count is 0
        float second;  // and of the next; all other counts are 1000
        float others;
        double sum;
    };
    const std::array cases{Case{0x1p-40F, 1000.0F, 1000.0F, -0x1p-40},  // lost in a sum of the biases alone
                           Case{0x1p-60F, 1000.0F, 1000.0F, 0.0},       // stays if differences are summed
                           Case{1e20F, -1e20F, 0.0F, 158'000.0}};       // swallows the count in between
    AlignedFrame<float> bias(SIZE);
    SetDark(1000);
    for (std::size_t group = 0; group < cases.size(); ++group) {
        const std::size_t first = group * 4 * WIDTH;
        std::fill_n(bias.begin() + static_cast<std::ptrdiff_t>(first), 4 * WIDTH, cases[group].others);
        bias[first] = cases[group].first;
        bias[first + 1] = cases[group].second;
        m_raw[InRows(first)] = 0;
        bias[first + 100] = 0.0F;
        m_raw[InRows(first + 100)] = 0;
    }
    m_removal = Make(bias, AlignedFrame<float>(SIZE, 1.0F), TableOf(InRows));
    for (std::size_t group = 0; group < cases.size(); ++group) {
        EXPECT_EQ(Cleaned(At(100, 101, 0, HEIGHT), group * 4), static_cast<float>(-cases[group].sum / 160.0))
            << group;
    }
}

TEST_F(LisaBias, OfTheFrameBeforeAppliesUntilANewFrameIsTold) {
    SetDark(10);
    EXPECT_EQ(Cleaned(At(0, WIDTH, 0, HEIGHT), 500), 990.0F);
    SetDark(500);
    EXPECT_EQ(Cleaned(At(0, WIDTH, 0, HEIGHT), 500), 990.0F);
    m_removal->InvalidateCache();
    EXPECT_EQ(Cleaned(At(0, WIDTH, 0, HEIGHT), 500), 500.0F);
}

TEST_F(LisaBias, RefusesOtherFramesAndRoisAndLeavesTheOutputAlone) {
    const test::LogCapture log;
    const auto failure = [&](gsl::span<const std::uint16_t> raw, const Roi& roi) {
        return TextOf<std::invalid_argument>([&] {
            m_removal->RemoveNoise(raw, {}, roi);
            return 0;
        });
    };
    const std::string size = "RemoveNoise: unexpected frame size: 685440, expected: 783360";
    EXPECT_EQ(failure({m_raw.data(), SIZE}, At(0, 24, 0, 24)), size);
    EXPECT_EQ(failure({m_raw.data(), SIZE}, At(0, 24, 5, 5)), size);
    EXPECT_TRUE(log.Has(log4cplus::ERROR_LOG_LEVEL, size));
    EXPECT_EQ(failure(m_raw, Roi{800, 841, 0, 24, 2048, 2048, 0, 0}),
              "RemoveNoise: ROI (800..841),(0..24) does not fit a frame of 840 x 816");
    EXPECT_EQ(failure(m_raw, Roi{0, 24, 800, 817, 2048, 2048, 0, 0}),
              "RemoveNoise: ROI (0..24),(800..817) does not fit a frame of 840 x 816");
    EXPECT_THAT(m_removal->GetFrame(), testing::Each(0.0F));
}

}  // namespace
}  // namespace vosk::image_processing
