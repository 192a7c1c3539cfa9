// Whole camera loops, from packets to the centroid error, with every call of operator new counted: once a
// loop runs, nothing allocates.

#include "cameraBench.hpp"

#include <lumolib/aliceInput.hpp>
#include <lumolib/imageProcessing.hpp>
#include <vosk/test/allocationCount.hpp>

namespace vosk::lumo {
namespace {

using namespace test;

class CameraLoop : public CameraTest {
protected:
    template <class Info>
    static void ExpectNoAllocation(const std::vector<Thread*>& threads, Camera camera,
                                   std::uint16_t num_frames, const Info& info, std::size_t count) {
        for (Thread* thread : threads) thread->Start().get();
        const Pixels pixels(count, 1000);
        CameraPeer peer{num_frames};
        const auto results = Results(camera);
        std::size_t before = 0;
        for (unsigned frame = 0; frame < 10; ++frame) {
            if (frame == 3) before = vosk::test::AllocationsOfAllThreads();
            peer.Send(info, pixels, FIRST_ID + frame);
            ASSERT_TRUE(Eventually([&] { return HasResult(*results, FIRST_ID + frame); })) << frame;
        }
        EXPECT_EQ(vosk::test::AllocationsOfAllThreads(), before);
        for (Thread* thread : threads) thread->Stop();
    }
    const defs::TransportTimepoint exposure{START};
};

TEST_F(CameraLoop, OfAWavefrontSensorWithTwoWorkersAllocatesNothing) {
    VoskTelescopeStateManager::SetActiveCameraFS(Camera::WFS_GP1);
    WfsLisaInput input{WfsNode(100, 2, {}, ", sim_out: true, shm_topic: slopes")};
    ExpectNoAllocation({&input}, Camera::WFS_GP1, 206, exposure, SIZE);
}

TEST_F(CameraLoop, OfAnImagingLisaAllocatesNothing) {
    ImgLisaInput input{ImgLisaNode(", sim_out: true, shm_topic: c")};
    ExpectNoAllocation({&input}, Camera::IMG_GP2, 206, exposure, SIZE);
}

TEST_F(CameraLoop, OfAMaranaAllocatesNothing) {
    ImgMaranaInput input{MaranaNode()};
    ExpectNoAllocation({&input}, Camera::IMG_PDS, 7, MaranaInfo(512, 48, 10, 2000, 100), 480);
}

TEST_F(CameraLoop, OfAnAliceWithBadPixelsAllocatesNothing) {
    ImageProcessing processing{AliceNode()};
    AliceInput input{AliceNode()};
    ExpectNoAllocation({&processing, &input}, Camera::IMG_GP1, 62, exposure, std::size_t{240} * 240);
}

}  // namespace
}  // namespace vosk::lumo
