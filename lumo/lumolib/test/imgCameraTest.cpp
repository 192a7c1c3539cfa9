#include "cameraBench.hpp"

#include <lumolib/frameDump.hpp>
#include <oru/configng/pliConfigReview.hpp>
#include <set>

namespace vosk::lumo {
namespace {

using namespace test;

using ImgCamera = CameraTest;

TEST_F(ImgCamera, TakesABoxTruncatedOrKeepsTheOneItHas) {
    ImgLisaInput input{ImgLisaNode()};
    const LogCapture log;
    constexpr float NAN_VALUE = std::numeric_limits<float>::quiet_NaN();
    struct Case {
        std::size_t box_x, box_y;
        float ref_x, ref_y;
        const char* roi;  // null: refused
    };
    for (const auto& [box_x, box_y, ref_x, ref_y, roi] :
         {Case{10, 20, 100, 200, "[95, 190] - [105, 210]"},
          Case{10, 20, 100.5F, 200.5F, "[95, 190] - [105, 210]"}, Case{10, 10, 4, 200, nullptr},
          Case{10, 10, 4.5F, 200, "[0, 195] - [9, 205]"}, Case{10, 10, 836, 200, nullptr},
          Case{10, 10, 835, 811, "[830, 806] - [840, 816]"}, Case{10, 10, NAN_VALUE, 200, nullptr},
          Case{10, 10, 200, 1e30F, nullptr}, Case{SIZE_MAX, 10, 200, 200, nullptr},
          Case{131072, 10, 65536.0F + 400, 200, nullptr}}) {
        const auto before = std::pair{input.GetRefPos(), input.GetRoiSize()};
        if (roi != nullptr) {
            input.SetRoi(box_x, box_y, ref_x, ref_y);
            EXPECT_TRUE(log.Has(log4cplus::TRACE_LOG_LEVEL, std::string{"ImgLisa_IMG_GP2: SetRoi: "} + roi));
        } else {
            EXPECT_THROW(input.SetRoi(box_x, box_y, ref_x, ref_y), std::invalid_argument) << ref_x;
            EXPECT_EQ(std::pair(input.GetRefPos(), input.GetRoiSize()), before) << ref_x;
        }
    }
    input.SetRoi(10, 12, 12.7F, 13.2F);
    EXPECT_EQ(input.GetRefPos(), (std::pair<std::uint64_t, std::uint64_t>{12, 13}));
    EXPECT_EQ(input.GetRoiSize(), (std::pair<std::uint64_t, std::uint64_t>{10, 12}));
}

// Two ROIs with a spot each: no frame sees a part of one and a part of the other.
TEST_F(ImgCamera, TakesChangesOfRoiAndMethodBetweenFrames) {
    Pixels pixels(SIZE);
    pixels[206 * WIDTH + 106] = 100;
    pixels[407 * WIDTH + 307] = 200;
    ImgLisaInput input{ImgLisaNode(", sim_out: true, shm_topic: centroids")};
    const auto results = Results(Camera::IMG_GP2);
    CameraPeer peer{206};
    std::set<double> fluxes;
    const auto process = [&](unsigned frame) {
        const auto id = FIRST_ID + frame % 10;  // a moment for each frame, and dumps of known names
        const auto exposure = vosk::test::At(seconds{1000 + frame});
        peer.Send(defs::TransportTimepoint{exposure}, pixels, id, vosk::test::At(seconds{frame + 1}));
        std::optional<defs::CentroidError> result;
        ASSERT_TRUE(
            Eventually([&] { return (result = results->GetSample()) && result->timestamp == exposure; }));
        EXPECT_EQ(result->sample_id, id);
        fluxes.insert(result->slope.flux);
        const double off = result->slope.flux == 100.0 ? 1.0 : 2.0;
        EXPECT_EQ(result->slope, (defs::Slope{off * 100, off, off}));
    };
    input.Start().get();
    std::atomic<bool> stop{false};
    std::thread host{[&] {
        for (unsigned i = 0; !stop; ++i) {
            input.SetRoi(10, 10, i % 2 != 0 ? 105.0F : 305.0F, i % 2 != 0 ? 205.0F : 405.0F);
            input.SetCOptions(1 + i % 3, 50.0F, 1);
            static_cast<void>(input.GetRefPos());
            static_cast<void>(input.GetCOptions());
        }
    }};
    for (unsigned frame = 0; frame < 200 && fluxes.size() < 2; ++frame) process(frame);
    stop = true;
    host.join();
    input.Stop();
    EXPECT_EQ(fluxes, (std::set{100.0, 200.0}));
    EXPECT_EQ(RuntimeMonitor::GetInstance().Of(Camera::IMG_GP2).statistics->GetLateCount(), 0U);
}

TEST_F(ImgCamera, WritesTheFirstFrameOverALinkOfItsNameAndNotThroughIt) {
    const std::string victim = directory.Put("victim", "untouched");
    const auto dump = "/tmp/lisa_input_1_" + std::to_string(FIRST_ID) + "_unscrambled.fits";
    std::filesystem::create_symlink(victim, dump);
    Pixels pixels(SIZE);
    pixels[3 * WIDTH + 839] = 40000;
    DumpFrameToFits(pixels, Camera::IMG_GP2, FIRST_ID);
    EXPECT_EQ(directory.Content("victim"), "untouched");
    const auto image = common::Fits::ReadImg<std::uint16_t>(common::Fits::FitsFile(dump),
                                                            {{std::size_t{840}, std::size_t{816}}});
    EXPECT_EQ(image[4 * 840 - 1], 40000);
    std::filesystem::remove(directory / "data/scrambling/lisa_descrambling_vector.fits");
    EXPECT_THROW(DumpFrameToFits(pixels, Camera::IMG_GP2, FIRST_ID), std::exception);
}

TEST_F(ImgCamera, RefusesWorkersAndCamerasOfAnotherKindAndReportsAllFaultsToAReview) {
    EXPECT_EQ(TextOf([&] { ImgLisaInput{ImgLisaNode(", centroiding_pool: [{}]")}; }),
              "ImgLisa_IMG_GP2: Centroiding pool is configured but not used for VIS/IMG processing");
    EXPECT_EQ(
        TextOf([&] { WfsLisaInput{CfgOf("cfg: " + Common("IMG_GP2", "") + ", centroiding_pool: [{}]}")}; }),
        "WfsLisa_IMG_GP2: Incorrect camera ID (for WFS): IMG_GP2");
    oru::configng::PliConfigReview review;
    const auto node = CfgOf("cfg: " + Common("WFS_PDS", directory / "no_") + ", endianness: BE, rois_path: " +
                            directory / "dark.fits" + ", reference_points_path: " + directory / "none.fits" +
                            ", modes2tt_matrix: [1, 2, 3], cent_box: [10, -1], refpos: [.nan, 1]}");
    { const WfsLisaInput sensor{node}; }
    { const ImgMaranaInput camera{node}; }
    std::set<std::string> keys;
    for (const auto& finding : review.Findings()) keys.insert(finding.path);
    EXPECT_THAT(keys, IsSupersetOf({"cfg.camera_id", "cfg.endianness", "cfg.reference_points_path",
                                    "cfg.control_matrix_path", "cfg.rois_path", "cfg.modes2tt_matrix",
                                    "cfg.centroiding_pool", "cfg.noise_removal.dark_path",
                                    "cfg.noise_removal.flat_path", "cfg.cent_box[1]", "cfg.refpos"}));
}

// A spot at (2005, 107) of the sensor, the reference point at (2004, 105).
TEST_F(ImgCamera, MaranaProcessesWindowsThatAreWholeAndIgnoresOthers) {
    ImgMaranaInput input{MaranaNode()};
    const LogCapture log;
    input.Start().get();
    const auto results = Results(Camera::IMG_PDS);
    CameraPeer peer{7};
    struct Case {
        defs::MaranaLeaderInfo info;
        std::size_t pixels;
        std::string text;  // of the WARN; empty: it is processed
    };
    const std::vector<Case> cases{
        {MaranaInfo(512, 48, 10, 2000, 100), 480, ""},
        {MaranaInfo(256, 48, 10, 2000, 100), 480,
         "Receveived MARANA frame with incorrect datatype: (256), ignoring"},
        {MaranaInfo(512, 49, 10, 2000, 100), 490,
         "Receveived MARANA frame with incorrect window offsets: (2000..2049),(100..110), ignoring"},
        {MaranaInfo(512, 2, 10, 0xFFFFFFFF, 100), 20,
         "Receveived MARANA frame with incorrect window offsets: (4294967295..4294967297),(100..110), "
         "ignoring"},
        {MaranaInfo(512, 48, 0x80000000, 2000, 0x80000000), 480,
         "Receveived MARANA frame with incorrect window offsets: (2000..2048),(2147483648..4294967296), "
         "ignoring"},
        {MaranaInfo(512, 48, 10, 2000, 100), 479,
         "Received a frame of 479 pixels where 480 are needed, ignoring"},
        {MaranaInfo(512, 10, 948, 1999, 1100), 9480, ""},
        {MaranaInfo(512, 40, 8, 2003, 100), 321, ""}};
    unsigned id = FIRST_ID;
    unsigned ignored = 0;
    for (const auto& [info, count, text] : cases) {
        Pixels pixels(count);
        const std::uint64_t at =
            (std::uint64_t{107} - info.y_offset) * info.width + (std::uint64_t{2005} - info.x_offset);
        const bool is_seen = at < count;
        if (is_seen) pixels[at] = 1000;
        peer.Send(info, pixels, ++id);
        if (text.empty()) {
            ASSERT_TRUE(Eventually([&] { return HasResult(*results, id); })) << id;
            const defs::Slope right = is_seen ? defs::Slope{1000, 1, 2} : defs::Slope{};
            EXPECT_EQ(results->GetSample()->slope, right) << id;
        } else {
            ++ignored;
            ASSERT_TRUE(Eventually([&] { return StateOf(Camera::IMG_PDS).invalid_count == ignored; }))
                << text;
            EXPECT_TRUE(log.Has(log4cplus::WARN_LOG_LEVEL, "Marana_IMG_PDS: " + text)) << text;
        }
    }
    for (const std::size_t packets : {6U, 1U, 7U}) {
        peer.SendOnly(packets);
        peer.Send(cases[0].info, Pixels(480), ++id);
        const auto begun = id - FIRST_ID - cases.size();
        ASSERT_TRUE(Eventually([&] {
            return packets < 7 ? StateOf(Camera::IMG_PDS).losses.lost == begun : HasResult(*results, id);
        })) << packets;
    }
    input.Stop();
    EXPECT_EQ(StateOf(Camera::IMG_PDS).losses.lost, 2U);
    EXPECT_EQ(StateOf(Camera::IMG_PDS).invalid_count, ignored);
    EXPECT_EQ(log.Texts("Marana_IMG_PDS: ReceiveSample: Invalid argument", log4cplus::DEBUG_LOG_LEVEL).size(),
              ignored);
    EXPECT_EQ(StateOf(Camera::IMG_PDS).sample_count, cases.size() - ignored + 1);
}

}  // namespace
}  // namespace vosk::lumo
