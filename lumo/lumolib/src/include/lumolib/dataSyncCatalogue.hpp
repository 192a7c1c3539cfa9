#pragma once

// Every exchange object of the system: its record, who writes it, who reads it. Objects of the first group
// have one reader that waits, and take `bool busy`; those of the second are polled. Tag 0 is the only
// instance of a class, but for ImgDataSyncAlice.

#include <lumolib/dataSync.hpp>
#include <lumolib/dataSyncRecords.hpp>
#include <lumolib/dataSyncSetters.hpp>

#include <vosk/defs/wireRecords.hpp>

#include <atomic>
#include <chrono>

namespace vosk::lumo {

// ---- Waitable -------------------------------------------------------------------------------------------

// AliceInput to ImageProcessing, one per camera; the tag is the Camera value.
class ImgDataSyncAlice final
    : public DataSyncSingleWaitable<VisImgDataAlice, BasicDataSetter<VisImgDataAlice>> {
public:
    enum class InstanceTag { IMG_GP1, IMG_GP2, IMG_GP3, IMG_PDS };
    using DataSyncSingleWaitable::DataSyncSingleWaitable;
};

static_assert(static_cast<int>(ImgDataSyncAlice::InstanceTag::IMG_PDS) ==
              static_cast<int>(defs::Camera::IMG_PDS));

// AoWavefrontCmdInput to AoOutput: the beat of the AO output.
class AoOutputDataSync final : public DataSyncSingleWaitable<AoWavefrontCmdTimestamps, AoBeatSetter> {
public:
    enum class InstanceTag { DEFAULT };
    using DataSyncSingleWaitable::DataSyncSingleWaitable;
};

// AoTasks to M4Output.
class M4OutputDataSync final : public DataSyncSingleWaitable<M4SetpointData, M4SetpointDataSetter> {
public:
    enum class InstanceTag { DEFAULT };
    using DataSyncSingleWaitable::DataSyncSingleWaitable;

