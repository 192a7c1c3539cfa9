#include <vosk/defs/controlMode.hpp>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

using namespace vosk::defs;
using vosk::to_string;

template <class Enum>
void ExpectUnknown(unsigned value) {
    try {
        to_string(static_cast<Enum>(value));
        ADD_FAILURE() << value << " has a text";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Unknown enum value.");
    }
}

TEST(ControlMode, CamerasAreFoundByTheirTexts) {
    EXPECT_EQ(CAMERAS.size(), 8U);
    for (const auto& [text, camera] : CAMERAS) EXPECT_EQ(to_string(camera), text);
    EXPECT_EQ(CAMERAS.at("IMG_PDS"), Camera{3});
    EXPECT_EQ(CAMERAS.at("WFS_GP1"), Camera{4});
    EXPECT_THROW(CAMERAS.at("WFS_GP4"), std::out_of_range);
}

TEST(ControlMode, TextsFollowTheNumbers) {
    EXPECT_EQ(to_string(VoskControlMode{1}), "TEL_DRIVEN");
    EXPECT_EQ(to_string(VoskControlMode{4}), "TEL_DRIVEN_WITH_GPAO_TT");
    EXPECT_EQ(to_string(VoskControlMode{6}), "HIGH_ORDER_CASCADE_WITH_GPAO_TT");
    EXPECT_EQ(to_string(AoCommandSource{1}), "CCS/TEL");
    EXPECT_EQ(to_string(AoCommandSource{3}), "OFF");
}

TEST(ControlMode, ValuesOutsideTheTablesHaveNoText) {
    ExpectUnknown<VoskControlMode>(0);
    ExpectUnknown<VoskControlMode>(7);
    ExpectUnknown<Camera>(8);
    ExpectUnknown<AoCommandSource>(4);
}

}  // namespace
