#include <vosk/defs/controlMode.hpp>

#include <vosk/test/support.hpp>

using namespace vosk::defs;
using vosk::to_string;

TEST(ControlMode, TextsFollowTheNumbers) {
    EXPECT_EQ(to_string(VoskControlMode{1}), "TEL_DRIVEN");
    EXPECT_EQ(to_string(VoskControlMode{4}), "TEL_DRIVEN_WITH_GPAO_TT");
    EXPECT_EQ(to_string(VoskControlMode{6}), "HIGH_ORDER_CASCADE_WITH_GPAO_TT");
    EXPECT_EQ(to_string(AoCommandSource{1}), "CCS/TEL");
    EXPECT_EQ(to_string(AoCommandSource{3}), "OFF");
    EXPECT_EQ(CAMERAS.size(), 8U);
    for (const auto& [text, camera] : CAMERAS) EXPECT_EQ(to_string(camera), text);
    EXPECT_EQ(CAMERAS.at("IMG_PDS"), Camera{3});
    EXPECT_EQ(CAMERAS.at("WFS_GP1"), Camera{4});
}

TEST(ControlMode, ValuesOutsideTheTablesHaveNoText) {
    for (const VoskControlMode mode : {VoskControlMode{0}, VoskControlMode{7}})
        EXPECT_THROW(to_string(mode), std::runtime_error);
    EXPECT_THROW(to_string(Camera{8}), std::runtime_error);
    EXPECT_THROW(to_string(AoCommandSource{4}), std::runtime_error);
}
