#pragma once

// From raw camera counts to a cleaned frame: each pixel is
//
//     (raw - master bias - dynamic bias) / flat
//
// in double precision and in that order, then stored as float; what a flat of zero gives is what IEEE
// division gives. Only LISA has a dynamic bias, and pixels to be unscrambled.
//
// Each worker of a camera's pipeline owns one object and thereby its own cleaned frame, and cleans on demand,
// ROI by ROI: a pixel keeps its value until it is cleaned again. One thread at a time; nothing here locks,
// and nothing allocates after the construction.

#include <vosk/defs/alignedFrame.hpp>
#include <vosk/image_processing/roi.hpp>
#include <vosk/image_processing/scrambling.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <gsl/span>
#include <optional>
#include <span>
#include <string>
#include <utility>

namespace vosk::image_processing {

class RowCleaning;

class NoiseRemovalBase {
public:
    // Calibration data in the order of the cleaned frame. std::invalid_argument unless both have width *
    // height elements.
    NoiseRemovalBase(std::size_t width, std::size_t height, const defs::AlignedFrame<float>& master_bias,
                     const defs::AlignedFrame<float>& flat);

    // Calibration data from FITS files: float images of width x height. The errors of LoadInto.
    NoiseRemovalBase(std::size_t width, std::size_t height, const std::string& dark_path,
                     const std::string& flat_path);

    virtual ~NoiseRemovalBase() = default;

    // Cleans the ROI, or without one the whole frame. `frame` is a raw frame of the camera, all of it;
    // `window` is what a MARANA camera has read out. std::invalid_argument, before the first pixel, on a
    // frame of another size, a ROI that reaches out of the cleaned frame, or a window of more pixels than a
    // raw frame holds. A ROI without pixels is nothing to do, wherever it lies.
    virtual void RemoveNoise(gsl::span<const std::uint16_t> frame, const std::optional<Window>& window,
                             const std::optional<Roi>& roi) = 0;

    // The same for many ROIs, small ones at less cost. If one of them is refused, others may be cleaned or
    // not.
    virtual void RemoveNoiseOfMany(gsl::span<const std::uint16_t> frame, const std::optional<Window>& window,
                                   std::span<const Roi> rois) {
        for (const Roi& roi : rois) RemoveNoise(frame, window, roi);
    }

    // The cleaned frame, row by row: zero where it was never cleaned. Writable for those who repair pixels.
    virtual const defs::AlignedFrame<float>& GetFrame() const = 0;
    virtual defs::AlignedFrame<float>& GetFrame() = 0;

    // A new frame begins: what was derived from the one before no longer counts.
    virtual void InvalidateCache() {}

protected:
    // Polymorphic, and owner of a frame: not copied.
    NoiseRemovalBase(const NoiseRemovalBase&) = delete;
    NoiseRemovalBase& operator=(const NoiseRemovalBase&) = delete;

    // Set in the constructors, constant afterwards.
    defs::AlignedFrame<float> m_master_bias;
    defs::AlignedFrame<float> m_flat;
    bool m_is_ordinary;  // both hold nothing but what a real camera's do, which is cleaned faster
};

// LISA: a scrambled raw frame of 960 x 816, cleaned 840 x 816. Its outermost columns see no light; the mean
// of what they hold above the master bias, over groups of 4 rows, is the dynamic bias of those rows.
class LisaNoiseRemoval : public NoiseRemovalBase, private LisaDescrambler<std::uint16_t, float> {
public:
    // Without a scramble path LisaGeometry::TABLE; the errors of LisaDescrambler too.
    LisaNoiseRemoval(const defs::AlignedFrame<float>& master_bias, const defs::AlignedFrame<float>& flat,
                     const std::optional<std::string>& scramble_path);
    LisaNoiseRemoval(const std::string& dark_path, const std::string& flat_path,
                     const std::optional<std::string>& scramble_path);

