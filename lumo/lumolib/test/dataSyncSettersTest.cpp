#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>

#include <vosk/defs/controlMode.hpp>
#include <vosk/defs/wireRecords.hpp>

#include <atomclk/atomClk.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <memory>
#include <vector>

namespace {

using namespace vosk::lumo;
using namespace vosk::defs;
using Bytes = std::vector<unsigned char>;

constexpr std::array ALL_MODES{
    VoskControlMode::TEL_DRIVEN,         VoskControlMode::INS_DRIVEN_SEQUENTIAL,
    VoskControlMode::INS_DRIVEN_CASCADE, VoskControlMode::TEL_DRIVEN_WITH_GPAO_TT,
    VoskControlMode::HIGH_ORDER_CASCADE, VoskControlMode::HIGH_ORDER_CASCADE_WITH_GPAO_TT,
};

time_point At(std::int64_t count) {
    return time_point{std::chrono::nanoseconds{count}};
}

template <class Record>
Bytes BytesOf(const Record& record) {
    Bytes bytes(sizeof(Record));
    std::memcpy(bytes.data(), &record, sizeof(Record));
    return bytes;
}

void Put(Bytes& bytes, std::size_t offset, const Bytes& values) {
    for (const unsigned char value : values) bytes.at(offset++) = value;
}

template <class Record>
std::unique_ptr<Record> FromBytes(const Bytes& bytes) {
    auto record = std::make_unique<Record>();
    std::memcpy(static_cast<void*>(record.get()), bytes.data(), sizeof(Record));
    return record;
}

template <std::size_t N>
std::array<float, N> Ramp(float first) {
    std::array<float, N> values;
    for (float& value : values) value = first++;
    return values;
}

// Big-endian floats, written byte by byte.
Bytes WireRamp(std::size_t size, float first) {
    Bytes bytes;
    for (std::size_t i = 0; i < size; ++i) {
        const auto bits = std::bit_cast<std::uint32_t>(first++);
        for (unsigned shift : {24U, 16U, 8U, 0U}) bytes.push_back(static_cast<unsigned char>(bits >> shift));
    }
    return bytes;
}

template <class Sync>
void ExpectStamp(const Sync& sync, sample_id_t id, const time_point& time) {
    EXPECT_EQ(sync.GetSampleId(), id);
    EXPECT_EQ(sync.GetTimestamp(), time);
}

// The present time is 5000 throughout.
class Setters : public testing::Test {
protected:
    void TearDown() override {
        VoskTelescopeStateManager::Reset();
        VoskTelescopeStateManager::SetActiveCameraFS(Camera::IMG_GP1);
    }

