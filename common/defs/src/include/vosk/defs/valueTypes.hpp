#pragma once

// Small values in host byte order that threads hand to one another and to shared memory.
// The layouts that peers outside the process see are pinned here; the wire has records of its own.

#include <vosk/defs/sizes.hpp>

#include <atomclk/atomClk.hpp>

#include <boost/container/static_vector.hpp>

#include <cstddef>
#include <cstdint>
#include <span>

namespace vosk::defs {

using time_point = atomclk::AtomClk::time_point;  // a count of 0 means that no time is given

// Tip and tilt, in the unit of the stream that carries them.
struct FloatVectorTT {
    float tip{};
    float tilt{};

    // The pair as the blocks take it, in place.
    std::span<const float, TIP_TILT_SIZE> AsSpan() const noexcept {
        return std::span<const float, TIP_TILT_SIZE>{reinterpret_cast<const float*>(this), TIP_TILT_SIZE};
    }
    std::span<float, TIP_TILT_SIZE> AsSpan() noexcept {
        return std::span<float, TIP_TILT_SIZE>{reinterpret_cast<float*>(this), TIP_TILT_SIZE};
    }

    friend bool operator==(const FloatVectorTT&, const FloatVectorTT&) = default;
};

static_assert(sizeof(FloatVectorTT) == 8 && offsetof(FloatVectorTT, tilt) == sizeof(float));

// What a centroiding method finds in one region.
struct Slope {
    double flux{};
    double x{};
    double y{};

    friend bool operator==(const Slope&, const Slope&) = default;
};

static_assert(sizeof(Slope) == 24);

// Room for the slopes of any wavefront sensor; copies only those that are there, and never allocates.
using SlopeVector = boost::container::static_vector<Slope, MAX_SLOPES>;

// One sample of a stream that a resampler carries.
template <class T>
struct SampleData {
    time_point timestamp{};
    sample_id_t sample_id{};
    T data{};
};

// The centroid error of one frame.
struct CentroidError {
    time_point timestamp{};
    sample_id_t sample_id{};
    Slope slope{};
};

static_assert(sizeof(CentroidError) == 40 && offsetof(CentroidError, slope) == 16);

// The slopes of one frame of a wavefront sensor.
struct WfsTopic {
    time_point timestamp{};
    sample_id_t sample_id{};
    SlopeVector slopes{};
};

// The slots and behind them their count.
static_assert(sizeof(SlopeVector) == MAX_SLOPES * sizeof(Slope) + sizeof(std::uint64_t));
static_assert(sizeof(WfsTopic) == 26160);

// What field stabilisation learns of each AO cycle.
struct FsRef {
    FloatVectorTT fs_ref{};  // the field-stabilisation reference of the wavefront command
    FloatVectorTT tt_ref{};  // the tip/tilt reference
    FloatVectorTT m4_tt{};   // the tip/tilt that M4 applied

    friend bool operator==(const FsRef&, const FsRef&) = default;
};

static_assert(sizeof(FsRef) == 24);

}  // namespace vosk::defs

namespace vosk::lumo {

// One sample of the MS output stream.
struct MsOutputSample {
    defs::time_point timestamp{};
    defs::sample_id_t sample_id{};
    defs::FloatVectorTT tt{};

    // What a resampler may compute on.
    std::span<float, defs::TIP_TILT_SIZE> Values() noexcept { return tt.AsSpan(); }
};

}  // namespace vosk::lumo

namespace vosk::pfs {

enum class GPID : std::uint32_t { GP1, GP2, GP3 };

inline constexpr std::size_t GP_COUNT = 3;  // guide probes

}  // namespace vosk::pfs
