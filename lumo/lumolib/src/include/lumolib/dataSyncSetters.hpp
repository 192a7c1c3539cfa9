#pragma once

// The setters of the exchange objects that do more than store a record. They run on the writer's thread,
// under the object's exclusive lock, and allocate nothing. What comes from the wire is converted here, once,
// so that the threads behind an object see host order only.
// "Time given" below: the record is dated by the peer that it came from, and keeps the date even if that is
// 0, no time. The others are made by threads of ours, and 0 means the present time.

#include <lumolib/dataSync.hpp>
#include <lumolib/dataSyncRecords.hpp>

#include <vosk/defs/controlMode.hpp>
#include <vosk/defs/wireRecords.hpp>

#include <atomic>
#include <span>

namespace vosk::lumo {

using AoM5PttActRecord = defs::LspxData<defs::AoM5PttAct::Payload, defs::AoM5PttAct::ExtInfo::Header>;
using AoFieldStabilizationU4Record =
    defs::LspxData<defs::AoFieldStabilizationU4::Payload, defs::AoFieldStabilizationU4::ExtInfo::Header>;
using AoM4SetpointAppliedRecord =
    defs::LspxData<defs::AoM4SetpointApplied::Payload, defs::AoM4SetpointApplied::ExtInfo::Header>;
using AoM4CapSensActRecord =
    defs::LspxData<defs::AoM4CapSensAct::Payload, defs::AoM4CapSensAct::ExtInfo::Header>;

using FloatVectorTTDataSetter = BasicDataSetter<defs::FloatVectorTT>;

// Numbers the beats, so that their reader can count those that it never saw.
struct AoBeatSetter {
    void SetData(AoWavefrontCmdTimestamps& data, std::atomic<sample_id_t>& sample_id,
                 std::atomic<time_point>& timestamp, const AoWavefrontCmdTimestamps& beat, sample_id_t id,
                 const time_point& time = {}) const;
};

struct M4SetpointDataSetter {
    void SetData(M4SetpointData& data, std::atomic<sample_id_t>& sample_id,
                 std::atomic<time_point>& timestamp, std::span<const float, defs::M4_CMD_SIZE> setpoint,
                 const time_point& send_time, sample_id_t id, const time_point& time = {}) const;
};

// Time given.
struct M4SetpointAppliedDataSetter {
    void SetData(M4SetpointAppliedData& data, std::atomic<sample_id_t>& sample_id,
                 std::atomic<time_point>& timestamp, const defs::M4SetpointApplied::Payload& payload,
                 sample_id_t id, const time_point& time = {}) const;
};

struct GpaoM4SetpointAppliedDataSetter {
    void SetData(GpaoM4SetpointApplied& data, std::atomic<sample_id_t>& sample_id,
                 std::atomic<time_point>& timestamp, std::span<const float, defs::INS_CMD_SIZE> applied,
                 sample_id_t id, const time_point& time = {}) const;
};

// Time given.
struct PfsInputDataSetter {
    void SetData(PfsInputData& data, std::atomic<sample_id_t>& sample_id, std::atomic<time_point>& timestamp,
                 const pfs::PFSTargetData& target, sample_id_t id, const time_point& time = {}) const;
};

// Time given.
struct PfsTargetDataSetter {
    void SetData(PfsPointingData& data, std::atomic<sample_id_t>& sample_id,
                 std::atomic<time_point>& timestamp, const pfs::TelPointingData& pointing, sample_id_t id,
                 const time_point& time = {}) const;
};

// Time given; it also goes into the header. The receive time of the AO cycle is AoOutput's to fill in.
struct AoM5PttActDataSetter {
    void SetData(AoM5PttActRecord& data, std::atomic<sample_id_t>& sample_id,
                 std::atomic<time_point>& timestamp, const defs::M5PttAct::Payload& payload, sample_id_t id,
                 const time_point& time = {}) const;
};

// Time given.
struct AoFieldStabilizationU4DataSetter {
    void SetData(AoFieldStabilizationU4Record& data, std::atomic<sample_id_t>& sample_id,
                 std::atomic<time_point>& timestamp, float x, float y, sample_id_t id,
                 const time_point& time = {}) const;
};

// Time given.
struct AoM4CapSensActDataSetter {
    void SetData(AoM4CapSensActRecord& data, std::atomic<sample_id_t>& sample_id,
                 std::atomic<time_point>& timestamp, const defs::M4Feedback::Payload& payload, sample_id_t id,
                 const time_point& time = {}) const;
};

// Without a source only the status word changes, to 0, and the last payload goes on being sent. Without an
// applied time (0) the source is added to what the status word holds.
struct AoM4SetpointAppliedDataSetter {
    using CmdSource = defs::AoM4SetpointApplied::ExtInfo::CmdSource;

    void SetData(AoM4SetpointAppliedRecord& data, std::atomic<sample_id_t>& sample_id,
                 std::atomic<time_point>& timestamp, std::span<const float, defs::INS_CMD_SIZE> applied,
                 const time_point& applied_time, CmdSource source, sample_id_t id,
                 const time_point& time = {}) const;
};

// ---- Setters that decide whether the reader is woken ----------------------------------------------------
// The control mode, or the active camera, is read at each write, on the writer's thread.

// The pace in the INS-driven modes, if the command is valid; only then the whole command is stored. The
// flags and the first two elements are stored always. Time given.
struct InsDataSetter {
    void SetData(InsCmdData& data, std::atomic<sample_id_t>& sample_id, std::atomic<time_point>& timestamp,
                 std::atomic_flag& trigger, const defs::AoWavefrontCmdStream::Payload& payload,
                 const defs::AoWavefrontCmdStream::ExtInfo::Header& header, sample_id_t id,
                 const time_point& time = {}) const;
};

// The pace in TEL_DRIVEN and HIGH_ORDER_CASCADE. Time given.
struct U4FsTtDataSetter {
    void SetData(defs::FloatVectorTT& data, std::atomic<sample_id_t>& sample_id,
                 std::atomic<time_point>& timestamp, std::atomic_flag& trigger, float x, float y,
                 sample_id_t id, const time_point& time = {}) const;
};

// The pace in the modes with GPAO tip/tilt. Time given.
struct GpaoDataSetter {
    void SetData(GpaoM4SetpointData& data, std::atomic<sample_id_t>& sample_id,
                 std::atomic<time_point>& timestamp, std::atomic_flag& trigger,
                 const GpaoM4SetpointData& command, sample_id_t id, const time_point& time = {}) const;
};

// Admits the active camera of field stabilisation; from any other it stores nothing at all.
struct GpaoCoefficientsDataSetter {
    void SetData(GpaoCoefficients& data, std::atomic<sample_id_t>& sample_id,
                 std::atomic<time_point>& timestamp, std::atomic_flag& trigger,
                 const GpaoCoefficients& coefficients, defs::Camera camera, sample_id_t id,
                 const time_point& time = {}) const;
};

}  // namespace vosk::lumo