    atomclk::ManualClock m_clock{At(5000)};
};

// ---- Plain setters --------------------------------------------------------------------------------------

TEST_F(Setters, M4SetpointIsMarkedValid) {
    const auto sync = std::make_unique<M4OutputDataSync>(false);
    EXPECT_EQ(sync->GetDataRef().valid, 0U);
    const auto setpoint = Ramp<M4_CMD_SIZE>(1.0F);
    sync->SetData(setpoint, At(77), 3U);
    EXPECT_EQ(sync->GetDataRef().setpoint, setpoint);
    EXPECT_EQ(sync->GetDataRef().send_time, At(77));
    EXPECT_EQ(sync->GetDataRef().valid, 1U);
    EXPECT_TRUE(sync->IsDataReady());
    ExpectStamp(*sync, 3, At(5000));
}

TEST_F(Setters, M4AnswerIsConvertedFromTheWire) {
    Bytes wire = WireRamp(M4_CMD_SIZE, 1.0F);
    wire.resize(21432, 0xFF);
    Put(wire, 21408, {0, 0, 0, 0, 0, 0, 0x01, 0x02});
    Put(wire, 21424, {1, 2, 3, 4, 5, 6, 7, 8});
    const auto sync = std::make_unique<M4InputDataSync>(false);
    sync->SetData(*FromBytes<M4SetpointApplied::Payload>(wire), 3U);
    EXPECT_EQ(sync->GetDataRef().setpoint, Ramp<M4_CMD_SIZE>(1.0F));
    EXPECT_EQ(sync->GetDataRef().applied_time, At(0x0102));
    EXPECT_EQ(sync->GetDataRef().applied_sample_id, 0x0102030405060708U);
    ExpectStamp(*sync, 3, At(0));
}

TEST_F(Setters, GpaoAppliedSetpointIsZeroBehindItsData) {
    const auto sync = std::make_unique<GpaoM4SetpointAppliedDataSync>();
    sync->GetDataRef().setpoint.fill(9.0F);
    sync->SetData(Ramp<INS_CMD_SIZE>(1.0F), 3U);
    auto expected = Ramp<M4_CMD_SIZE>(1.0F);
    std::fill(expected.begin() + 4866, expected.end(), 0.0F);
    EXPECT_EQ(sync->GetDataRef().setpoint, expected);
    ExpectStamp(*sync, 3, At(5000));
}

TEST_F(Setters, PfsMeasurementIsNarrowedByGuideProbe) {
    const auto put_double = [](Bytes& bytes, std::size_t offset, unsigned char high, unsigned char next) {
        Put(bytes, offset, {high, next, 0, 0, 0, 0, 0, 0});
    };
    Bytes wire(312, 0);
    for (std::size_t probe = 0; probe < 3; ++probe) {
        const auto step = static_cast<unsigned char>(16 * probe);  // doubles the value
        put_double(wire, 44 + 88 * probe, 0x3F, static_cast<unsigned char>(0xC0 + step));  // 0.125
        put_double(wire, 52 + 88 * probe, 0xBF, static_cast<unsigned char>(0xC0 + step));  // -0.125
        put_double(wire, 76 + 88 * probe, 0x40, static_cast<unsigned char>(0x00 + step));  // 2
    }
    put_double(wire, 304, 0x40, 0x08);  // 3
    PfsInputDataSync sync;
    sync.SetData(*FromBytes<vosk::pfs::PFSTargetData>(wire), 3U, At(8));
    const PfsInputData data = sync.GetData();
    EXPECT_EQ(data.gp_tt,
              (std::array<FloatVectorTT, 3>{{{0.125F, -0.125F}, {0.25F, -0.25F}, {0.5F, -0.5F}}}));
    EXPECT_EQ(data.gp_value, (std::array<float, 3>{2.0F, 4.0F, 8.0F}));
    EXPECT_EQ(data.value, 3.0F);
    ExpectStamp(sync, 3, At(8));
}

TEST_F(Setters, PfsPointingStartsAtItsDefaultAndFollowsTheWire) {
    PfsTargetDataSync sync;
    EXPECT_EQ(sync.GetData().values, (std::array<double, 5>{-1.3493615328852238, -0.4624148042720943,
                                                            1.9259871576545562, 1.1978399934348485, 0.0}));
    Bytes wire(40, 0);
    Put(wire, 0, {0x3F, 0xF0});
    Put(wire, 32, {0xC0, 0x00});
    sync.SetData(*FromBytes<vosk::pfs::TelPointingData>(wire), 3U);
    EXPECT_EQ(sync.GetData().values, (std::array<double, 5>{1.0, 0.0, 0.0, 0.0, -2.0}));
    ExpectStamp(sync, 3, At(0));
}

TEST_F(Setters, M5PositionGoesOutNarrowedAndValid) {
    AoM5PttActDataSync sync;
    EXPECT_EQ(BytesOf(sync.GetData().payload), Bytes(12));
    EXPECT_EQ(BytesOf(sync.GetData().header), Bytes(33));

    sync.GetDataRef().header.receive_time = At(99);
    sync.SetData(M5PttAct::Payload{1.0, -2.0, 0.5, {}}, 3U, At(0x0102));
    EXPECT_EQ(BytesOf(sync.GetData().payload), (Bytes{0, 0, 0x80, 0x3F, 0, 0, 0, 0xC0, 0, 0, 0, 0x3F}));
    Bytes header(33);
    Put(header, 14, {1, 2});
    header[32] = 1;
    EXPECT_EQ(BytesOf(sync.GetData().header), header);
    ExpectStamp(sync, 3, At(0x0102));
}

TEST_F(Setters, FieldStabilizationTipTiltGoesOutValid) {
    AoFieldStabilizationU4DataSync sync;
    sync.SetData(1.0F, -2.0F, 3U);
    EXPECT_EQ(BytesOf(sync.GetData().payload), (Bytes{0, 0, 0x80, 0x3F, 0, 0, 0, 0xC0}));
    EXPECT_EQ(BytesOf(sync.GetData().header), (Bytes{1, 0, 0, 0}));
    ExpectStamp(sync, 3, At(0));
}

TEST_F(Setters, CapacitiveSensorsGoOutConvertedAndValid) {
    Bytes wire = WireRamp(M4_CMD_SIZE, -7.0F);
    wire.resize(21416, 0xFF);
    const auto sync = std::make_unique<AoM4CapSensActDataSync>();
    sync->SetData(*FromBytes<M4Feedback::Payload>(wire), 3U);
    EXPECT_EQ(sync->GetDataRef().payload.values, Ramp<M4_CMD_SIZE>(-7.0F));
    EXPECT_EQ(BytesOf(sync->GetDataRef().header), (Bytes{1, 0, 0, 0}));
    ExpectStamp(*sync, 3, At(0));
}

TEST_F(Setters, SimulationRecordStartsWithItsOnes) {
    Bytes expected(1808);
    for (std::size_t block = 0; block < 4; ++block) expected[32 + 444 * block + 11] = 1;
    EXPECT_EQ(BytesOf(EcmWfSimDataSync{}.GetData()), expected);
}

// ---- The applied setpoint -------------------------------------------------------------------------------

class AppliedSetpoint : public Setters {
protected:
    using CmdSource = AoM4SetpointApplied::ExtInfo::CmdSource;

