// An ALICE camera's two threads: from packets to the centroid error, and the host's changes meanwhile.

#include "cameraBench.hpp"

#include <future>
#include <lumolib/aliceInput.hpp>
#include <lumolib/imageProcessing.hpp>
#include <lumolib/libMain.hpp>

namespace vosk::lumo {
namespace {

using defs::CentroidError;
using namespace test;

// Keeps what comes out, in its order.
class Records final : public CentroidResampler {
public:
    bool HasSamples() override { return false; }
    std::optional<CentroidError> GetSample() override { return {}; }
    void AddSample(const CentroidError& record) override {
        std::function<void()> act;
        {
            const std::lock_guard lock{m_mutex};
            m_records.push_back(record);
            act = std::exchange(m_act, {});
        }
        if (act) act();
    }

    // Who adds the next record does this, too.
    void AtNext(std::function<void()> act) {
        const std::lock_guard lock{m_mutex};
        m_act = std::move(act);
    }
    std::vector<CentroidError> Get() const {
        const std::lock_guard lock{m_mutex};
        return m_records;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<CentroidError> m_records;
    std::function<void()> m_act;
};

struct Opened : ImageProcessing {
    using ImageProcessing::ImageProcessing;
    using ImageProcessing::m_mutex;
};

class AliceTest : public CameraTest {
protected:
    AliceTest() { m_frame.pixels.fill(12); }
    ~AliceTest() override { m_thread.Stop(); }

    void SetFrame(unsigned id) { m_frames->SetData(m_frame, id, START + seconds{id}); }
    static std::shared_ptr<Records> Registered() {
        auto records = std::make_shared<Records>();
        ResamplerManager::GetInstance().RegisterResampler(
            {typeid(CentroidError), ResamplerManager::DEFAULT_CONFIGURATION, 0}, records);
        return records;
    }
    // Hands a frame on and waits for its record.
    CentroidError Process(unsigned id) {
        const auto before = m_records->Get().size();
        SetFrame(id);
        EXPECT_TRUE(Eventually([&] { return m_records->Get().size() > before; })) << id;
        return m_records->Get().back();
    }