    void RemoveNoise(gsl::span<const std::uint16_t> frame, const std::optional<Window>& window,
                     const std::optional<Roi>& roi) override;
    void RemoveNoiseOfMany(gsl::span<const std::uint16_t> frame, const std::optional<Window>& window,
                           std::span<const Roi> rois) override;
    const defs::AlignedFrame<float>& GetFrame() const override { return m_frame; }
    defs::AlignedFrame<float>& GetFrame() override { return m_frame; }
    // To be called for each new frame, before its first ROI; without it the dynamic biases of the frame
    // before apply.
    void InvalidateCache() override { ++m_generation; }

private:
    static constexpr std::size_t GROUP_ROWS = 4;
    static constexpr std::size_t GROUPS = LisaGeometry::HEIGHT / GROUP_ROWS;
    static_assert(GROUPS * GROUP_ROWS == LisaGeometry::HEIGHT);
    // The columns that see no light: first column and number of columns.
    static constexpr std::array<std::pair<std::size_t, std::size_t>, 2> BIAS_REGIONS{{{0, 20}, {820, 20}}};
    static constexpr std::size_t DARK_PIXELS = [] {  // of a group
        std::size_t columns = 0;
        for (const auto& region : BIAS_REGIONS) columns += region.second;
        return columns * GROUP_ROWS;
    }();

    struct CachedBias {
        std::uint64_t generation{0};  // of the frame that the bias was taken from, 0 for none
        double bias{0.0};
    };

    void AddRange(const std::uint16_t* raw, const PixelRange& range, RowCleaning& cleaning);
    // The dynamic bias of a group of rows, measured once a frame.
    double ComputeDynamicBias(const std::uint16_t* raw, std::size_t group);
    // The mean of a group's columns without light.
    double MeasureDynamicBias(const std::uint16_t* raw, std::size_t group) const;
    std::uint32_t SumDarkCounts(const std::uint16_t* raw, std::size_t group) const;
    void FindDarkSums();
    template <class Visit>
    static void ForEachDarkPixel(std::size_t group, Visit&& visit);

    std::array<CachedBias, GROUPS> m_bias_cache{};  // by group
    std::uint64_t m_generation{1};
    // By group, the master bias summed over the columns without light, where no order of summation rounds
    // differently. Set in the constructors, constant afterwards.
    std::array<std::optional<double>, GROUPS> m_dark_sums{};
};

// ALICE: 240 x 240, raw and cleaned.
class AliceNoiseRemoval : public NoiseRemovalBase {
public:
    static constexpr std::size_t WIDTH = 240;
    static constexpr std::size_t HEIGHT = 240;

    AliceNoiseRemoval(const defs::AlignedFrame<float>& master_bias, const defs::AlignedFrame<float>& flat);
    AliceNoiseRemoval(const std::string& dark_path, const std::string& flat_path);

    void RemoveNoise(gsl::span<const std::uint16_t> frame, const std::optional<Window>& window,
                     const std::optional<Roi>& roi) override;
    const defs::AlignedFrame<float>& GetFrame() const override { return m_frame; }
    defs::AlignedFrame<float>& GetFrame() override { return m_frame; }

private:
    defs::AlignedFrame<float> m_frame;
};

// MARANA: 2048 x 2048. A raw frame always has that many elements, but of a sensor that was read out in part
// it holds the window's rows at its start, without gaps. What lies outside the window is cleaned to 0.
class MaranaNoiseRemoval : public NoiseRemovalBase {
public:
    static constexpr std::size_t WIDTH = 2048;
    static constexpr std::size_t HEIGHT = 2048;

    MaranaNoiseRemoval(const defs::AlignedFrame<float>& master_bias, const defs::AlignedFrame<float>& flat);
    MaranaNoiseRemoval(const std::string& dark_path, const std::string& flat_path);

    void RemoveNoise(gsl::span<const std::uint16_t> frame, const std::optional<Window>& window,
                     const std::optional<Roi>& roi) override;
    const defs::AlignedFrame<float>& GetFrame() const override { return m_frame; }
    defs::AlignedFrame<float>& GetFrame() override { return m_frame; }

private:
    defs::AlignedFrame<float> m_frame;
};

}  // namespace vosk::image_processing
