#include <vosk/defs/valueTypes.hpp>
#include <vosk/defs/wireRecords.hpp>

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>
#include <type_traits>
#include <vector>

namespace {

using namespace vosk::defs;
using namespace vosk::pfs;
using Bytes = std::vector<unsigned char>;

template <class Record>
Bytes BytesOf(const Record& record) {
    static_assert(std::is_trivially_copyable_v<Record>);
    Bytes bytes(sizeof(Record));
    std::memcpy(bytes.data(), &record, sizeof(Record));
    return bytes;
}

// A record of zeroes but for the bytes given from offset on.
template <class Record>
Record FromBytes(std::size_t offset, const Bytes& bytes) {
    auto all = Bytes(sizeof(Record));
    std::copy(bytes.begin(), bytes.end(), all.begin() + static_cast<std::ptrdiff_t>(offset));
    Record record;
    std::memcpy(static_cast<void*>(&record), all.data(), sizeof(Record));
    return record;
}

Bytes Slice(const Bytes& bytes, std::size_t offset, std::size_t length) {
    const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
    return {begin, begin + static_cast<std::ptrdiff_t>(length)};
}

time_point At(std::int64_t count) {
    return time_point{std::chrono::nanoseconds{count}};
}

TEST(WireRecords, M4SetpointEndsInABigEndianOne) {
    M4Setpoint::Payload setpoint;
    setpoint.setpoint.back() = 1.0F;
    setpoint.valid = 1;
    EXPECT_EQ(Slice(BytesOf(setpoint), 21404, 12), (Bytes{0x3F, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
}

TEST(WireRecords, M4AnswerAndFeedbackAreReadAtTheirOffsets) {
    const auto answer = FromBytes<M4SetpointApplied::Payload>(
        21408, {0, 0, 0, 0, 0, 0, 0x01, 0x02, 9, 9, 9, 9, 9, 9, 9, 9, 0, 0, 0, 0, 0, 0, 0x03, 0x04});
    EXPECT_EQ(time_point{answer.applied_time}, At(0x0102));
    EXPECT_EQ(answer.applied_sample_id, 0x0304U);

    const auto feedback = FromBytes<M4Feedback::Payload>(21404, {0x40, 0, 0, 0, 0, 0, 0x12, 0x34});
    EXPECT_EQ(feedback.values.back(), 2.0F);
    EXPECT_EQ(feedback.counter, 0x1234U);
}

TEST(WireRecords, EveryStatusWordNamesASource) {
    using ExtInfo = AoM4SetpointApplied::ExtInfo;
    using enum AoCommandSource;
    const std::array<AoCommandSource, 8> by_bits{NONE, CCS, INS, CCS, INS, OFF, OFF, OFF};
    for (unsigned status = 0; status <= 0xFFFF; ++status) {
        ASSERT_EQ(ExtInfo::SourceOf(static_cast<std::uint16_t>(status)), by_bits[(status >> 9U) & 7U])
            << status;
    }
}

TEST(WireRecords, AppliedHeaderHoldsItsStatusWordBehindTheReservedBytes) {
    AoM4SetpointApplied::ExtInfo::Header header;
    header.receive_time = At(1);
    header.applied_time = At(2);
    header.status = 0x0902;
    Bytes expected(36);
    expected[7] = 1;
    expected[15] = 2;
    expected[32] = 0x09;
    expected[33] = 0x02;
    EXPECT_EQ(BytesOf(header), expected);
}

template <class T>
class LspxRecords : public testing::Test {};
using AoStreams = testing::Types<AoM5PttAct, AoFieldStabilizationU4, AoM4SetpointApplied, AoM4CapSensAct>;
TYPED_TEST_SUITE(LspxRecords, AoStreams);

TYPED_TEST(LspxRecords, HeaderFollowsThePayloadWithoutAGap) {
    using Payload = typename TypeParam::Payload;
    using Header = typename TypeParam::ExtInfo::Header;
    const auto record = std::make_unique<LspxData<Payload, Header>>();
    EXPECT_EQ(reinterpret_cast<const std::byte*>(&record->header) -
                  reinterpret_cast<const std::byte*>(record.get()),
              static_cast<std::ptrdiff_t>(sizeof(Payload)));
    for (const auto byte : BytesOf(*record)) ASSERT_EQ(byte, 0);
}

TEST(WireRecords, PfsMeasurementIsReadAtItsOffsets) {
    for (std::size_t probe = 0; probe < GP_COUNT; ++probe) {
        const auto tt = FromBytes<PFSTargetData>(44 + 88 * probe,
                                                 {0x3F, 0xF0, 0, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0});
        EXPECT_EQ(tt.guide_probes[probe].tip, 1.0);
        EXPECT_EQ(tt.guide_probes[probe].tilt, -2.0);
        const auto value = FromBytes<PFSTargetData>(76 + 88 * probe, {0x40, 0x08, 0, 0, 0, 0, 0, 0});
        EXPECT_EQ(value.guide_probes[probe].value, 3.0);
    }
    EXPECT_EQ((FromBytes<PFSTargetData>(272, {0x3F, 0xF0}).pointing.values[0]), 1.0);
    EXPECT_EQ((FromBytes<PFSTargetData>(304, {0x3F, 0xF0}).pointing.values[4]), 1.0);
}

TEST(WireRecords, GuideProbeCorrectionIsBigEndianThroughout) {
    const GuideProbeCorrection correction{At(0x0A), 1.0, -2.0, 1};
    EXPECT_EQ(BytesOf(correction), (Bytes{0, 0, 0,    0, 0, 0, 0, 0x0A, 0x3F, 0xF0, 0, 0, 0, 0,
                                          0, 0, 0xC0, 0, 0, 0, 0, 0,    0,    0,    0, 0, 0, 1}));
}

TEST(WireRecords, FreshSimulationSampleIsZeroButForItsOnes) {
    Bytes expected(1808);
    for (std::size_t block = 0; block < 4; ++block) expected[32 + 444 * block + 11] = 1;
    EXPECT_EQ(BytesOf(WfsPayload{}), expected);
}

TEST(WireRecords, SimulationBlocksAreReadAtTheirOffsets) {
    for (std::size_t block = 0; block < 4; ++block) {
        const auto sample = FromBytes<WfsPayload>(
            32 + 444 * block, {0, 0, 0, 0, 0, 0, 0, 7, 0, 0, 0, 1, 0x3F, 0xF0, 0, 0, 0, 0, 0, 0, 0xC0});
        EXPECT_EQ(time_point{sample.blocks[block].timestamp}, At(7));
        EXPECT_EQ(sample.blocks[block].x, 1.0);
        EXPECT_EQ(sample.blocks[block].y, -2.0);
    }
}

TEST(WireRecords, MaranaLeaderListsTheWindowAfterTheDataType) {
    const auto leader = FromBytes<MaranaLeaderInfo>(
        0, {0, 0, 0, 0, 0, 0, 0, 9, 0, 0, 2, 0, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4});
    EXPECT_EQ(time_point{leader.exposure_time}, At(9));
    EXPECT_EQ(leader.data_type, MaranaLeaderInfo::DATA_TYPE);
    EXPECT_EQ(leader.width, 1U);
    EXPECT_EQ(leader.height, 2U);
    EXPECT_EQ(leader.x_offset, 3U);
    EXPECT_EQ(leader.y_offset, 4U);
}

// Readers outside the process take the count from there.
TEST(ValueTypes, WfsTopicHoldsItsSlopesFirstAndTheirCountLast) {
    const auto topic = std::make_unique<WfsTopic>();
    topic->slopes.assign(3, Slope{1.0, 2.0, 3.0});
    const auto* bytes = reinterpret_cast<const std::byte*>(topic.get());
    EXPECT_EQ(reinterpret_cast<const std::byte*>(topic->slopes.data()) - bytes, 16);
    std::uint64_t count = 0;
    std::memcpy(&count, bytes + 26152, sizeof count);
    EXPECT_EQ(count, 3U);
}

}  // namespace
