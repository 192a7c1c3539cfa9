#include "cameraBench.hpp"

namespace vosk::lumo {
namespace {

using namespace test;

class WfsLisa : public CameraTest {
protected:
    void Start(const oru::configng::PliConfigInstanceNode& node) {
        m_input = std::make_unique<WfsLisaInput>(node);
        m_input->Start().get();
    }
    ~WfsLisa() override {
        if (m_input) m_input->Stop();
    }
    static time_point ExposureOf(unsigned frame) { return vosk::test::At(seconds{1000 + frame}); }
    void SendFrame(unsigned frame) { Send(frame, pixels); }
    void Send(unsigned frame, std::span<const std::uint16_t> sent,
              pktwire::lspx::Status status = pktwire::lspx::Status::good) {
        peer.Send(defs::TransportTimepoint{ExposureOf(frame)}, sent, FIRST_ID + frame, status);
    }
    // Whether the result of that frame, with its own label, is the newest.
    bool HasResult(unsigned frame) {
        return CameraTest::HasResult(*results, FIRST_ID + frame) &&
               results->GetSample()->timestamp == ExposureOf(frame);
    }
    void Process(unsigned frame) {
        SendFrame(frame);
        ASSERT_TRUE(Eventually([&] { return HasResult(frame); })) << frame;
    }
    static auto State() { return StateOf(Camera::WFS_GP1); }

