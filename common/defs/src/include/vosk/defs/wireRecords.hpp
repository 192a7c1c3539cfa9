#pragma once

// Every record that a network stream carries, byte by byte. A field without BigEndian<> stands on the wire
// as the host holds it. Bytes named reserved are never looked at, and go out as zero.
// AO samples travel over LSPX as a payload and, before it, a leader info (`ExtInfo::Header`); all other
// records are whole QUDEX samples. Sample IDs travel in the packet headers, never in a record.

#include <vosk/defs/bigEndian.hpp>
#include <vosk/defs/controlMode.hpp>
#include <vosk/defs/sizes.hpp>
#include <vosk/defs/valueTypes.hpp>

#include <atomclk/atomClk.hpp>

#include <array>
#include <cstddef>
#include <cstdint>

namespace vosk::defs {

using TransportTimepoint = atomclk::detail::TransportTimepoint<0>;

template <std::size_t Size>
using ReservedBytes = std::array<std::byte, Size>;

// Payload and leader info of one LSPX sample in one block; each part is sent in place.
template <class Payload, class Header>
struct LspxData {
    Payload payload{};
    Header header{};
};

// ---- Instrument -----------------------------------------------------------------------------------------

// A wavefront command, in.
struct AoWavefrontCmdStream {
    struct Payload {
        // A tip/tilt pair, a second pair, and the high-order part.
        std::array<float, WAVEFRONT_CMD_SIZE> command{};
    };

    struct ExtInfo {
        static constexpr std::uint8_t VALID = 0x01;  // in flags: the command may be used

        struct Header {
            std::uint8_t flags{};
            ReservedBytes<3> reserved{};
        };
    };
};

static_assert(sizeof(AoWavefrontCmdStream::Payload) == 19472);
static_assert(sizeof(AoWavefrontCmdStream::ExtInfo::Header) == 4);

// "ao:m5_ptt_act", out: where M5 is.
struct AoM5PttAct {
    struct Payload {
        float piston{};
        float tip{};
        float tilt{};
    };

    struct ExtInfo {
        struct Header {
            TransportTimepoint receive_time{};  // of the wavefront command that this sample answers
            TransportTimepoint m5_time{};       // of the M5 sample
            ReservedBytes<16> reserved{};
            std::uint8_t valid{};  // 1 once data was stored
        };
    };
};

static_assert(sizeof(AoM5PttAct::Payload) == 12);
static_assert(sizeof(AoM5PttAct::ExtInfo::Header) == 33);
static_assert(offsetof(AoM5PttAct::ExtInfo::Header, m5_time) == 8);
static_assert(offsetof(AoM5PttAct::ExtInfo::Header, valid) == 32);

// "ao:field_stabilization_u4", out.
struct AoFieldStabilizationU4 {
    struct Payload {
        float tip{};
        float tilt{};
    };

    struct ExtInfo {
        struct Header {
            std::uint8_t valid{};  // 1 once data was stored
            ReservedBytes<3> reserved{};
        };
    };
};

static_assert(sizeof(AoFieldStabilizationU4::Payload) == 8);
static_assert(sizeof(AoFieldStabilizationU4::ExtInfo::Header) == 4);

// "ao:m4_setpoint_applied", out: what M4 applied, in INS modal space and without its reference shape.
struct AoM4SetpointApplied {
    struct Payload {
        std::array<float, INS_CMD_SIZE> applied{};
    };

    struct ExtInfo {
        // Who commanded the setpoint, as bits 9 to 11 of the status word.
        enum class CmdSource : std::uint16_t {
            NONE = 0,
            CCS = 0x200,
            INS_CASCADE = 0x400,
            INS_SEQUENTIAL = 0x800,
        };

        static constexpr std::uint16_t APPLIED_TIME_GIVEN = 0x100;  // in the status word

        // What a receiver makes of the three source bits; every combination has a meaning.
        static constexpr AoCommandSource SourceOf(std::uint16_t status) noexcept {
            constexpr std::uint16_t SOURCE_BITS = 0xE00;
            switch (status & SOURCE_BITS) {
                case 0:
                    return AoCommandSource::NONE;
                case 0x200:
                case 0x600:
                    return AoCommandSource::CCS;
                case 0x400:
                case 0x800:
                    return AoCommandSource::INS;
                default:
                    return AoCommandSource::OFF;
            }
        }

