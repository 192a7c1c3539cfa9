#include <vosk/defs/byteOrder.hpp>

#include <vosk/test/support.hpp>

namespace {

using vosk::defs::BigEndian;
using vosk::defs::M4_CMD_SIZE;

template <class T>
std::vector<int> BytesOf(const T& value) {
    std::array<unsigned char, sizeof(T)> bytes;
    std::memcpy(bytes.data(), &value, sizeof(T));
    return {bytes.begin(), bytes.end()};
}

TEST(BigEndian, StandsOnTheWireWithTheHighByteFirst) {
    EXPECT_EQ(BytesOf(BigEndian<std::uint16_t>{0x0102}), (std::vector{1, 2}));
    EXPECT_EQ(BytesOf(BigEndian<std::uint32_t>{1}), (std::vector{0, 0, 0, 1}));
    EXPECT_EQ(BytesOf(BigEndian<std::uint64_t>{0x0102030405060708}), (std::vector{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(BytesOf(BigEndian<float>{1.0F}), (std::vector{0x3F, 0x80, 0, 0}));
    EXPECT_EQ(BytesOf(BigEndian<double>{-2.0}), (std::vector{0xC0, 0, 0, 0, 0, 0, 0, 0}));
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

    vosk::defs::ToWireOrder(*host, wire->values);
    const auto swapped = BytesOf(wire->values);
    for (std::size_t i = 0; i < swapped.size(); ++i) ASSERT_EQ(swapped[i], original[i ^ 3U]) << i;

    std::ranges::fill(*host, 0.0F);
    vosk::defs::ToHostOrder(wire->values, *host);
    EXPECT_EQ(BytesOf(*host), original);
}

}  // namespace