    // The send grid of M4, from which AoTasks plans send times. The constructor of M4Output stores it; both
    // are 0 until then.
    std::atomic<std::chrono::milliseconds> send_interval{std::chrono::milliseconds{0}};
    std::atomic<std::chrono::microseconds> send_offset{std::chrono::microseconds{0}};
};

// M4Input to AoTasks.
class M4InputDataSync final
    : public DataSyncSingleWaitable<M4SetpointAppliedData, M4SetpointAppliedDataSetter> {
public:
    enum class InstanceTag { DEFAULT };
    using DataSyncSingleWaitable::DataSyncSingleWaitable;
};

// FieldStabilizationOutput to M5Output; FieldStabilizationInput polls it.
class M5OutputDataSync final : public DataSyncSingleWaitable<defs::FloatVectorTT, FloatVectorTTDataSetter> {
public:
    enum class InstanceTag { DEFAULT };
    using DataSyncSingleWaitable::DataSyncSingleWaitable;
};

// FieldStabilizationOutput to MSOutput.
class MSOutputDataSync final : public DataSyncSingleWaitable<defs::FloatVectorTT, FloatVectorTTDataSetter> {
public:
    enum class InstanceTag { DEFAULT };
    using DataSyncSingleWaitable::DataSyncSingleWaitable;
};

// FieldStabilizationOutput to PfsOutput.
class PfsOutputDataSync final : public DataSyncSingleWaitable<PfsOutputData, BasicDataSetter<PfsOutputData>> {
public:
    enum class InstanceTag { DEFAULT };
    using DataSyncSingleWaitable::DataSyncSingleWaitable;
};

// AoWavefrontCmdInput to AoTasks.
class AoTasksInsDataSync final : public DataSyncTrigger<InsCmdData, lumo::InsDataSetter> {
public:
    enum class InstanceTag { DEFAULT };
    using InsDataSetter = lumo::InsDataSetter;
    using DataSyncTrigger::DataSyncTrigger;
};

// FieldStabilizationOutput to AoTasks; FieldStabilizationInput polls it.
class AoTasksFsDataSync final : public DataSyncTrigger<defs::FloatVectorTT, lumo::U4FsTtDataSetter> {
public:
    enum class InstanceTag { DEFAULT };
    using U4FsTtDataSetter = lumo::U4FsTtDataSetter;
    using DataSyncTrigger::DataSyncTrigger;
};

// GpaoOutput to AoTasks.
class AoTasksGpaoDataSync final : public DataSyncTrigger<GpaoM4SetpointData, lumo::GpaoDataSetter> {
public:
    enum class InstanceTag { DEFAULT };
    using GpaoDataSetter = lumo::GpaoDataSetter;
    using DataSyncTrigger::DataSyncTrigger;
};

// Every WfsLisaInput to GpaoInput; the setter admits the active camera.
class GpaoCoefficientsDataSync final
    : public DataSyncTrigger<GpaoCoefficients, lumo::GpaoCoefficientsDataSetter> {
public:
    enum class InstanceTag { DEFAULT };
    using GpaoCoefficientsDataSetter = lumo::GpaoCoefficientsDataSetter;
    using DataSyncTrigger::DataSyncTrigger;
};

// ---- Polled ---------------------------------------------------------------------------------------------

// M5Input to FieldStabilizationInput.
class M5InputDataSync final : public DataSyncSingle<defs::FloatVectorTT, FloatVectorTTDataSetter> {
public:
    enum class InstanceTag { DEFAULT };
};

// PfsInput to FieldStabilizationInput.
class PfsInputDataSync final : public DataSyncSingle<PfsInputData, PfsInputDataSetter> {
public:
    enum class InstanceTag { DEFAULT };
};

// PfsInput to M5Input and M5Output.
class PfsTargetDataSync final : public DataSyncSingle<PfsPointingData, PfsTargetDataSetter> {
public:
    enum class InstanceTag { DEFAULT };
};

// AoTasks to FieldStabilizationInput.
class FsRefDataSync final : public DataSyncSingle<defs::FsRef, BasicDataSetter<defs::FsRef>> {
public:
    enum class InstanceTag { DEFAULT };
};

// AoTasks to GpaoInput.
class GpaoM4SetpointAppliedDataSync final
    : public DataSyncSingle<GpaoM4SetpointApplied, GpaoM4SetpointAppliedDataSetter> {
public:
    enum class InstanceTag { DEFAULT };
};

// GpaoOutput to GpaoInput.
class GpaoM4SetpointGpaoDataSync final
    : public DataSyncSingle<GpaoM4SetpointGpao, BasicDataSetter<GpaoM4SetpointGpao>> {
public:
    enum class InstanceTag { DEFAULT };
};

// M4FeedbackInput to AoOutput, which sends the record in place.
class AoM4CapSensActDataSync final : public DataSyncSingle<AoM4CapSensActRecord, AoM4CapSensActDataSetter> {
public:
    enum class InstanceTag { DEFAULT };
};

// AoTasks to AoOutput, which writes the receive time into the record and sends it in place.
class AoM4SetpointAppliedDataSync final
    : public DataSyncSingle<AoM4SetpointAppliedRecord, AoM4SetpointAppliedDataSetter> {
public:
    enum class InstanceTag { DEFAULT };
};

// FieldStabilizationOutput to AoOutput, which sends the record in place.
class AoFieldStabilizationU4DataSync final
    : public DataSyncSingle<AoFieldStabilizationU4Record, AoFieldStabilizationU4DataSetter> {
public:
    enum class InstanceTag { DEFAULT };
};

// M5Input to AoOutput, which writes the receive time into the record and sends it in place.
class AoM5PttActDataSync final : public DataSyncSingle<AoM5PttActRecord, AoM5PttActDataSetter> {
public:
    enum class InstanceTag { DEFAULT };
};

// ECMWFSimInput to whoever looks.
class EcmWfSimDataSync final : public DataSyncSingle<defs::WfsPayload, BasicDataSetter<defs::WfsPayload>> {
public:
    enum class InstanceTag { DEFAULT };
};

}  // namespace vosk::lumo
