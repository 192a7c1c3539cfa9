// Cleaning raw frames: against the plain loop that defines the result, and against moving the same bytes
// without computing anything.

#include "frames.hpp"

#include <vosk/reference/cleaning.hpp>

#include <algorithm>

namespace vosk::bench {

using namespace image_processing;
using defs::AlignedFrame;

namespace {

void Compare(const std::string& what, std::size_t pixels, const std::function<void()>& ours,
             const std::function<void()>& plain, const std::function<void()>& streaming,
             std::vector<Row>& rows) {
    constexpr std::size_t PIXELS = 70'000'000;
    const auto ns = NsAPixel({ours, plain, streaming}, std::max<std::size_t>(20, PIXELS / pixels), pixels);
    rows.push_back({what, "the plain loop", "ns/pixel", ns[0], ns[1]});
    rows.push_back({what, "moving the same bytes", "ns/pixel", ns[0], ns[2]});
}

void BenchLisa(const LisaFrame& frame, std::vector<Row>& rows) {
    const auto removal = frame.MakeRemoval();
    reference::LisaCleaning plain{frame.bias, frame.flat, frame.table};
    AlignedFrame<std::uint32_t> moved(frame.table.size());
    const CleaningStream stream = frame.Stream(moved);
    const auto compare = [&](const std::string& what, const std::vector<Roi>& rois) {
        Compare(
            "clean LISA " + what + ", " + frame.name, PixelsOf(rois),
            [&] {
                removal->InvalidateCache();
                for (const Roi& roi : rois) removal->RemoveNoise(frame.raw, {}, roi);
            },
            [&] {
                plain.NewFrame(frame.raw);
                for (const Roi& roi : rois) plain.Clean(roi);
            },
            [&] { StreamCleaning(stream, rois); }, rows);
    };
    compare("frame", {WholeFrame(Geometry::WIDTH, Geometry::HEIGHT)});
    compare("1024 ROIs of 24 x 24", Regions(24));
}

template <class Removal>
void BenchInOrder(const std::string& what, std::vector<Row>& rows) {
    constexpr std::size_t SIZE = Removal::WIDTH * Removal::HEIGHT;
    const auto bias = RandomFrame(1, SIZE, 90.0F, 110.0F);
    const auto flat = RandomFrame(2, SIZE, 0.8F, 1.2F);
    AlignedFrame<std::uint16_t> raw(SIZE);
    for (std::size_t i = 0; i < SIZE; ++i) raw[i] = static_cast<std::uint16_t>(i * 40'503);
    Removal removal{bias, flat};
    AlignedFrame<float> out(SIZE);
    AlignedFrame<std::uint32_t> moved(SIZE);
    const std::vector<Roi> whole{WholeFrame(Removal::WIDTH, Removal::HEIGHT)};
    const CleaningStream stream{raw.data(), Removal::WIDTH, bias.data(), flat.data(),
                                nullptr,    Removal::WIDTH, moved.data()};
    Compare(
        "clean " + what + " frame", SIZE, [&] { removal.RemoveNoise(raw, {}, {}); },
        [&] {
            for (std::size_t i = 0; i < SIZE; ++i) {
                out[i] = reference::CleanedPixel(raw[i], bias[i], 0.0, flat[i]);
            }
        },
        [&] { StreamCleaning(stream, whole); }, rows);
}

}  // namespace

std::vector<Row> BenchFrameCleaning() {
    std::vector<Row> rows;
    for (const auto& readout : {NeighbourReadout(), TapReadout(), RandomReadout()}) {
        BenchLisa(LisaFrame{readout}, rows);
    }
    BenchInOrder<AliceNoiseRemoval>("ALICE", rows);
    BenchInOrder<MaranaNoiseRemoval>("MARANA", rows);
    return rows;
}

}  // namespace vosk::bench
