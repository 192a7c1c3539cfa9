// Whole camera loops, from packets to the centroid error, with every call of operator new counted: once a
// loop runs, nothing allocates.

#include "cameraBench.hpp"

#include <lumolib/aliceInput.hpp>
#include <lumolib/imageProcessing.hpp>
#include <vosk/test/allocationCount.hpp>

namespace vosk::lumo {
namespace {

using namespace test;
using defs::Camera;

class CameraLoop : public CameraTest {
protected:
    template <class Info>
    static void ExpectNoAllocation(Camera camera, std::uint16_t num_frames, const Info& info,
                                   std::size_t count) {
        const Pixels pixels(count, 1000);
        CameraPeer peer{num_frames};
        const auto results = Results(camera);
        std::size_t before = 0;
        for (unsigned frame = 0; frame < 10; ++frame) {
            if (frame == 3) before = vosk::test::AllocationsOfAllThreads();
            peer.Send(info, pixels, FIRST_ID + frame);
            ASSERT_TRUE(Eventually([&] {
                const auto result = results->GetSample();
                return result && result->sample_id == FIRST_ID + frame;
            })) << frame;
        }
        EXPECT_EQ(vosk::test::AllocationsOfAllThreads(), before);
    }
    std::string WriteCalibration(const std::string& camera, std::size_t side) const {
        WriteFits(directory / (camera + "dark.fits"), std::vector<float>(side * side), {side, side});
        WriteFits(directory / (camera + "flat.fits"), std::vector<float>(side * side, 1.0F), {side, side});
        return directory / camera;
    }

    const defs::TransportTimepoint exposure{START};
};

TEST_F(CameraLoop, OfAWavefrontSensorWithTwoWorkersAllocatesNothing) {
    VoskTelescopeStateManager::SetActiveCameraFS(Camera::WFS_GP1);
    WfsLisaInput input{WfsNode(100, 2, {}, ", sim_out: true, shm_topic: slopes")};
    input.Start().get();
    ExpectNoAllocation(Camera::WFS_GP1, 206, exposure, SIZE);
    input.Stop();
}

TEST_F(CameraLoop, OfAnImagingLisaAllocatesNothing) {
    ImgLisaInput input{CfgOf("cfg: " + Common("IMG_GP2", directory / "") +
                             ", cent_box: [10, 10], refpos: [105.0, 205.0], sim_out: true, shm_topic: c}")};
    input.Start().get();
    ExpectNoAllocation(Camera::IMG_GP2, 206, exposure, SIZE);
    input.Stop();
}

TEST_F(CameraLoop, OfAMaranaAllocatesNothing) {
    ImgMaranaInput input{CfgOf("cfg: " + Common("IMG_PDS", WriteCalibration("marana_", 2048)) +
                               ", cent_box: [8, 10], refpos: [2004.0, 105.0]}")};
    input.Start().get();
    ExpectNoAllocation(Camera::IMG_PDS, 7,
                       defs::MaranaLeaderInfo{vosk::test::At(seconds{1000}), 512, 48, 10, 2000, 100}, 480);
    input.Stop();
}

TEST_F(CameraLoop, OfAnAliceWithBadPixelsAllocatesNothing) {
    const auto calibration = WriteCalibration("alice_", 240);
    const auto node = CfgOf("cfg: " + Common("IMG_GP1", calibration) +
                            ", image_processing: {busy: false, noise_removal: {dark_path: " + calibration +
                            "dark.fits, flat_path: " + calibration +
                            "flat.fits}, bad_pixels: [[120, 120]], pixel_weights: [1, 1, 1, 1, 0, 1, 1, 1, "
                            "1], cent_box: [8, 8], refpos: [120, 120]}}");
    AliceInput input{node};
    ImageProcessing processing{node};
    processing.Start().get();
    input.Start().get();
    ExpectNoAllocation(Camera::IMG_GP1, 62, exposure, 240UL * 240UL);
    input.Stop();
    processing.Stop();
}

}  // namespace
}  // namespace vosk::lumo
