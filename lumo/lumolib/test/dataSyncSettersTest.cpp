#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>

#include <bit>
#include <vosk/defs/controlMode.hpp>
#include <vosk/defs/wireRecords.hpp>
#include <vosk/test/support.hpp>

namespace {

using namespace vosk::lumo;
using namespace vosk::defs;
using Bytes = std::vector<unsigned char>;
using vosk::test::At;

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
    Bytes wire(312, 0);
    for (std::size_t probe = 0; probe < 3; ++probe) {
        const auto step = static_cast<unsigned char>(16 * probe);                     // doubles the value
        Put(wire, 44 + 88 * probe, {0x3F, static_cast<unsigned char>(0xC0 + step)});  // 0.125
        Put(wire, 52 + 88 * probe, {0xBF, static_cast<unsigned char>(0xC0 + step)});  // -0.125
        Put(wire, 76 + 88 * probe, {0x40, step});                                     // 2
    }
    Put(wire, 304, {0x40, 0x08});  // 3
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

TEST_F(Setters, AppliedSetpointAddsItsSourceToTheStatusIfNoTimeIsGiven) {
    using enum AoM4SetpointApplied::ExtInfo::CmdSource;
    const auto sync = std::make_unique<AoM4SetpointAppliedDataSync>();
    sync->GetDataRef().header.receive_time = At(99);
    sample_id_t id = 0;
    const auto expect = [&](float payload, unsigned char applied_time, unsigned char status) {
        EXPECT_EQ(sync->GetDataRef().payload.applied, Ramp<INS_CMD_SIZE>(payload));
        Bytes header(36);
        header[15] = applied_time;
        header[32] = status;
        EXPECT_EQ(BytesOf(sync->GetDataRef().header), header);
        ExpectStamp(*sync, id, At(5000));
    };
    sync->SetData(Ramp<INS_CMD_SIZE>(1.0F), At(7), CCS, ++id);
    expect(1.0F, 7, 0x03);
    sync->SetData(Ramp<INS_CMD_SIZE>(2.0F), At(8), INS_CASCADE, ++id);
    expect(2.0F, 8, 0x05);
    sync->SetData(Ramp<INS_CMD_SIZE>(3.0F), At(0), INS_SEQUENTIAL, ++id);
    expect(3.0F, 0, 0x0D);
    sync->SetData(Ramp<INS_CMD_SIZE>(4.0F), At(9), NONE, ++id);  // the last payload is repeated
    expect(3.0F, 0, 0x00);
}

// Each input is stored in every mode, and sets the pace in its own.
TEST_F(Setters, EachModeHasOnePaceSetter) {
    enum Pace { FS, INS, GPAO };
    constexpr std::array PACES{FS, INS, INS, GPAO, FS, GPAO};
    for (std::size_t i = 0; i < PACES.size(); ++i) {
        const auto mode = static_cast<VoskControlMode>(i + 1);
        SCOPED_TRACE(vosk::to_string(mode));
        VoskTelescopeStateManager::SetCurrentControlMode(mode);

        AoTasksFsDataSync fs(false);
        fs.SetData(1.0F, 2.0F, 3U);
        EXPECT_EQ(fs.GetData(), (FloatVectorTT{1.0F, 2.0F}));
        EXPECT_EQ(fs.IsDataReady(), PACES[i] == FS);
        EXPECT_TRUE(fs.IsNewData());
        ExpectStamp(fs, 3, At(0));

        const auto gpao = std::make_unique<AoTasksGpaoDataSync>(false);
        const auto command = std::make_unique<GpaoM4SetpointData>();
        command->command = Ramp<INS_CMD_SIZE>(1.0F);
        gpao->SetData(*command, 3U);
        EXPECT_EQ(gpao->GetDataRef().command, command->command);
        EXPECT_EQ(gpao->IsDataReady(), PACES[i] == GPAO);
        EXPECT_TRUE(gpao->IsNewData());
        ExpectStamp(*gpao, 3, At(0));

        for (const std::uint8_t flags : std::array<std::uint8_t, 4>{0x00, 0x01, 0xFE, 0xFF}) {
            const bool whole = PACES[i] == INS && (flags & 1U) != 0;
            const auto ins = std::make_unique<AoTasksInsDataSync>(false);
            const auto payload = std::make_unique<AoWavefrontCmdStream::Payload>();
            payload->command = Ramp<WAVEFRONT_CMD_SIZE>(1.0F);
            ins->GetDataRef().command = Ramp<WAVEFRONT_CMD_SIZE>(-9000.0F);
            ins->SetData(*payload, AoWavefrontCmdStream::ExtInfo::Header{flags, {}}, 3U);
            auto expected = whole ? payload->command : Ramp<WAVEFRONT_CMD_SIZE>(-9000.0F);
            expected[0] = 1.0F;
            expected[1] = 2.0F;
            EXPECT_EQ(ins->GetDataRef().command, expected);
            EXPECT_EQ(ins->GetDataRef().flags, flags);
            EXPECT_EQ(ins->IsDataReady(), whole);
            EXPECT_TRUE(ins->IsNewData());
            ExpectStamp(*ins, 3, At(0));
        }
    }
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
