#pragma once

// The records that go through shared memory to and from the flowgraphs and the telemetry collector. All
// values are in host order; both sides run on one machine. CentroidError and WfsTopic, the records of the
// simulation outputs, are value types (valueTypes.hpp), their layouts pinned there.

#include <vosk/defs/sizes.hpp>
#include <vosk/defs/valueTypes.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace vosk::common::shmif {

// What field stabilisation tells its flowgraph, once a grid point.
struct FieldStablizationTopicIn {
    defs::time_point timestamp{};  // the sampling instant
    std::uint32_t sample_id{};
    std::array<defs::FloatVectorTT, 4> img_centroid_error{};  // GP1, GP2, GP3, PDS
    std::array<defs::FloatVectorTT, 4> wfs_tt_error{};        // the same
    std::array<defs::FloatVectorTT, 3> gp_tt{};               // measured by the PFS
    std::array<float, 2> zero_pair{};                         // where a fourth probe would stand
    std::array<float, 3> gp_value{};
    float zero_value{};
    defs::FloatVectorTT m5{};  // position
    defs::FloatVectorTT m4_tt{};
    defs::FloatVectorTT fs_ref{};
    defs::FloatVectorTT tt_ref{};
    float pointing_value{};
};

static_assert(sizeof(FieldStablizationTopicIn) == 160);
static_assert(offsetof(FieldStablizationTopicIn, sample_id) == 8);
static_assert(offsetof(FieldStablizationTopicIn, img_centroid_error) == 12);
static_assert(offsetof(FieldStablizationTopicIn, wfs_tt_error) == 44);
static_assert(offsetof(FieldStablizationTopicIn, gp_tt) == 76);
static_assert(offsetof(FieldStablizationTopicIn, zero_pair) == 100);
static_assert(offsetof(FieldStablizationTopicIn, gp_value) == 108);
static_assert(offsetof(FieldStablizationTopicIn, zero_value) == 120);
static_assert(offsetof(FieldStablizationTopicIn, m5) == 124);
static_assert(offsetof(FieldStablizationTopicIn, m4_tt) == 132);
static_assert(offsetof(FieldStablizationTopicIn, fs_ref) == 140);
static_assert(offsetof(FieldStablizationTopicIn, tt_ref) == 148);
static_assert(offsetof(FieldStablizationTopicIn, pointing_value) == 156);

// The flowgraph's answer.
struct FieldStablizationTopicOut {
    defs::time_point timestamp{};
    std::uint32_t sample_id{};
    std::array<defs::FloatVectorTT, 3> pfs{};
    defs::FloatVectorTT m5{};
    std::array<std::byte, 8> unread_1{};
    defs::FloatVectorTT u4_tt{};
    std::array<std::byte, 8> unread_2{};
    defs::FloatVectorTT ms{};
    std::array<std::byte, 32> unread_3{};
    defs::FloatVectorTT tt_error{};
    std::uint32_t input_sample_id{};     // of the record that this one answers
    defs::time_point input_timestamp{};  // the same
    std::array<std::byte, 24> unread_4{};
};

static_assert(sizeof(FieldStablizationTopicOut) == 152);
static_assert(offsetof(FieldStablizationTopicOut, pfs) == 12);
static_assert(offsetof(FieldStablizationTopicOut, m5) == 36);
static_assert(offsetof(FieldStablizationTopicOut, u4_tt) == 52);
static_assert(offsetof(FieldStablizationTopicOut, ms) == 68);
static_assert(offsetof(FieldStablizationTopicOut, tt_error) == 108);
static_assert(offsetof(FieldStablizationTopicOut, input_sample_id) == 116);
static_assert(offsetof(FieldStablizationTopicOut, input_timestamp) == 120);

using GpaoVector = std::array<float, defs::GPAO_CMD_SIZE>;  // in GPAO modal space

// What the GPAO flowgraph is told with each new set of coefficients.
struct GpaoTopicIn {
    defs::time_point timestamp{};
    std::uint32_t sample_id{};
    GpaoVector coefficients{};
    GpaoVector applied_m4_cmd{};
    GpaoVector last_gpao_cmd{};
    std::array<std::byte, 4> padding{};
};

static_assert(sizeof(GpaoTopicIn) == 640);
static_assert(offsetof(GpaoTopicIn, coefficients) == 12);
static_assert(offsetof(GpaoTopicIn, applied_m4_cmd) == 220);
static_assert(offsetof(GpaoTopicIn, last_gpao_cmd) == 428);

// The GPAO flowgraph's answer.
struct GpaoTopicOut {
    defs::time_point timestamp{};
    std::uint32_t sample_id{};
    GpaoVector gpao_cmd{};
    std::uint32_t input_sample_id{};     // of the record that this one answers
    defs::time_point input_timestamp{};  // the same
    std::array<std::byte, 24> unread{};
};

static_assert(sizeof(GpaoTopicOut) == 256);
static_assert(offsetof(GpaoTopicOut, gpao_cmd) == 12);
static_assert(offsetof(GpaoTopicOut, input_sample_id) == 220);
static_assert(offsetof(GpaoTopicOut, input_timestamp) == 224);

// The message of the telemetry queues: a sampled record behind its time.
template <class Record>
struct TelemetryMessage {
    static_assert(std::is_trivially_copyable_v<Record> && sizeof(Record) % 8 == 0);

    TelemetryMessage() = default;
    explicit TelemetryMessage(const Record& sampled) : timestamp{sampled.timestamp}, record{sampled} {}

    defs::time_point timestamp{};
    bool valid = true;
    std::array<std::byte, 7> padding{};
    Record record{};
};

static_assert(sizeof(TelemetryMessage<FieldStablizationTopicIn>) == 176);
static_assert(sizeof(TelemetryMessage<FieldStablizationTopicOut>) == 168);
static_assert(sizeof(TelemetryMessage<GpaoTopicIn>) == 656);
static_assert(sizeof(TelemetryMessage<GpaoTopicOut>) == 272);
static_assert(offsetof(TelemetryMessage<GpaoTopicOut>, valid) == 8);
static_assert(offsetof(TelemetryMessage<GpaoTopicOut>, record) == 16);

}  // namespace vosk::common::shmif
