#include <lumolib/dataSyncSetters.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>

#include <vosk/defs/byteOrder.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace vosk::lumo {

namespace {

using defs::VoskControlMode;

defs::FloatVectorTT Narrow(double tip, double tilt) noexcept {
    return {static_cast<float>(tip), static_cast<float>(tilt)};
}

bool IsPacedByInstrument() {
    return defs::IsInsDriven(VoskTelescopeStateManager::GetCurrentControlMode());
}

bool IsPacedByFieldStabilization() {
    const auto mode = VoskTelescopeStateManager::GetCurrentControlMode();
    return mode == VoskControlMode::TEL_DRIVEN || mode == VoskControlMode::HIGH_ORDER_CASCADE;
}

bool IsPacedByGpao() {
    const auto mode = VoskTelescopeStateManager::GetCurrentControlMode();
    return mode == VoskControlMode::TEL_DRIVEN_WITH_GPAO_TT ||
           mode == VoskControlMode::HIGH_ORDER_CASCADE_WITH_GPAO_TT;
}

}  // namespace

void AoBeatSetter::SetData(AoWavefrontCmdTimestamps& data, std::atomic<sample_id_t>& sample_id,
                           std::atomic<time_point>& timestamp, const AoWavefrontCmdTimestamps& beat,
                           sample_id_t id, const time_point& time) const {
    data = {beat.command_time, beat.receive_time, data.number + 1};
    sample_id = id;
    timestamp = GivenOrNow(time);
}

void M4SetpointDataSetter::SetData(M4SetpointData& data, std::atomic<sample_id_t>& sample_id,
                                   std::atomic<time_point>& timestamp,
                                   std::span<const float, defs::M4_CMD_SIZE> setpoint,
                                   const time_point& send_time, sample_id_t id,
                                   const time_point& time) const {
    std::ranges::copy(setpoint, data.setpoint.begin());
    data.send_time = send_time;
    data.valid = 1;
    sample_id = id;
    timestamp = GivenOrNow(time);
}

void M4SetpointAppliedDataSetter::SetData(M4SetpointAppliedData& data, std::atomic<sample_id_t>& sample_id,
                                          std::atomic<time_point>& timestamp,
                                          const defs::M4SetpointApplied::Payload& payload, sample_id_t id,
                                          const time_point& time) const {
    defs::ToHostOrder(payload.setpoint, data.setpoint);
    data.applied_time = payload.applied_time;
    data.applied_sample_id = payload.applied_sample_id;
    sample_id = id;
    timestamp = time;
}

void GpaoM4SetpointAppliedDataSetter::SetData(GpaoM4SetpointApplied& data,
                                              std::atomic<sample_id_t>& sample_id,
                                              std::atomic<time_point>& timestamp,
                                              std::span<const float, defs::INS_CMD_SIZE> applied,
                                              sample_id_t id, const time_point& time) const {
    const auto tail = std::ranges::copy(applied, data.setpoint.begin()).out;
    std::fill(tail, data.setpoint.end(), 0.0F);
    sample_id = id;
    timestamp = GivenOrNow(time);
}

void PfsInputDataSetter::SetData(PfsInputData& data, std::atomic<sample_id_t>& sample_id,
                                 std::atomic<time_point>& timestamp, const pfs::PFSTargetData& target,
                                 sample_id_t id, const time_point& time) const {
    for (std::size_t i = 0; i < pfs::GP_COUNT; ++i) {
        const auto& probe = target.guide_probes[i];
        data.gp_tt[i] = Narrow(probe.tip, probe.tilt);
        data.gp_value[i] = static_cast<float>(probe.value);
    }
    data.value = static_cast<float>(target.pointing.values.back());
    sample_id = id;
    timestamp = time;
}

void PfsTargetDataSetter::SetData(PfsPointingData& data, std::atomic<sample_id_t>& sample_id,
                                  std::atomic<time_point>& timestamp, const pfs::TelPointingData& pointing,
                                  sample_id_t id, const time_point& time) const {
    std::ranges::copy(pointing.values, data.values.begin());
    sample_id = id;
    timestamp = time;
}

