#include <gtest/gtest.h>
#include <vosk/common/fits.hpp>
#include <vosk/image_processing/noiseRemoval.hpp>
#include <vosk/test/allocationCount.hpp>
#include <vosk/test/tempDir.hpp>

#include <memory>
#include <vector>

namespace {

using namespace vosk::image_processing;
using vosk::common::Fits;
using vosk::defs::AlignedFrame;

AlignedFrame<float> Ones(std::size_t size) {
    return AlignedFrame<float>(size, 1.0F);
}

void ExpectNoAllocation(NoiseRemovalBase& removal, std::size_t raw_size) {
    const AlignedFrame<std::uint16_t> raw(raw_size, 7);
    const float* const pixels = removal.GetFrame().data();
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(pixels) % 32, 0U);
    const std::size_t before = vosk::test::AllocationsOfThisThread();
    ASSERT_GT(before, 0U);
    for (int frame = 0; frame < 3; ++frame) {
        removal.InvalidateCache();
        removal.RemoveNoise(raw, {}, Roi{10, 34, 5, 29, 240, 240, 0.0, 0.0});
        removal.RemoveNoise(raw, Window{0, 0, 20, 20}, {});
    }
    EXPECT_EQ(vosk::test::AllocationsOfThisThread(), before);
    EXPECT_EQ(removal.GetFrame().data(), pixels);
}

template <class T>
void ExpectAlignment() {
    std::vector<AlignedFrame<T>> frames;  // all at once, so that none gets the place of another
    for (std::size_t size = 1; size < 200; size += 3) {
        frames.emplace_back(size);
        frames.back().push_back(T{});
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(frames.back().data()) % 32, 0U) << size;
    }
}

TEST(AlignedFrame, StartsOn32BytesAlsoAfterItHasGrown) {
    ExpectAlignment<std::uint16_t>();
    ExpectAlignment<std::uint32_t>();
    ExpectAlignment<float>();
}

TEST(NoiseRemoval, AllocatesNothingWhileItCleans) {
    const vosk::test::TempDir dir;
    std::vector<std::uint32_t> table(LisaGeometry::WIDTH * LisaGeometry::HEIGHT);
    for (std::uint32_t i = 0; i < table.size(); ++i) table[i] = i % 100 < 50 ? i : 7 * (i % 1000);
    const std::string path = dir / "table.fits";
    Fits::WriteImg<std::uint32_t>(Fits::FitsFileWrite(path, true), table, {table.size()});
    LisaNoiseRemoval lisa{Ones(table.size()), Ones(table.size()), path};
    ExpectNoAllocation(lisa, 783360);
    AliceNoiseRemoval alice{Ones(57600), Ones(57600)};
    ExpectNoAllocation(alice, 57600);
    const auto marana = std::make_unique<MaranaNoiseRemoval>(Ones(4194304), Ones(4194304));
    ExpectNoAllocation(*marana, 4194304);
}

}  // namespace
