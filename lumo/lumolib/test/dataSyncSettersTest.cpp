// What each setter stores, against wire bytes and records in memory that are written by hand.

#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>

#include <bit>
#include <vosk/defs/controlMode.hpp>
#include <vosk/defs/wireRecords.hpp>
#include <vosk/test/support.hpp>

namespace vosk::lumo {
namespace {

using namespace defs;
using Bytes = std::vector<unsigned char>;
using vosk::test::At;

// Of the size, all of them `rest` but for the pieces at their offsets.
Bytes BytesWith(std::size_t size, const std::vector<std::pair<std::size_t, Bytes>>& pieces,
                unsigned char rest = 0) {
    Bytes bytes(size, rest);
    for (const auto& [offset, piece] : pieces)
        std::ranges::copy(piece, bytes.begin() + static_cast<std::ptrdiff_t>(offset));
    return bytes;
}

template <class Record>
Bytes BytesOf(const Record& record) {
    Bytes bytes(sizeof(Record));
    std::memcpy(bytes.data(), &record, sizeof(Record));
    return bytes;
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

// M4's floats in wire order, written byte by byte.
Bytes WireRamp(float first) {
    Bytes bytes;
    for (std::size_t i = 0; i < M4_CMD_SIZE; ++i) {
        const auto bits = std::bit_cast<std::uint32_t>(first++);
        for (unsigned shift : {24U, 16U, 8U, 0U}) bytes.push_back(static_cast<unsigned char>(bits >> shift));
    }
    return bytes;
}

// The exchange object after one write with ID 3, whose time is `stamp` then. The present time is 5000.
template <class Sync, class... Values>
std::unique_ptr<Sync> Written(const time_point& stamp, const Values&... values) {
    std::unique_ptr<Sync> sync;
    if constexpr (std::is_default_constructible_v<Sync>)
        sync = std::make_unique<Sync>();
    else
        sync = std::make_unique<Sync>(false);
    sync->SetData(values...);
    EXPECT_EQ(sync->GetSampleId(), 3U);
    EXPECT_EQ(sync->GetTimestamp(), stamp);
    EXPECT_TRUE(sync->IsNewData());
    return sync;
}

class Setters : public testing::Test {
protected:
    ~Setters() override {
        VoskTelescopeStateManager::Reset();
        VoskTelescopeStateManager::SetActiveCameraFS(Camera::IMG_GP1);
    }

    atomclk::ManualClock m_clock{At(5000)};
};

TEST_F(Setters, M4SetpointIsMarkedValidAndItsAnswerConvertedFromTheWire) {
    const auto setpoint = Ramp<M4_CMD_SIZE>(1.0F);
    const auto output = Written<M4OutputDataSync>(At(5000), setpoint, At(77), 3U);
    EXPECT_EQ(output->GetDataRef().setpoint, setpoint);
    EXPECT_EQ(output->GetDataRef().send_time, At(77));
    EXPECT_EQ(output->GetDataRef().valid, 1U);
    EXPECT_TRUE(output->IsDataReady());

    const Bytes wire = BytesWith(
        21432,
        {{0, WireRamp(1.0F)}, {21408, {0, 0, 0, 0, 0, 0, 0x01, 0x02}}, {21424, {1, 2, 3, 4, 5, 6, 7, 8}}},
        0xFF);
    const auto input = Written<M4InputDataSync>(At(0), *FromBytes<M4SetpointApplied::Payload>(wire), 3U);
    EXPECT_EQ(input->GetDataRef().setpoint, setpoint);
    EXPECT_EQ(input->GetDataRef().applied_time, At(0x0102));
    EXPECT_EQ(input->GetDataRef().applied_sample_id, 0x0102030405060708U);
}

TEST_F(Setters, GpaoAppliedSetpointIsZeroBehindItsData) {
    GpaoM4SetpointAppliedDataSync sync;
    sync.GetDataRef().setpoint.fill(9.0F);
    sync.SetData(Ramp<INS_CMD_SIZE>(1.0F), 3U);
    auto expected = Ramp<M4_CMD_SIZE>(1.0F);
    std::fill(expected.begin() + 4866, expected.end(), 0.0F);
    EXPECT_EQ(sync.GetDataRef().setpoint, expected);
}

TEST_F(Setters, PfsDataIsNarrowedByGuideProbe) {
    const auto wire = BytesWith(312, {{44, {0x3F, 0xC0}},     // 0.125
                                      {52, {0xBF, 0xC0}},     // -0.125
                                      {252, {0x40, 0x20}},    // 8
                                      {304, {0x40, 0x08}}});  // 3
    const auto data =
        Written<PfsInputDataSync>(At(8), *FromBytes<pfs::PFSTargetData>(wire), 3U, At(8))->GetData();
    EXPECT_EQ(data.gp_tt, (std::array<FloatVectorTT, 3>{{{0.125F, -0.125F}}}));
    EXPECT_EQ(data.gp_value, (std::array<float, 3>{0.0F, 0.0F, 8.0F}));
    EXPECT_EQ(data.value, 3.0F);
}

TEST_F(Setters, RecordsForTheInstrumentGoOutConvertedAndValid) {
    AoM5PttActDataSync m5;
    m5.GetDataRef().header.receive_time = At(99);
    m5.SetData(M5PttAct::Payload{1.0, -2.0, 0.5, {}}, 3U, At(0x0102));
    EXPECT_EQ(BytesOf(m5.GetData().payload), (Bytes{0, 0, 0x80, 0x3F, 0, 0, 0, 0xC0, 0, 0, 0, 0x3F}));
    EXPECT_EQ(BytesOf(m5.GetData().header), BytesWith(33, {{14, {1, 2}}, {32, {1}}}));

    const auto u4 = Written<AoFieldStabilizationU4DataSync>(At(0), 1.0F, -2.0F, 3U);
    EXPECT_EQ(BytesOf(u4->GetData().payload), (Bytes{0, 0, 0x80, 0x3F, 0, 0, 0, 0xC0}));
    EXPECT_EQ(BytesOf(u4->GetData().header), (Bytes{1, 0, 0, 0}));

    const Bytes wire = BytesWith(21416, {{0, WireRamp(-7.0F)}}, 0xFF);
    const auto sensors = Written<AoM4CapSensActDataSync>(At(0), *FromBytes<M4Feedback::Payload>(wire), 3U);
    EXPECT_EQ(sensors->GetDataRef().payload.values, Ramp<M4_CMD_SIZE>(-7.0F));
    EXPECT_EQ(BytesOf(sensors->GetDataRef().header), (Bytes{1, 0, 0, 0}));
}

TEST_F(Setters, AppliedSetpointAddsItsSourceToTheStatusIfNoTimeIsGiven) {
    using enum AoM4SetpointApplied::ExtInfo::CmdSource;
    AoM4SetpointAppliedDataSync sync;
    sync.GetDataRef().header.receive_time = At(99);
    const auto expect = [&](float payload, unsigned char applied_time, unsigned char status) {
        EXPECT_EQ(sync.GetDataRef().payload.applied, Ramp<INS_CMD_SIZE>(payload));
        EXPECT_EQ(BytesOf(sync.GetDataRef().header), BytesWith(36, {{15, {applied_time}}, {32, {status}}}));
    };
    sync.SetData(Ramp<INS_CMD_SIZE>(1.0F), At(7), CCS, 1U);
    expect(1.0F, 7, 0x03);
    sync.SetData(Ramp<INS_CMD_SIZE>(2.0F), At(8), INS_CASCADE, 2U);
    expect(2.0F, 8, 0x05);
    sync.SetData(Ramp<INS_CMD_SIZE>(3.0F), At(0), INS_SEQUENTIAL, 3U);
    expect(3.0F, 0, 0x0D);
    sync.SetData(Ramp<INS_CMD_SIZE>(4.0F), At(9), NONE, 4U);  // the last payload is repeated
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

        const auto fs = Written<AoTasksFsDataSync>(At(0), 1.0F, 2.0F, 3U);
        EXPECT_EQ(fs->GetData(), (FloatVectorTT{1.0F, 2.0F}));
        EXPECT_EQ(fs->IsDataReady(), PACES[i] == FS);

        const GpaoM4SetpointData command{Ramp<INS_CMD_SIZE>(1.0F)};
        const auto gpao = Written<AoTasksGpaoDataSync>(At(0), command, 3U);
        EXPECT_EQ(gpao->GetDataRef().command, command.command);
        EXPECT_EQ(gpao->IsDataReady(), PACES[i] == GPAO);

        for (const std::uint8_t flags : std::array<std::uint8_t, 4>{0x00, 0x01, 0xFE, 0xFF}) {
            const bool whole = PACES[i] == INS && (flags & 1U) != 0;
            AoTasksInsDataSync ins(false);
            const AoWavefrontCmdStream::Payload payload{Ramp<WAVEFRONT_CMD_SIZE>(1.0F)};
            ins.GetDataRef().command = Ramp<WAVEFRONT_CMD_SIZE>(-9000.0F);
            ins.SetData(payload, AoWavefrontCmdStream::ExtInfo::Header{flags, {}}, 3U);
            auto expected = whole ? payload.command : Ramp<WAVEFRONT_CMD_SIZE>(-9000.0F);
            expected[0] = 1.0F;
            expected[1] = 2.0F;
            EXPECT_EQ(ins.GetDataRef().command, expected);
            EXPECT_EQ(ins.GetDataRef().flags, flags);
            EXPECT_EQ(ins.IsDataReady(), whole);
            EXPECT_TRUE(ins.IsNewData());
        }
    }
}

TEST_F(Setters, CoefficientsOfAnInactiveCameraChangeNothing) {
    VoskTelescopeStateManager::SetActiveCameraFS(Camera::WFS_GP2);
    GpaoCoefficients coefficients;
    coefficients.slopes.assign(1089, Slope{1.0, 2.0, 3.0});
    const auto sync = Written<GpaoCoefficientsDataSync>(At(5000), coefficients, Camera::WFS_GP2, 3U);
    EXPECT_TRUE(sync->IsDataReady());
    sync->ClearDataReady();
    EXPECT_FALSE(sync->IsNewData());
    sync->SetData(GpaoCoefficients{}, Camera::WFS_GP1, 4U, At(6000));
    EXPECT_EQ(sync->GetDataRef().slopes, coefficients.slopes);
    EXPECT_FALSE(sync->IsDataReady());
    EXPECT_EQ(sync->GetSampleId(), 3U);
}

}  // namespace
}  // namespace vosk::lumo
