#include <vosk/defs/valueTypes.hpp>
#include <vosk/defs/wireRecords.hpp>

#include <vosk/test/support.hpp>

namespace {

using namespace vosk::defs;
using namespace vosk::pfs;
using vosk::test::At;
using Bytes = std::vector<unsigned char>;

template <class Record>
Bytes BytesOf(const Record& record) {
    Bytes bytes(sizeof(Record));
    std::memcpy(bytes.data(), &record, sizeof(Record));
    return bytes;
}

static_assert(offsetof(MaranaLeaderInfo, width) == 12 && offsetof(MaranaLeaderInfo, height) == 16 &&
              offsetof(MaranaLeaderInfo, x_offset) == 20);

TEST(WireRecords, EveryStatusWordNamesASource) {
    using enum AoCommandSource;
    const std::array<AoCommandSource, 8> by_bits{NONE, CCS, INS, CCS, INS, OFF, OFF, OFF};
    for (unsigned status = 0; status <= 0xFFFF; ++status) {
        ASSERT_EQ(AoM4SetpointApplied::ExtInfo::SourceOf(static_cast<std::uint16_t>(status)),
                  by_bits[(status >> 9U) & 7U])
            << status;
    }
}

TEST(WireRecords, StandOnTheWireAsPeersReadThem) {
    M4Setpoint::Payload setpoint;
    setpoint.setpoint.back() = 1.0F;
    setpoint.valid = 1;
    const Bytes all = BytesOf(setpoint);
    EXPECT_EQ(Bytes(all.end() - 12, all.end()), (Bytes{0x3F, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));

    const GuideProbeCorrection correction{At(0x0A), 1.0, -2.0, 1};
    EXPECT_EQ(BytesOf(correction), (Bytes{0, 0, 0,    0, 0, 0, 0, 0x0A, 0x3F, 0xF0, 0, 0, 0, 0,
                                          0, 0, 0xC0, 0, 0, 0, 0, 0,    0,    0,    0, 0, 0, 1}));

    Bytes expected(1808);
    for (std::size_t block = 0; block < 4; ++block) expected[32 + 444 * block + 11] = 1;
    EXPECT_EQ(BytesOf(WfsPayload{}), expected);
    EXPECT_EQ(BytesOf(AoM5PttAct::ExtInfo::Header{}), Bytes(33));
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