    void Set(float first, std::int64_t applied_time, CmdSource source, sample_id_t id) {
        m_sync->SetData(Ramp<INS_CMD_SIZE>(first), At(applied_time), source, id);
    }

    void ExpectSent(float first, unsigned char applied_time, const Bytes& status) const {
        EXPECT_EQ(m_sync->GetDataRef().payload.applied, Ramp<INS_CMD_SIZE>(first));
        Bytes header(36);
        header[15] = applied_time;
        Put(header, 32, status);
        EXPECT_EQ(BytesOf(m_sync->GetDataRef().header), header);
    }

    std::unique_ptr<AoM4SetpointAppliedDataSync> m_sync = std::make_unique<AoM4SetpointAppliedDataSync>();
};

TEST_F(AppliedSetpoint, NamesItsSourceAndThatATimeIsGiven) {
    m_sync->GetDataRef().header.receive_time = At(99);
    Set(1.0F, 7, CmdSource::CCS, 3);
    ExpectSent(1.0F, 7, {0x03, 0x00});
    ExpectStamp(*m_sync, 3, At(5000));
    Set(2.0F, 8, CmdSource::INS_CASCADE, 4);
    ExpectSent(2.0F, 8, {0x05, 0x00});
    Set(3.0F, 9, CmdSource::INS_SEQUENTIAL, 5);
    ExpectSent(3.0F, 9, {0x09, 0x00});
}

TEST_F(AppliedSetpoint, WithoutATimeAddsItsSourceToTheStatus) {
    Set(1.0F, 7, CmdSource::CCS, 3);
    Set(2.0F, 0, CmdSource::INS_CASCADE, 4);
    ExpectSent(2.0F, 0, {0x07, 0x00});
    Set(3.0F, 0, CmdSource::INS_SEQUENTIAL, 5);
    ExpectSent(3.0F, 0, {0x0F, 0x00});
}

TEST_F(AppliedSetpoint, WithoutASourceRepeatsTheLastPayloadWithStatusZero) {
    Set(1.0F, 7, CmdSource::CCS, 3);
    Set(2.0F, 8, CmdSource::NONE, 4);
    ExpectSent(1.0F, 7, {0, 0});
    ExpectStamp(*m_sync, 4, At(5000));
}

// ---- The inputs of AoTasks ------------------------------------------------------------------------------

bool IsPace(VoskControlMode mode, std::initializer_list<int> modes) {
    return std::ranges::find(modes, static_cast<int>(mode)) != modes.end();
}

class InEachMode : public Setters, public testing::WithParamInterface<VoskControlMode> {
protected:
    InEachMode() { VoskTelescopeStateManager::SetCurrentControlMode(GetParam()); }

