#pragma once

// The records of exchange objects that exist only inside the process, in host byte order. Those that are
// wire records stand in <vosk/defs/wireRecords.hpp>.

#include <vosk/defs/sizes.hpp>
#include <vosk/defs/valueTypes.hpp>

#include <array>
#include <cstddef>
#include <cstdint>

namespace vosk::lumo {

// One ALICE frame as it came from the wire, row by row.
struct VisImgDataAlice {
    static constexpr std::size_t ROWS = 240;
    static constexpr std::size_t COLUMNS = 240;

    std::array<std::uint16_t, ROWS * COLUMNS> pixels{};
};

static_assert(sizeof(VisImgDataAlice) == 115200);

struct AoWavefrontCmdTimestamps {
    defs::time_point command_time{};  // of the command, from its trailer packet
    defs::time_point receive_time{};  // right after reception
    std::uint32_t number{};           // of the writes so far; the setter's
};

// A wavefront command. Outside the INS-driven modes, and from an invalid command, only the first two
// elements are taken over; the rest is the last valid command.
struct InsCmdData {
    static constexpr std::uint32_t VALID = 0x1;  // in flags

    std::array<float, defs::WAVEFRONT_CMD_SIZE> command{};
    std::uint32_t flags{};
};

// A GPAO command in INS modal space.
struct GpaoM4SetpointData {
    std::array<float, defs::INS_CMD_SIZE> command{};
    std::uint32_t status{};  // always 0
};

// A setpoint for M4 with the moment at which it is to leave.
struct M4SetpointData {
    defs::time_point send_time{};
    std::array<float, defs::M4_CMD_SIZE> setpoint{};
    std::uint32_t valid{};  // 1 once written; goes out behind the setpoint
};

// M4's answer. It belongs to the setpoint whose sample ID equals that of the exchange object.
struct M4SetpointAppliedData {
    std::array<float, defs::M4_CMD_SIZE> setpoint{};
    defs::time_point applied_time{};
    std::uint64_t applied_sample_id{};  // M4's own word; nothing looks at it
};

// What M4 applied, in INS modal space; the elements behind INS_CMD_SIZE are zero.
struct GpaoM4SetpointApplied {
    std::array<float, defs::M4_CMD_SIZE> setpoint{};
};

// A GPAO command in GPAO modal space.
struct GpaoM4SetpointGpao {
    std::array<float, defs::GPAO_CMD_SIZE> command{};
};

static_assert(sizeof(GpaoM4SetpointGpao) == 208);

// The modal coefficients of a wavefront-sensor frame, and the slopes that they come from.
struct GpaoCoefficients {
    std::array<float, defs::GPAO_CMD_SIZE> modes{};
    defs::SlopeVector slopes{};
};

static_assert(sizeof(GpaoCoefficients) == 208 + sizeof(defs::SlopeVector));

// The PFS measurement, by guide probe.
struct PfsInputData {
    std::array<defs::FloatVectorTT, pfs::GP_COUNT> gp_tt{};
    std::array<float, pfs::GP_COUNT> gp_value{};
    float value{};
};

// The PFS correction, by guide probe.
struct PfsOutputData {
    std::array<defs::FloatVectorTT, pfs::GP_COUNT> gp_tt{};
};

// The telescope's pointing, in the order of pfs::TelPointingData. Until the first PFS measurement the M5
// threads rotate with the pointing that stands here. It bears out what the values are: at the site's
// latitude the first two, hour angle and declination, give the next two, azimuth (from north by east) and
// zenith distance, to the last digit.
struct PfsPointingData {
    std::array<double, 5> values{-1.3493615328852238, -0.4624148042720943, 1.9259871576545562,
                                 1.1978399934348485, 0.0};
};

}  // namespace vosk::lumo