        struct Header {
            TransportTimepoint receive_time{};  // of the wavefront command that this sample answers
            TransportTimepoint applied_time{};
            ReservedBytes<16> reserved{};
            BigEndian<std::uint16_t> status{};
            ReservedBytes<2> reserved_tail{};
        };
    };
};

static_assert(sizeof(AoM4SetpointApplied::Payload) == 19464);
static_assert(sizeof(AoM4SetpointApplied::ExtInfo::Header) == 36);
static_assert(offsetof(AoM4SetpointApplied::ExtInfo::Header, applied_time) == 8);
static_assert(offsetof(AoM4SetpointApplied::ExtInfo::Header, status) == 32);

// "ao:m4_cap_sens_act", out: the capacitive sensors of M4.
struct AoM4CapSensAct {
    struct Payload {
        std::array<float, M4_CMD_SIZE> values{};
    };

    struct ExtInfo {
        struct Header {
            std::uint8_t valid{};  // 1 once data was stored
            ReservedBytes<3> reserved{};
        };
    };
};

static_assert(sizeof(AoM4CapSensAct::Payload) == 21408);
static_assert(sizeof(AoM4CapSensAct::ExtInfo::Header) == 4);

// ---- M4 -------------------------------------------------------------------------------------------------

// "am:setpoint", out, in three packets.
struct M4Setpoint {
    struct Payload {
        std::array<BigEndian<float>, M4_CMD_SIZE> setpoint{};  // reference shape included
        BigEndian<std::uint64_t> valid{};                      // always 1
    };

    struct Segment {
        std::size_t offset;
        std::size_t length;
    };

    static constexpr std::array<Segment, 3> SEGMENTS{{{0, 7136}, {7136, 7136}, {14272, 7144}}};
};

static_assert(sizeof(M4Setpoint::Payload) == 21416);
static_assert(offsetof(M4Setpoint::Payload, valid) == 21408);
static_assert(M4Setpoint::SEGMENTS[1].offset == M4Setpoint::SEGMENTS[0].length);
static_assert(M4Setpoint::SEGMENTS[2].offset ==
              M4Setpoint::SEGMENTS[1].offset + M4Setpoint::SEGMENTS[1].length);
static_assert(M4Setpoint::SEGMENTS[2].offset + M4Setpoint::SEGMENTS[2].length == sizeof(M4Setpoint::Payload));

// "am:setpoint_applied", in: M4's answer to a setpoint, with that setpoint's sample ID.
struct M4SetpointApplied {
    struct Payload {
        std::array<BigEndian<float>, M4_CMD_SIZE> setpoint{};
        TransportTimepoint applied_time{};
        ReservedBytes<8> reserved{};
        BigEndian<std::uint64_t> applied_sample_id{};
    };
};

static_assert(sizeof(M4SetpointApplied::Payload) == 21432);
static_assert(offsetof(M4SetpointApplied::Payload, applied_time) == 21408);
static_assert(offsetof(M4SetpointApplied::Payload, applied_sample_id) == 21424);

// The capacitive sensors of M4, in.
struct M4Feedback {
    struct Payload {
        std::array<BigEndian<float>, M4_CMD_SIZE> values{};
        BigEndian<std::uint32_t> counter{};  // one up a sample
        ReservedBytes<4> reserved{};
    };
};

static_assert(sizeof(M4Feedback::Payload) == 21416);
static_assert(offsetof(M4Feedback::Payload, counter) == 21408);

// ---- M5 -------------------------------------------------------------------------------------------------

// The command of the tip/tilt mirror, out.
struct M5Command {
    struct Payload {
        double piston{};  // always 0
        double tip{};
        double tilt{};
    };
};

static_assert(sizeof(M5Command::Payload) == 24);

// Where M5 is, in.
struct M5PttAct {
    struct Payload {
        double piston{};
        double tip{};
        double tilt{};
        std::array<double, 14> reserved{};
    };
};

static_assert(sizeof(M5PttAct::Payload) == 136);

// ---- ECMWF simulation -----------------------------------------------------------------------------------

// Simulated centroid errors of all guide probes and the PDS, in.
struct WfsPayload {
    struct Block {
        TransportTimepoint timestamp{};
        BigEndian<std::uint32_t> created{1};  // 1 in a fresh record
        BigEndian<double> x{};
        BigEndian<double> y{};
        ReservedBytes<416> reserved{};
    };