    Pixels pixels = Pixels(SIZE);
    CameraPeer peer{206};
    std::shared_ptr<CentroidResampler> results = Results(Camera::WFS_GP1);
    std::unique_ptr<WfsLisaInput> m_input;
};

// A matrix of which no two elements are alike, and so no transpose of it fits: from the light in the ROIs to
// modes, tip and tilt.
TEST_F(WfsLisa, ProjectsTheSlopesOfAllWorkersByRunsOfModesForEachComponent) {
    constexpr std::size_t COUNT = 5;
    std::vector<float> matrix;
    for (std::size_t k = 0; k < 2 * COUNT * MODES; ++k) matrix.push_back(static_cast<float>(k % 251) - 100);
    std::vector<double> slopes;
    const Grid grid{COUNT};
    for (std::size_t i = 0; i < COUNT; ++i) {
        slopes.insert(slopes.end(), {static_cast<double>(i), static_cast<double>(2 * i % 7)});
        pixels[(grid.rois[4 * i + 2] + 2 * i % 7) * WIDTH + grid.rois[4 * i] + i] = 1000;
    }
    VoskTelescopeStateManager::SetActiveCameraFS(Camera::WFS_GP1);
    Start(WfsNode(COUNT, 2, matrix));
    Process(1);
    const auto sync = Get<GpaoCoefficientsDataSync>(false);
    const GpaoCoefficients coefficients = sync->GetData();
    EXPECT_EQ(sync->GetSampleId(), FIRST_ID + 1);
    EXPECT_EQ(coefficients.slopes.size(), COUNT);
    for (std::size_t mode = 0; mode < MODES; ++mode) {
        double expected = 0;
        for (std::size_t i = 0; i < slopes.size(); ++i)
            expected += static_cast<double>(matrix[i * MODES + mode]) * slopes[i];
        EXPECT_EQ(static_cast<double>(coefficients.modes[mode]), expected) << mode;
    }
    const auto result = results->GetSample()->slope;
    const auto& modes = coefficients.modes;
    EXPECT_EQ(result, (defs::Slope{0.0, modes[0] + 10 * modes[1], 100 * modes[0] + 1000 * modes[1]}));

    VoskTelescopeStateManager::SetActiveCameraFS(Camera::WFS_GP2);
    Process(2);
    EXPECT_EQ(sync->GetSampleId(), FIRST_ID + 1) << "the result of a camera that is not active";
}

TEST_F(WfsLisa, LabelsEachResultWithItsOwnFrameWhenThePoolIsSlowerThanTheFrames) {
    std::atomic<unsigned> begun{0};
    std::atomic<unsigned> admitted{0};
    Simulate([&](defs::SlopeVector&) {
        const unsigned frame = ++begun;
        return Eventually([&] { return admitted >= frame; });
    });
    Start(WfsNode(3, 2));
    const LogCapture log;
    constexpr unsigned FRAMES = 5;
    for (unsigned frame = 1; frame <= FRAMES; ++frame) {
        SendFrame(frame);
        const auto received = "sample_id = " + std::to_string(FIRST_ID + frame) + ",";
        ASSERT_TRUE(Eventually([&] { return !log.Texts(received).empty(); }));
        if (frame == 1) continue;
        admitted = frame - 1;
        ASSERT_TRUE(Eventually([&] { return begun == frame; })) << "the frame before is done";
        ASSERT_TRUE(HasResult(frame - 1)) << frame;
    }
    admitted = FRAMES;
    ASSERT_TRUE(Eventually([&] { return HasResult(FRAMES); }));
    m_input->Stop();
    EXPECT_EQ(RuntimeMonitor::GetInstance().Of(Camera::WFS_GP1).statistics->GetLateCount(), FRAMES - 1);
    EXPECT_EQ(State().sample_count, FRAMES);
    EXPECT_TRUE(log.Texts("Buffer not ready").empty());
}

TEST_F(WfsLisa, RefusesBadAndShortSamplesAndGoesOn) {
    Start(WfsNode(3, 1));
    Process(1);
    Send(2, pixels, pktwire::lspx::Status{'x'});
    ASSERT_TRUE(Eventually([] { return State().invalid_count == 1; }));
    EXPECT_EQ(State().period, 0.0F) << "the time is that of the last good frame";
    Send(3, std::span{pixels}.first(SIZE - 1));
    ASSERT_TRUE(Eventually([] { return State().invalid_count == 2; }));
    EXPECT_TRUE(HasResult(1));
    Process(4);
    m_input->Stop();  // a result may come before its count
    EXPECT_EQ(State().sample_count, 2U);
}

TEST_F(WfsLisa, KeepsTheLastSlopesWhateverTheSimulatorDoes) {
    unsigned frame = 0;
    Simulate([&](defs::SlopeVector& slopes) {
        ++frame;
        if (frame == 1) slopes[0] = {0, 1, 2};
        if (frame == 2) slopes.emplace_back();
        if (frame == 3) throw std::runtime_error{"no more centroids"};
        if (frame == 5) slopes[0].x = NAN;
        if (frame == 6) slopes[0].x = 3;
        return frame != 4;
    });
    Start(WfsNode(1, 1, {1, 0}));
    const LogCapture log;
    for (unsigned sent : {1U, 2U, 3U, 4U}) {
        Process(sent);
        EXPECT_EQ(results->GetSample()->slope.x, 1.0) << sent;
    }
    EXPECT_FALSE(log.Texts("no more centroids", log4cplus::ERROR_LOG_LEVEL).empty());
    SendFrame(5);
    ASSERT_TRUE(Eventually([&] {
        return log.Has(log4cplus::ERROR_LOG_LEVEL,
                       fmt::format("WfsLisa_WFS_GP1: the centroid of frame {} is not finite", FIRST_ID + 5));
    }));
    EXPECT_TRUE(HasResult(4));
    Process(6);
    EXPECT_EQ(results->GetSample()->slope.x, 3.0);
    EXPECT_TRUE(log.Has(log4cplus::ERROR_LOG_LEVEL,
                        "WfsLisa_WFS_GP1: Unsolicited change of active subapertures not supported"));
}

TEST_F(WfsLisa, SharesRoisAsFarAsTheyGo) {
    struct Case {
        std::size_t count;
        std::size_t workers;
        const char* text;
    };
    for (const Case& c :
         {Case{1, 1, "no exception"}, Case{10, 4, "no exception"}, Case{1089, 2, "no exception"},
          Case{10, 5, "ComputeSlopesSubtask: start/stop misconfiguration"},
          Case{4, 0,
               "WfsLisa_WFS_GP1: No configuration for the centroiding pool, unable to compute slopes"}}) {
        EXPECT_EQ(TextOf([&] { WfsLisaInput{WfsNode(c.count, c.workers)}; }), c.text)
            << c.count << ", " << c.workers;
    }
    EXPECT_THROW(WfsLisaInput{WfsNode(1090, 2)}, std::bad_alloc);
    EXPECT_THAT(TextOf([&] { WfsLisaInput{WfsNode(1, 1, {NAN})}; }), EndsWith("a value is not finite"));
    const auto node = WfsNode(2, 1);
    WriteFits(directory / "references.fits", std::vector<float>{8, 8, 24, NAN}, {2, 2});
    EXPECT_THAT(TextOf([&] { WfsLisaInput{node}; }), EndsWith("a value is not finite"));
    WriteFits(directory / "control.fits", std::vector<float>(MODES * 4), {MODES, 4});
    EXPECT_THAT(
        TextOf([&] { WfsLisaInput{node}; }),
        AllOf(StartsWith("Unexpecded X (columns) dimension for "), EndsWith(", expected: 4, got: 52")));
}

TEST_F(WfsLisa, ChangesTheMethodOfAllWorkersOrOfNone) {
    WfsLisaInput input{WfsNode(5, 2)};
    for (const auto& [algorithm, threshold, nbrightest] : {std::tuple{2U, 0.0F, 5U}, {1U, 3.5F, 0U}}) {
        input.SetCOptions(algorithm, threshold, nbrightest);
        EXPECT_THROW(input.SetCOptions(2, 1.0F, 0), std::invalid_argument);
        EXPECT_THROW(input.SetCOptions(4, 1.0F, 1), std::runtime_error);
        const CameraInput::COptions now = input.GetCOptions();
        EXPECT_EQ(std::tuple(now.algorithm, now.threshold, now.nbrightest),
                  std::tuple(algorithm, threshold, nbrightest));
    }
}

}  // namespace
}  // namespace vosk::lumo