    template <class Sync>
    static void ExpectStored(const Sync& sync, bool woken) {
        EXPECT_TRUE(sync.IsNewData());
        EXPECT_EQ(const_cast<Sync&>(sync).IsDataReady(), woken);
        ExpectStamp(sync, 3, At(0));
    }
};
INSTANTIATE_TEST_SUITE_P(Setters, InEachMode, testing::ValuesIn(ALL_MODES),
                         [](const auto& parameters) { return vosk::to_string(parameters.param); });

TEST_P(InEachMode, WavefrontCommandIsStoredWholeOnlyWhereItIsThePace) {
    for (const std::uint8_t flags : std::array<std::uint8_t, 4>{0x00, 0x01, 0xFE, 0xFF}) {
        SCOPED_TRACE(static_cast<int>(flags));
        const bool pace = IsPace(GetParam(), {2, 3}) && (flags & 1U) != 0;
        const auto sync = std::make_unique<AoTasksInsDataSync>(false);
        const auto payload = std::make_unique<AoWavefrontCmdStream::Payload>();
        payload->command = Ramp<WAVEFRONT_CMD_SIZE>(1.0F);
        sync->GetDataRef().command = Ramp<WAVEFRONT_CMD_SIZE>(-9000.0F);

        sync->SetData(*payload, AoWavefrontCmdStream::ExtInfo::Header{flags, {}}, 3U);

        auto expected = pace ? payload->command : Ramp<WAVEFRONT_CMD_SIZE>(-9000.0F);
        expected[0] = 1.0F;
        expected[1] = 2.0F;
        EXPECT_EQ(sync->GetDataRef().command, expected);
        EXPECT_EQ(sync->GetDataRef().flags, flags);
        ExpectStored(*sync, pace);
    }
}

TEST_P(InEachMode, FieldStabilizationTipTiltIsStoredAlways) {
    AoTasksFsDataSync sync(false);
    sync.SetData(1.0F, 2.0F, 3U);
    EXPECT_EQ(sync.GetData(), (FloatVectorTT{1.0F, 2.0F}));
    ExpectStored(sync, IsPace(GetParam(), {1, 5}));
}

TEST_P(InEachMode, GpaoCommandIsStoredAlways) {
    const auto sync = std::make_unique<AoTasksGpaoDataSync>(false);
    const auto command = std::make_unique<GpaoM4SetpointData>();
    command->command = Ramp<INS_CMD_SIZE>(1.0F);
    sync->SetData(*command, 3U);
    EXPECT_EQ(sync->GetDataRef().command, command->command);
    ExpectStored(*sync, IsPace(GetParam(), {4, 6}));
}

TEST_F(Setters, CoefficientsOfAnInactiveCameraChangeNothing) {
    VoskTelescopeStateManager::SetActiveCameraFS(Camera::WFS_GP2);
    const auto sync = std::make_unique<GpaoCoefficientsDataSync>(false);
    const auto coefficients = std::make_unique<GpaoCoefficients>();
    coefficients->modes = Ramp<GPAO_CMD_SIZE>(1.0F);
    coefficients->slopes.assign(1089, Slope{1.0, 2.0, 3.0});
    sync->SetData(*coefficients, Camera::WFS_GP2, 3U);
    EXPECT_EQ(sync->GetDataRef().modes, coefficients->modes);
    EXPECT_EQ(sync->GetDataRef().slopes, coefficients->slopes);
    EXPECT_TRUE(sync->IsDataReady());
    ExpectStamp(*sync, 3, At(5000));

    sync->ClearDataReady();
    sync->SetData(GpaoCoefficients{}, Camera::WFS_GP1, 4U, At(6000));
    EXPECT_EQ(sync->GetDataRef().modes, coefficients->modes);
    EXPECT_EQ(sync->GetDataRef().slopes.size(), 1089U);
    EXPECT_FALSE(sync->IsDataReady());
    ExpectStamp(*sync, 3, At(5000));
}

}  // namespace