    const std::shared_ptr<Records> m_records = Registered();
    const std::shared_ptr<ImgDataSyncAlice> m_frames = FramesOf(Camera::IMG_GP1, false);
    VisImgDataAlice m_frame;
    Opened m_thread{AliceNode()};
};

TEST_F(AliceTest, TakesTheBoxAboutTheReferenceOrRefusesItAsAWhole) {
    const std::string box_text = "ERR: cent_<x> coordinates outside of image";
    const std::string ref_text = "ERR: refpos_<x> coordinates outside of image";
    const std::tuple<std::array<std::uint32_t, 4>, std::string> table[] = {
        // box, reference; the ROI's start and stop, or the refusal
        {{8, 8, 120, 120}, "[116, 116] - [124, 124]"},
        {{5, 4, 120, 121}, "[118, 119] - [122, 123]"},
        {{1, 1, 1, 240}, "[1, 240] - [1, 240]"},
        {{240, 240, 120, 120}, "[0, 0] - [240, 240]"},
        {{8, 8, 4, 120}, "[0, 116] - [8, 124]"},
        {{8, 8, 3, 120}, "Roi: invalid coordinates: (65535..7),(116..124)"},
        {{8, 8, 240, 120}, "Roi: invalid coordinates: (236..244),(116..124)"},
        {{0, 8, 120, 120}, box_text},
        {{8, 241, 0, 0}, box_text},
        {{8, 65544, 120, 120}, box_text},
        {{8, 8, 0, 120}, ref_text},
        {{8, 8, 120, 65656}, ref_text}};
    for (const auto& [values, expected] : table) {
        const auto& [box_x, box_y, ref_x, ref_y] = values;
        m_thread.UpdateROISize(6, 7, 50, 60);
        const LogCapture log;
        const auto text = TextOf([&, v = values] { m_thread.UpdateROISize(v[0], v[1], v[2], v[3]); });
        const bool is_taken = expected.starts_with('[');
        EXPECT_EQ(text, is_taken ? "no exception" : expected);
        EXPECT_EQ(log.Count(log4cplus::TRACE_LOG_LEVEL, "ImageProcessing: ROI " + expected), is_taken);
        EXPECT_EQ(m_thread.GetCentBoxSize(), (is_taken ? std::pair{box_x, box_y} : std::pair{6U, 7U}));
        EXPECT_EQ(m_thread.GetRefPos(), (is_taken ? std::pair{ref_x, ref_y} : std::pair{50U, 60U}));
    }
}

TEST_F(AliceTest, RefusesAnotherCameraBeforeAnythingIsRegisteredForIt) {
    EXPECT_EQ(TextOf<std::runtime_error>([&] { ImageProcessing{AliceNode("WFS_GP1")}; }),
              "ImageProcessing: Invalid camera ID: WFS_GP1");
    EXPECT_EQ(TextOf([&] { AliceInput{AliceNode("WFS_PDS")}; }), "AliceInput: Invalid camera ID: WFS_PDS");
    EXPECT_EQ(DataSyncManager::GetInstance().GetDataSync({typeid(ImgDataSyncAlice), 4}), nullptr);
    EXPECT_EQ(ResamplerManager::GetInstance().GetResampler({typeid(CentroidError), "default_resampler", 4}),
              nullptr);
    EXPECT_THROW(ImageProcessing{AliceNode("IMG_GP9")}, std::out_of_range);
}

TEST_F(AliceTest, TakesTheNewestFrameAndGoesOnBehindAFailure) {
    m_frame.pixels[120 * 240 + 120] = 65535;  // repaired
    m_frame.pixels[118 * 240 + 122] = 12 + 2 * 64;
    m_thread.Start().get();
    const auto record = Process(1);
    EXPECT_EQ(record.timestamp, START + seconds{1});
    EXPECT_EQ(record.slope, (defs::Slope{128, 0.75, -1.25}));
    std::promise<void> gate;
    m_records->AtNext([&gate] { gate.get_future().wait(); });
    Process(2);
    for (const unsigned id : {3U, 4U, 5U}) SetFrame(id);
    gate.set_value();
    EXPECT_TRUE(Eventually([&] { return m_records->Get().size() == 3; }));
    EXPECT_EQ(m_records->Get().back().sample_id, 5U);

    m_records->AtNext([] { throw std::invalid_argument{"no such frame"}; });
    Process(6);
    EXPECT_EQ(Process(7).sample_id, 7U);
    m_thread.Stop();
    EXPECT_FALSE(m_thread.HasEndedByItself());
    const auto figures = RuntimeMonitor::GetInstance().Of(Camera::IMG_GP1).frames->GetTopicData();
    EXPECT_EQ(figures.processed, 4U);  // all but the one that failed
    EXPECT_EQ(figures.centroid, record.slope);
}

TEST_F(AliceTest, AChangeOfMethodCostsCentroidsAndNoRecord) {
    m_thread.Start().get();
    {
        const std::lock_guard change{m_thread.m_mutex};
        EXPECT_EQ(Process(1).slope, defs::Slope{});
    }
    EXPECT_EQ(Process(2).slope.flux, 64);
    unsigned id = 2;
    for (const auto& [option, threshold, nbrightest, flux] :
         {std::tuple{2U, 0.0F, 5U, 5.0}, {1U, 3.5F, 0U, 0.0}, {3U, 0.0F, 0U, 64.0}}) {
        m_thread.SetCOptions(option, option == 1 ? threshold : 9.0F, option == 2 ? nbrightest : 9U);
        for (const unsigned other : {0U, 4U})
            EXPECT_THROW(m_thread.SetCOptions(other, 1, 1), std::runtime_error);
        EXPECT_THROW(m_thread.SetCOptions(2, 1, 0), std::invalid_argument);
        const auto options = m_thread.GetCOptions();
        EXPECT_EQ((std::tuple{options.option, options.threshold, options.nbrightest}),
                  (std::tuple{option, threshold, nbrightest}));
        EXPECT_EQ(Process(++id).slope.flux, flux);
    }
}

// Each pixel is 1: the flux is the area of the ROI, and x and y follow from its rims and its reference.
TEST_F(AliceTest, AFrameSeesOneRoiAndNoMixture) {
    m_thread.Start().get();
    std::atomic<bool> is_changing{true};
    std::thread host{[&] {
        while (is_changing) {
            m_thread.UpdateROISize(4, 6, 200, 30);
            m_thread.UpdateROISize(8, 8, 120, 120);
            EXPECT_THAT(m_thread.GetRefPos(), Pair(120U, 120U));
        }
    }};
    for (unsigned id = 1; id <= 500; ++id) Process(id);
    is_changing = false;
    host.join();
    m_thread.UpdateROISize(4, 6, 200, 30);
    EXPECT_EQ(Process(501).slope.flux, 24);
    for (const auto& record : m_records->Get())
        EXPECT_THAT(record.slope, AnyOf(defs::Slope{64, -0.5, -0.5}, defs::Slope{24, -0.5, -0.5}));
}

TEST_F(AliceTest, ReceivesFramesWhateverTheirStatusButNoShortOnes) {
    AliceInput input{AliceNode()};
    input.Start().get();
    CameraPeer camera{62};
    const auto send = [&](unsigned id, std::size_t pixels) {
        camera.Send(defs::TransportTimepoint{START}, Pixels(pixels, static_cast<std::uint16_t>(id)), id,
                    pktwire::lspx::Status{static_cast<std::uint8_t>(id - 6)});
    };
    const auto begin = AtomClk::now();
    for (const unsigned id : {6U, 7U}) {
        send(id, m_frame.pixels.size());
        EXPECT_TRUE(Eventually([&] { return m_frames->GetSampleId() == id; }));
        EXPECT_THAT(m_frames->GetData().pixels, Each(id));
    }
    EXPECT_GE(m_frames->GetTimestamp(), begin);
    send(8, m_frame.pixels.size() - 62);
    EXPECT_TRUE(Eventually([] { return StateOf(Camera::IMG_GP1).invalid_count == 1; }));
    input.Stop();
    EXPECT_EQ(StateOf(Camera::IMG_GP1).sample_count, 2U);
    EXPECT_EQ(m_frames->GetSampleId(), 7U);
}

struct OpenLibMain : LibMain {
    using LibMain::EnterThread;
    using LibMain::LibMain;
};

TEST_F(AliceTest, CommandsGoToAllAliceCamerasAndElseToTheOthers) {
    OpenLibMain library{vosk::test::UniqueName() + "_"};
    EXPECT_FALSE(library.SetImageProcessing_CRef(120, 120, 8, 8));
    EXPECT_THAT(library.GetImageProcessing_RefPos(), Pair(0U, 0U));
    EXPECT_EQ(library.GetImageProcessing_COpt().option, 0U);
    auto other = std::make_unique<ImgLisaInput>(ImgLisaNode());
    const ImgLisaInput& lisa = *other;
    library.EnterThread(std::move(other));
    EXPECT_THAT(library.GetImageProcessing_RefPos(), Pair(105U, 205U));
    EXPECT_TRUE(library.SetImageProcessing_CRef(50, 60, 6, 8));
    EXPECT_THAT(lisa.GetRefPos(), Pair(50U, 60U));
    EXPECT_THAT(library.GetImageProcessing_CentBox(), Pair(6U, 8U));
    EXPECT_TRUE(library.SetImageProcessing_COpt(1, 2.5F, 0));
    EXPECT_EQ(library.GetImageProcessing_COpt().threshold, 2.5F);
    std::vector<const ImageProcessing*> cameras;
    for (const char* camera : {"IMG_GP2", "IMG_PDS"}) {
        auto thread = std::make_unique<ImageProcessing>(AliceNode(camera));
        cameras.push_back(thread.get());
        library.EnterThread(std::move(thread));
    }
    EXPECT_TRUE(library.SetImageProcessing_CRef(30, 40, 10, 12));
    for (const auto* camera : cameras) EXPECT_THAT(camera->GetRefPos(), Pair(30U, 40U));
    EXPECT_THAT(lisa.GetRefPos(), Pair(50U, 60U));
    EXPECT_THAT(library.GetImageProcessing_CentBox(), Pair(10U, 12U));
    const LogCapture log;
    EXPECT_FALSE(library.SetImageProcessing_CRef(3, 40, 10, 12));
    EXPECT_FALSE(library.SetImageProcessing_COpt(0, 0, 0));
    EXPECT_THAT(log.Texts("ImgProc_", log4cplus::ERROR_LOG_LEVEL),
                ElementsAre(StartsWith("ImgProc_IMG_GP2: Roi: invalid"), StartsWith("ImgProc_IMG_PDS: Roi: "),
                            StartsWith("ImgProc_IMG_GP2: ERR: options"), StartsWith("ImgProc_IMG_PDS: ERR")));
    EXPECT_TRUE(library.SetImageProcessing_COpt(2, 0, 7));
    EXPECT_EQ(library.GetImageProcessing_COpt().nbrightest, 7U);
    EXPECT_TRUE(library.DisableGPCentering());
    EXPECT_FALSE(VoskTelescopeStateManager::GetGPCenteringEnabled());
    EXPECT_TRUE(library.EnableGPCentering());
    EXPECT_TRUE(RuntimeMonitor::GetPerformanceData().GetDataTopic().gp_cmd_valid);
}

}  // namespace
}  // namespace vosk::lumo
