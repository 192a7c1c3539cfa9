#include "cameras/renderRow.hpp"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "src/cameras/renderRow.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace vosk::rig::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

// The pixels from `first` on, as far as they fill whole vectors; returns where it stopped.
template <class Floats>
std::size_t RenderVectors(Floats floats, const RowFields& fields, const RowLevels& levels, std::size_t first,
                          std::size_t count, std::uint16_t* counts) {
    const hn::Rebind<std::uint16_t, Floats> shorts;
    const auto background = hn::Set(floats, levels.background);
    const auto offset = hn::Set(floats, levels.offset);
    const auto gain = hn::Set(floats, levels.gain);
    const auto read_variance = hn::Set(floats, levels.read_variance);
    const auto most = hn::Set(floats, 65535.0F);
    std::size_t i = first;
    for (; i + hn::Lanes(floats) <= count; i += hn::Lanes(floats)) {
        const auto light = hn::Add(hn::LoadU(floats, fields.light + i), background);
        const auto mean = hn::Mul(light, hn::LoadU(floats, fields.sensitivity + i));
        const auto rms = hn::Sqrt(hn::Add(read_variance, hn::Mul(gain, mean)));
        const auto level = hn::Add(hn::Add(hn::LoadU(floats, fields.bias + i), offset), mean);
        const auto value = hn::Add(level, hn::Mul(rms, hn::LoadU(floats, fields.noise + i)));
        const auto clipped = hn::Min(hn::Max(value, hn::Zero(floats)), most);
        hn::StoreU(hn::DemoteTo(shorts, hn::NearestInt(clipped)), shorts, counts + i);
    }
    return i;
}

void Render(const RowFields& fields, const RowLevels& levels, std::size_t count, std::uint16_t* counts) {
    const std::size_t rest = RenderVectors(hn::ScalableTag<float>{}, fields, levels, 0, count, counts);
    RenderVectors(hn::CappedTag<float, 1>{}, fields, levels, rest, count, counts);
}

}  // namespace
}  // namespace vosk::rig::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace vosk::rig {

HWY_EXPORT(Render);

void RenderRow(const RowFields& fields, const RowLevels& levels, std::size_t count, std::uint16_t* counts) {
    HWY_DYNAMIC_DISPATCH(Render)(fields, levels, count, counts);
}

}  // namespace vosk::rig
#endif
