#include "../src/commands.hpp"

#include <gmock/gmock.h>

#include <stdexcept>

using namespace vosk::host;
using testing::StartsWith;
using vosk::defs::Camera;
using vosk::defs::VoskControlMode;

namespace {

class MockTarget : public ControlTarget {
public:
    MOCK_METHOD(void, SetMode, (VoskControlMode mode, std::optional<Camera> camera), (override));
    MOCK_METHOD(void, SetCamera, (Camera camera), (override));
    MOCK_METHOD(std::string, Status, (), (override));
    MOCK_METHOD(void, Stop, (), (override));
};

TEST(Commands, DoWhatTheirWordsSay) {
    testing::StrictMock<MockTarget> target;
    EXPECT_CALL(target, SetMode(VoskControlMode::INS_DRIVEN_CASCADE, std::optional{Camera::WFS_GP2}));
    EXPECT_CALL(target, SetMode(VoskControlMode::TEL_DRIVEN, std::optional<Camera>{}));
    EXPECT_CALL(target, SetCamera(Camera::IMG_PDS));
    EXPECT_CALL(target, Status()).WillOnce(testing::Return("{}"));
    EXPECT_CALL(target, Stop()).WillOnce(testing::Throw(std::runtime_error{"too late"}));
    EXPECT_EQ(Execute("mode INS_DRIVEN_CASCADE WFS_GP2", target), "ok");
    EXPECT_EQ(Execute("  mode\tTEL_DRIVEN ", target), "ok");
    EXPECT_EQ(Execute("camera IMG_PDS", target), "ok");
    EXPECT_EQ(Execute("status", target), "{}");
    EXPECT_EQ(Execute("stop", target), "error: too late");
    EXPECT_THAT(Execute("help", target), StartsWith("ok: mode"));
    EXPECT_EQ(Execute(" \t ", target), "");
}

TEST(Commands, NothingHappensOnWhatIsNotUnderstoodNorDoItsBytesComeBack) {
    testing::StrictMock<MockTarget> target;
    EXPECT_THAT(Execute("mode ins_driven_cascade", target), StartsWith("error: 'ins_driven_cascade' is no"));
    EXPECT_THAT(Execute("mode TEL_DRIVEN WFS_GP9", target), StartsWith("error: 'WFS_GP9' is no camera"));
    EXPECT_THAT(Execute("mode", target), StartsWith("error: wrong number of words"));
    EXPECT_THAT(Execute("stop now", target), StartsWith("error: wrong number of words"));
    const std::string reply = Execute(std::string("\x1b[2J\0\xff", 6) + std::string(1000, 'x'), target);
    EXPECT_THAT(reply, StartsWith("error: '?[2J??xxx"));
    EXPECT_LT(reply.size(), 150U);
}

}  // namespace
