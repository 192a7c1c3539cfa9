#pragma once

// The last commands sent to the actuators, the last errors measured, and the cycle counts of field
// stabilisation. RuntimeMonitor holds the one object; worker threads write it, the host polls it. Unless it
// says otherwise, an operation takes the mutex for a few stores and is for any thread.

#include <vosk/defs/valueTypes.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>

namespace vosk::lumo {

using defs::time_point;

// The inputs of a field-stabilisation cycle, in the order of their counters.
enum class FsInputSource : std::size_t {
    IMG_GP1,
    IMG_GP2,
    IMG_GP3,
    IMG_PDS,
    WFS_GP1,
    WFS_GP2,
    WFS_GP3,
    WFS_PDS,
    PFS_INPUT,
    M5_INPUT,
    FS_REFERENCE,
};
inline constexpr std::size_t FS_INPUT_SOURCES = 11;
using FsInputFlags = std::array<bool, FS_INPUT_SOURCES>;  // by FsInputSource

// Commands, tip and tilt each.
struct PerformanceTopic {
    time_point time{};   // never given
    bool valid = false;  // never given
    std::array<time_point, 3> gp_cmd_time{};
    std::array<defs::FloatVectorTT, 3> gp_cmd{};  // by vosk::pfs::GPID
    bool gp_cmd_valid = false;                    // one flag for all three: the one written last
    time_point ms_fs_tt_time{};
    defs::FloatVectorTT ms_fs_tt{};
    time_point u5_fs_tt_time{};
    defs::FloatVectorTT u5_fs_tt{};  // in sky terms
    defs::FloatVectorTT u5_m5_tt{};  // as sent to M5
    time_point u4_fs_tt_time{};
    defs::FloatVectorTT u4_fs_tt{};
};

struct WavefrontMetricData {
    time_point wavefront_time{};
    bool wavefront_valid = false;
    defs::FloatVectorTT centroid_error{};
    defs::FloatVectorTT tip_tilt_error{};
    std::uint64_t wavefront_reserved = 0;
};

struct FSTelemetryData {
    time_point fs_time{};         // of the last input cycle
    bool fs_output_done = false;  // the output cycle has followed the last input cycle
    std::uint32_t fs_input_cycles = 0;
    std::uint32_t fs_output_cycles = 0;
    std::array<std::uint32_t, FS_INPUT_SOURCES> fs_input_counts{};  // by FsInputSource
    std::uint32_t fs_output_count = 0;                              // output cycles that got a record
};

// On cache lines of its own, as the records of other streams are written from other CPUs.
class alignas(64) PerformanceData {
public:
    using TipTilt = std::span<const float, 2>;

    // Throws std::runtime_error "Invalid GP_ID" for a guide probe above 2, and then changes nothing.
    void SetGpCmd(pfs::GPID gp, const time_point& time, TipTilt value, bool valid);
    void SetGpCmdValid(bool valid);
    void SetMsFsTt(const time_point& time, TipTilt value);
    void SetU4FsTt(const time_point& time, TipTilt value);
    void SetU5FsTt(const time_point& time, TipTilt sky, TipTilt m5);

    // One field-stabilisation cycle; each flag that is true adds 1 to its counter.
    void UpdateFSInput(const time_point& time, const FsInputFlags& flags);
    void UpdateFSOutput(const time_point& time, bool got_record);

    // A new centroid error clears the last tip/tilt error; a tip/tilt error leaves the centroid error
    // standing.
    void SetCentroidError(float x, float y);
    void SetTipTiltError(float tip, float tilt);

    // These two take no lock: whoever calls them keeps writers and readers away.
    void ResetFSTelemetryData();
    void ResetWavefrontTelemetryData();

    // All groups, the above two under the mutex. A figure written meanwhile may stay: call while no worker
    // runs.
    void Reset();

    PerformanceTopic GetDataTopic() const;
    WavefrontMetricData GetWavefrontMetricData() const;
    FSTelemetryData GetFSTelemetryData() const;

private:
    mutable std::mutex m_mutex;
    PerformanceTopic m_commands;      // guarded by m_mutex
    WavefrontMetricData m_wavefront;  // guarded by m_mutex
    FSTelemetryData m_fs;             // guarded by m_mutex
};

}  // namespace vosk::lumo
