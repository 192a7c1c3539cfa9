#include <vosk/defs/byteOrder.hpp>
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

TEST(BigEndian, StandsOnTheWireWithTheHighByteFirst) {
    EXPECT_EQ(BytesOf(BigEndian<std::uint16_t>{0x0102}), (Bytes{1, 2}));
    EXPECT_EQ(BytesOf(BigEndian<std::uint32_t>{1}), (Bytes{0, 0, 0, 1}));
    EXPECT_EQ(BytesOf(BigEndian<std::uint64_t>{0x0102030405060708}), (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(BytesOf(BigEndian<float>{1.0F}), (Bytes{0x3F, 0x80, 0, 0}));
    EXPECT_EQ(BytesOf(BigEndian<double>{-2.0}), (Bytes{0xC0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(double{BigEndian<double>{-1.3493615328852238}}, -1.3493615328852238);
    EXPECT_EQ(std::int32_t{BigEndian<std::int32_t>{-5}}, -5);
}

// All kinds of floats, NaNs with a payload among them, at an address that no vector load would choose.
TEST(ByteOrder, SwapsEveryBitPatternOfAVector) {
    struct Misaligned {
        std::byte offset{};
        std::array<BigEndian<float>, M4_CMD_SIZE> values;
    };
    auto wire = std::make_unique<Misaligned>();
    auto host = std::make_unique<std::array<float, M4_CMD_SIZE>>();
    for (std::uint32_t i = 0; i < M4_CMD_SIZE; ++i) {
        const std::uint32_t pattern = i * 0x9E3779B9U;
        std::memcpy(&(*host)[i], &pattern, sizeof pattern);
    }
    const auto original = BytesOf(*host);

    ToWireOrder(*host, wire->values);
    const auto swapped = BytesOf(wire->values);
    for (std::size_t i = 0; i < swapped.size(); ++i) ASSERT_EQ(swapped[i], original[i ^ 3U]) << i;

    std::ranges::fill(*host, 0.0F);
    ToHostOrder(wire->values, *host);
    EXPECT_EQ(BytesOf(*host), original);
}

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