void AoM5PttActDataSetter::SetData(AoM5PttActRecord& data, std::atomic<sample_id_t>& sample_id,
                                   std::atomic<time_point>& timestamp, const defs::M5PttAct::Payload& payload,
                                   sample_id_t id, const time_point& time) const {
    data.payload = {static_cast<float>(payload.piston), static_cast<float>(payload.tip),
                    static_cast<float>(payload.tilt)};
    data.header.receive_time = time_point{};
    data.header.m5_time = time;
    data.header.valid = 1;
    sample_id = id;
    timestamp = time;
}

void AoFieldStabilizationU4DataSetter::SetData(AoFieldStabilizationU4Record& data,
                                               std::atomic<sample_id_t>& sample_id,
                                               std::atomic<time_point>& timestamp, float x, float y,
                                               sample_id_t id, const time_point& time) const {
    data.payload = {x, y};
    data.header.valid = 1;
    sample_id = id;
    timestamp = time;
}

void AoM4CapSensActDataSetter::SetData(AoM4CapSensActRecord& data, std::atomic<sample_id_t>& sample_id,
                                       std::atomic<time_point>& timestamp,
                                       const defs::M4Feedback::Payload& payload, sample_id_t id,
                                       const time_point& time) const {
    defs::ToHostOrder(payload.values, data.payload.values);
    data.header.valid = 1;
    sample_id = id;
    timestamp = time;
}

void AoM4SetpointAppliedDataSetter::SetData(AoM4SetpointAppliedRecord& data,
                                            std::atomic<sample_id_t>& sample_id,
                                            std::atomic<time_point>& timestamp,
                                            std::span<const float, defs::INS_CMD_SIZE> applied,
                                            const time_point& applied_time, CmdSource source, sample_id_t id,
                                            const time_point& time) const {
    sample_id = id;
    timestamp = GivenOrNow(time);
    if (source == CmdSource::NONE) {
        data.header.status = std::uint16_t{0};
        return;
    }

    std::ranges::copy(applied, data.payload.applied.begin());
    data.header.receive_time = time_point{};
    data.header.applied_time = applied_time;
    const std::uint16_t rest = applied_time == time_point{}
                                   ? std::uint16_t{data.header.status}
                                   : defs::AoM4SetpointApplied::ExtInfo::APPLIED_TIME_GIVEN;
    data.header.status = static_cast<std::uint16_t>(static_cast<std::uint16_t>(source) | rest);
}

void InsDataSetter::SetData(InsCmdData& data, std::atomic<sample_id_t>& sample_id,
                            std::atomic<time_point>& timestamp, std::atomic_flag& trigger,
                            const defs::AoWavefrontCmdStream::Payload& payload,
                            const defs::AoWavefrontCmdStream::ExtInfo::Header& header, sample_id_t id,
                            const time_point& time) const {
    data.flags = header.flags;
    if ((data.flags & InsCmdData::VALID) != 0 && IsPacedByInstrument()) {
        data.command = payload.command;
        trigger.test_and_set();
    } else {
        std::copy_n(payload.command.begin(), defs::TIP_TILT_SIZE, data.command.begin());
    }
    sample_id = id;
    timestamp = time;
}

void U4FsTtDataSetter::SetData(defs::FloatVectorTT& data, std::atomic<sample_id_t>& sample_id,
                               std::atomic<time_point>& timestamp, std::atomic_flag& trigger, float x,
                               float y, sample_id_t id, const time_point& time) const {
    data = {x, y};
    if (IsPacedByFieldStabilization()) trigger.test_and_set();
    sample_id = id;
    timestamp = time;
}

void GpaoDataSetter::SetData(GpaoM4SetpointData& data, std::atomic<sample_id_t>& sample_id,
                             std::atomic<time_point>& timestamp, std::atomic_flag& trigger,
                             const GpaoM4SetpointData& command, sample_id_t id,
                             const time_point& time) const {
    data = command;
    if (IsPacedByGpao()) trigger.test_and_set();
    sample_id = id;
    timestamp = time;
}

void GpaoCoefficientsDataSetter::SetData(GpaoCoefficients& data, std::atomic<sample_id_t>& sample_id,
                                         std::atomic<time_point>& timestamp, std::atomic_flag& trigger,
                                         const GpaoCoefficients& coefficients, defs::Camera camera,
                                         sample_id_t id, const time_point& time) const {
    if (camera != VoskTelescopeStateManager::GetActiveCameraFs()) return;
    data = coefficients;
    trigger.test_and_set();
    sample_id = id;
    timestamp = GivenOrNow(time);
}

}  // namespace vosk::lumo