    ReservedBytes<32> reserved{};
    std::array<Block, 4> blocks{};  // GP1, GP2, GP3, PDS
};

static_assert(sizeof(WfsPayload) == 1808 && sizeof(WfsPayload::Block) == 444);
static_assert(offsetof(WfsPayload, blocks) == 32);
static_assert(offsetof(WfsPayload::Block, created) == 8);
static_assert(offsetof(WfsPayload::Block, x) == 12 && offsetof(WfsPayload::Block, y) == 20);

// ---- Cameras --------------------------------------------------------------------------------------------

// Leader info of LISA and ALICE frames.
struct CameraLeaderInfo {
    TransportTimepoint exposure_time{};
};

static_assert(sizeof(CameraLeaderInfo) == 8);

// Leader info of MARANA frames, which show a window of the detector.
struct MaranaLeaderInfo {
    static constexpr std::uint32_t DATA_TYPE = 0x200;      // the one that is accepted
    static constexpr std::uint32_t DETECTOR_SIZE = 0x800;  // offset + size stay within, both ways

    TransportTimepoint exposure_time{};
    BigEndian<std::uint32_t> data_type{};
    BigEndian<std::uint32_t> width{};
    BigEndian<std::uint32_t> height{};
    BigEndian<std::uint32_t> x_offset{};
    BigEndian<std::uint32_t> y_offset{};
};

static_assert(sizeof(MaranaLeaderInfo) == 28);
static_assert(offsetof(MaranaLeaderInfo, data_type) == 8 && offsetof(MaranaLeaderInfo, y_offset) == 24);

}  // namespace vosk::defs

// ---- PFS and MS -----------------------------------------------------------------------------------------

namespace vosk::pfs {

// The telescope's pointing. The first two values feed the rotation between M5 and the sky.
struct TelPointingData {
    std::array<defs::BigEndian<double>, 5> values{};
};

static_assert(sizeof(TelPointingData) == 40);

// The PFS measurement, in.
struct PFSTargetData {
    struct GuideProbe {
        defs::ReservedBytes<44> reserved{};
        defs::BigEndian<double> tip{};
        defs::BigEndian<double> tilt{};
        defs::ReservedBytes<16> reserved_middle{};
        defs::BigEndian<double> value{};
        defs::ReservedBytes<4> reserved_tail{};
    };

    std::array<GuideProbe, GP_COUNT> guide_probes{};
    defs::ReservedBytes<8> reserved{};
    TelPointingData pointing{};
};

static_assert(sizeof(PFSTargetData) == 312 && sizeof(PFSTargetData::GuideProbe) == 88);
static_assert(offsetof(PFSTargetData::GuideProbe, tip) == 44 &&
              offsetof(PFSTargetData::GuideProbe, value) == 76);
static_assert(offsetof(PFSTargetData, pointing) == 272);

// One correction: of a guide probe in the PFS correction, of the MS in the MS correction.
struct GuideProbeCorrection {
    defs::TransportTimepoint time{};
    defs::BigEndian<double> tip{};
    defs::BigEndian<double> tilt{};
    defs::BigEndian<std::uint32_t> flag{};  // PFS: 1 while guide-probe centering is on; MS: always 1
};

static_assert(sizeof(GuideProbeCorrection) == 28);
static_assert(offsetof(GuideProbeCorrection, tip) == 8 && offsetof(GuideProbeCorrection, flag) == 24);

// The PFS correction, out.
struct PFSCorrection {
    std::array<GuideProbeCorrection, GP_COUNT> guide_probes{};
};

static_assert(sizeof(PFSCorrection) == 84);

}  // namespace vosk::pfs

namespace vosk::defs {

// The MS correction, out; its time is the send time.
using MSCorrection = pfs::GuideProbeCorrection;

}  // namespace vosk::defs
