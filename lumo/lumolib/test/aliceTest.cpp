// An ALICE camera's two threads: from packets to the centroid error, and the host's changes meanwhile.

#include "loopBench.hpp"

#include <lumolib/aliceInput.hpp>
#include <lumolib/cameraInput.hpp>
#include <lumolib/imageProcessing.hpp>
#include <lumolib/libMain.hpp>
#include <lumolib/resamplerManager.hpp>
#include <vosk/image_processing/noiseRemovalFactory.hpp>
#include <vosk/test/allocationCount.hpp>

#include <condition_variable>

namespace vosk::lumo {
namespace {

using defs::CentroidError;
using log4cplus::ERROR_LOG_LEVEL;
using log4cplus::TRACE_LOG_LEVEL;
using namespace test;
using namespace testing;
using vosk::test::TextOf;

// What comes out, in its order. While the gate is shut, whoever adds waits.
class Records final : public signal_processing::Resampler<CentroidError> {
public:
    Records() { m_records.reserve(100'000); }
    bool HasSamples() override { return false; }
    std::optional<CentroidError> GetSample() override { return {}; }
    void AddSample(const CentroidError& record) override {
        std::unique_lock lock{m_mutex};
        m_records.push_back(record);
        m_change.wait(lock, [this] { return !m_is_shut; });
        if (std::exchange(m_fails, false)) throw std::invalid_argument{"no such frame"};
    }

    void SetShut(bool is_shut) {
        const std::lock_guard lock{m_mutex};
        m_is_shut = is_shut;
        m_change.notify_all();
    }
    void FailOnce() {
        const std::lock_guard lock{m_mutex};
        m_fails = true;
    }
    std::size_t Count() const {
        const std::lock_guard lock{m_mutex};
        return m_records.size();
    }
    std::vector<CentroidError> Get() const {
        const std::lock_guard lock{m_mutex};
        return m_records;
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_change;
    std::vector<CentroidError> m_records;
    bool m_is_shut = false;
    bool m_fails = false;
};

struct Opened : ImageProcessing {
    using ImageProcessing::ImageProcessing;
    using ImageProcessing::m_mutex;
};

class AliceTest : public LoopTest {
protected:
    AliceTest() {
        for (const auto& [name, value] : {std::pair{"dark.fits", 10.0F}, {"flat.fits", 2.0F}}) {
            common::Fits::WriteImg<float>(common::Fits::FitsFileWrite(m_directory / name, true, {}),
                                          std::vector<float>(PIXELS, value), {240, 240});
        }
        ResamplerManager::CreateInstance(gim::Config{}, "resamplers");
        ResamplerManager::GetInstance().RegisterResampler(
            {typeid(CentroidError), ResamplerManager::DEFAULT_CONFIGURATION, 0}, m_records);
        m_frame.pixels.fill(12);  // 1 when clean
    }

    std::string ElementKeys(const std::string& camera) const {
        return "camera_id: " + camera +
               ", image_processing: {busy: false, noise_removal: {dark_path: " + m_directory / "dark.fits" +
               ", flat_path: " + m_directory / "flat.fits" +
               "}, bad_pixels: [[50, 50]], pixel_weights: [1, 1, 1, 1, 0, 1, 1, 1, 1], "
               "cent_box: [8, 8], refpos: [120, 120]}";
    }
    oru::configng::PliConfigInstanceNode Element(const std::string& camera = "IMG_GP1") const {
        return CfgOf("cfg: {" + ElementKeys(camera) + "}");
    }
    void SetFrame(unsigned id) { m_frames->SetData(m_frame, id, START + seconds{id}); }
    // Hands a frame on and waits for its record.
    CentroidError Process(unsigned id) {
        const auto before = m_records->Count();
        SetFrame(id);
        EXPECT_TRUE(Eventually([&] { return m_records->Count() > before; })) << id;
        return m_records->Get().back();
    }

    static constexpr std::size_t PIXELS = 240 * 240;
    const vosk::test::TempDir m_directory;
    const std::shared_ptr<Records> m_records = std::make_shared<Records>();
    const std::shared_ptr<ImgDataSyncAlice> m_frames = FramesOf(defs::Camera::IMG_GP1, false);
    VisImgDataAlice m_frame;
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
    ImageProcessing thread{Element()};
    for (const auto& [values, expected] : table) {
        const auto& [box_x, box_y, ref_x, ref_y] = values;
        thread.UpdateROISize(6, 7, 50, 60);
        const LogCapture log;
        const auto text = TextOf([&, v = values] { thread.UpdateROISize(v[0], v[1], v[2], v[3]); });
        const bool is_taken = expected.starts_with('[');
        EXPECT_EQ(text, is_taken ? "no exception" : expected);
        EXPECT_EQ(log.Count(TRACE_LOG_LEVEL, "ImageProcessing: ROI " + expected), is_taken);
        EXPECT_EQ(thread.GetCentBoxSize(), (is_taken ? std::pair{box_x, box_y} : std::pair{6U, 7U}));
        EXPECT_EQ(thread.GetRefPos(), (is_taken ? std::pair{ref_x, ref_y} : std::pair{50U, 60U}));
    }
}

TEST_F(AliceTest, RefusesAnotherCameraBeforeAnythingIsRegisteredForIt) {
    EXPECT_EQ(TextOf<std::runtime_error>([&] { ImageProcessing{Element("WFS_GP1")}; }),
              "ImageProcessing: Invalid camera ID: WFS_GP1");
    EXPECT_EQ(DataSyncManager::GetInstance().GetDataSync({typeid(ImgDataSyncAlice), 4}), nullptr);
    EXPECT_EQ(ResamplerManager::GetInstance().GetResampler({typeid(CentroidError), "default_resampler", 4}),
              nullptr);
    EXPECT_THROW(ImageProcessing{Element("IMG_GP9")}, std::out_of_range);
}

TEST_F(AliceTest, TakesTheNewestFrameAndGoesOnBehindAFailureWithoutAllocation) {
    Opened thread{Element()};
    thread.UpdateROISize(8, 8, 50, 50);
    m_frame.pixels[50 * 240 + 50] = 65535;  // repaired
    m_frame.pixels[48 * 240 + 52] = 12 + 2 * 64;
    thread.Start().get();
    const auto record = Process(1);
    EXPECT_EQ(record.timestamp, START + seconds{1});
    EXPECT_EQ(record.slope, (defs::Slope{128, 0.75, -1.25}));
    m_records->SetShut(true);
    Process(2);
    for (const unsigned id : {3U, 4U, 5U}) SetFrame(id);
    m_records->SetShut(false);
    EXPECT_TRUE(Eventually([&] { return m_records->Count() == 3; }));
    EXPECT_EQ(m_records->Get().back().sample_id, 5U);

    m_records->FailOnce();
    Process(6);
    EXPECT_EQ(Process(7).sample_id, 7U);
    const auto before = vosk::test::AllocationsOfAllThreads();
    for (std::size_t count = m_records->Count(); count < 30; ++count) {
        SetFrame(8);
        ASSERT_TRUE(Eventually([&] { return m_records->Count() > count; }));
    }
    EXPECT_EQ(vosk::test::AllocationsOfAllThreads(), before);
    thread.Stop();
    EXPECT_FALSE(thread.HasEndedByItself());
    const auto figures = RuntimeMonitor::GetInstance().Of(defs::Camera::IMG_GP1).frames->GetTopicData();
    EXPECT_EQ(figures.processed, 29U);  // all but the one that failed
    EXPECT_EQ(figures.centroid, record.slope);
}

TEST_F(AliceTest, AChangeOfMethodCostsCentroidsAndNoRecord) {
    Opened thread{Element()};
    thread.Start().get();
    {
        const std::lock_guard change{thread.m_mutex};
        EXPECT_EQ(Process(1).slope, defs::Slope{});
    }
    EXPECT_EQ(Process(2).slope.flux, 64);
    const auto options = [&thread] {
        const auto [nbrightest, threshold, option] = thread.GetCOptions();
        return std::tuple{option, threshold, nbrightest};
    };
    thread.SetCOptions(2, 9, 5);
    EXPECT_EQ(options(), (std::tuple{2U, 0.0F, 5U}));
    EXPECT_EQ(Process(3).slope.flux, 5);
    thread.SetCOptions(1, 3.5F, 5);
    const std::tuple tsh{1U, 3.5F, 0U};
    EXPECT_EQ(Process(4).slope.flux, 0);
    for (const unsigned option : {0U, 4U}) EXPECT_THROW(thread.SetCOptions(option, 1, 1), std::runtime_error);
    EXPECT_THROW(thread.SetCOptions(2, 1, 0), std::invalid_argument);
    EXPECT_EQ(options(), tsh);
    thread.SetCOptions(3, 1, 1);
    EXPECT_EQ(options(), (std::tuple{3U, 0.0F, 0U}));
    thread.Stop();
}

// Each pixel is 1: the flux is the area of the ROI, and x and y follow from its rims and its reference.
TEST_F(AliceTest, AFrameSeesOneRoiAndNoMixture) {
    Opened thread{Element()};
    thread.Start().get();
    std::atomic<bool> is_changing{true};
    std::thread host{[&] {
        while (is_changing) {
            thread.UpdateROISize(4, 6, 200, 30);
            thread.UpdateROISize(8, 8, 120, 120);
            EXPECT_THAT(thread.GetRefPos(), Pair(120U, 120U));
        }
    }};
    for (unsigned id = 1; id <= 500; ++id) Process(id);
    is_changing = false;
    host.join();
    thread.UpdateROISize(4, 6, 200, 30);
    EXPECT_EQ(Process(501).slope.flux, 24);
    thread.Stop();
    for (const auto& record : m_records->Get()) {
        EXPECT_THAT(record.slope, AnyOf(defs::Slope{64, -0.5, -0.5}, defs::Slope{24, -0.5, -0.5}));
    }
}

class FrameSender {
public:
    void Send(std::uint8_t status, std::size_t pixels, unsigned id) {
        pktwire::lspx::Sender::Config config{};
        config.endianness = pktwire::lspx::LITTLE_ENDIAN_UNITS;
        config.leader_extended_info_size = 8;
        config.frame_size = static_cast<std::uint32_t>(pixels);
        pktwire::lspx::Sender sender{config, m_qudex};
        sender.SetSampleId(id);
        const defs::TransportTimepoint exposure{START};
        const std::vector<std::uint16_t> frame(pixels, static_cast<std::uint16_t>(id));
        ASSERT_FALSE(sender.SendSample(gsl::as_bytes(gsl::span{&exposure, 1}),
                                       gsl::as_bytes(gsl::span{frame}), {}, START, {},
                                       pktwire::lspx::Status{status}));
    }

private:
    static pktwire::qudex::Sender::Config Config() {
        pktwire::qudex::Sender::Config config{};
        config.topic = TOPIC;
        config.num_frames = 62;
        return config;
    }

    pktwire::UdpTxSocket m_socket{vosk::test::SendingTo(UniquePort()), nullptr};
    pktwire::qudex::Sender m_qudex{Config(), m_socket, nullptr};
};

TEST_F(AliceTest, ReceivesFramesWhateverTheirStatusButNoShortOnes) {
    std::string keys = ReceiverKeys();
    keys.pop_back();
    AliceInput thread{CfgOf("cfg: " + keys + ", " + ElementKeys("IMG_GP1") + "}")};
    thread.Start().get();
    FrameSender camera;
    const auto state = RuntimeMonitor::GetInstance().Of(defs::Camera::IMG_GP1).state;
    const auto begin = AtomClk::now();
    for (const unsigned id : {6U, 7U}) {
        camera.Send(id == 6 ? 0 : 3, PIXELS, id);
        EXPECT_TRUE(Eventually([&] { return m_frames->GetSampleId() == id; }));
        EXPECT_THAT(m_frames->GetData().pixels, Each(id));
    }
    EXPECT_GE(m_frames->GetTimestamp(), begin);
    camera.Send(0, PIXELS - 62, 8);
    EXPECT_TRUE(Eventually([&] { return state->GetTopicData().invalid_count == 1; }));
    thread.Stop();
    EXPECT_EQ(state->GetTopicData().sample_count, 2U);
    EXPECT_EQ(m_frames->GetSampleId(), 7U);
    EXPECT_EQ(TextOf([&] { AliceInput{CfgOf("cfg: " + keys + ", camera_id: WFS_PDS}")}; }),
              "AliceInput: Invalid camera ID: WFS_PDS");
}

// One of the second list, with frames of ALICE's size.
class OtherCamera final : public ImgCameraInput {
public:
    explicit OtherCamera(const oru::configng::PliConfigInstanceNode& node)
        : ImgCameraInput{"Marana_IMG_PDS", node, {}, {.topic = TOPIC, .num_frames = 3}, Form(), 240, 240} {
        constexpr std::array CAMERAS{defs::Camera::IMG_PDS};
        SetUp(node,
              {240, 240,
               [](const auto& of, const auto& key) -> std::unique_ptr<NoiseRemoval> {
                   return image_processing::factory::CreateAliceNoiseRemoval(of, key);
               }},
              CAMERAS);
    }

private:
    using NoiseRemoval = image_processing::NoiseRemovalBase;
    static pktwire::lspx::Receiver::Config Form() {
        pktwire::lspx::Receiver::Config config{};
        config.data_unit_size = 2;
        return config;
    }
    Received Receive() override { return {}; }
    time_point ExposureTime() const override { return {}; }
    void DiagnoseFrame() override {}
};

struct OpenLibMain : LibMain {
    using LibMain::EnterThread;
    using LibMain::LibMain;
};

TEST_F(AliceTest, CommandsGoToAllAliceCamerasAndElseToTheOthers) {
    OpenLibMain library{vosk::test::UniqueName() + "_"};
    EXPECT_FALSE(library.SetImageProcessing_CRef(120, 120, 8, 8));
    EXPECT_THAT(library.GetImageProcessing_RefPos(), Pair(0U, 0U));
    EXPECT_EQ(library.GetImageProcessing_COpt().option, 0U);
    std::string keys = ReceiverKeys();
    keys.pop_back();
    auto other = std::make_unique<OtherCamera>(
        CfgOf("cfg: " + keys +
              ", camera_id: IMG_PDS, cent_box: [20, 20], refpos: [99.5, 99.5], noise_removal: "
              "{dark_path: " +
              m_directory / "dark.fits" + ", flat_path: " + m_directory / "flat.fits}}"));
    const OtherCamera& pds = *other;
    library.EnterThread(std::move(other));
    EXPECT_THAT(library.GetImageProcessing_RefPos(), Pair(99U, 99U));
    EXPECT_TRUE(library.SetImageProcessing_CRef(50, 60, 6, 8));
    EXPECT_THAT(pds.GetRefPos(), Pair(50U, 60U));
    EXPECT_THAT(library.GetImageProcessing_CentBox(), Pair(6U, 8U));
    EXPECT_TRUE(library.SetImageProcessing_COpt(1, 2.5F, 0));
    EXPECT_EQ(library.GetImageProcessing_COpt().threshold, 2.5F);
    const ImageProcessing* cameras[2];
    for (const int number : {0, 1}) {
        auto thread = std::make_unique<ImageProcessing>(Element(number == 0 ? "IMG_GP2" : "IMG_PDS"));
        cameras[number] = thread.get();
        library.EnterThread(std::move(thread));
    }
    EXPECT_TRUE(library.SetImageProcessing_CRef(30, 40, 10, 12));
    for (const auto* camera : cameras) EXPECT_THAT(camera->GetRefPos(), Pair(30U, 40U));
    EXPECT_THAT(pds.GetRefPos(), Pair(50U, 60U));
    EXPECT_THAT(library.GetImageProcessing_CentBox(), Pair(10U, 12U));
    const LogCapture log;
    EXPECT_FALSE(library.SetImageProcessing_CRef(3, 40, 10, 12));
    EXPECT_FALSE(library.SetImageProcessing_COpt(0, 0, 0));
    EXPECT_FALSE(library.SetImageProcessing_COpt(2, 0, 0));
    for (const std::string name : {"ImgProc_IMG_GP2: ", "ImgProc_IMG_PDS: "}) {
        EXPECT_THAT(log.Texts(name, ERROR_LOG_LEVEL),
                    ElementsAre(name + "Roi: invalid coordinates: (65534..8),(34..46)",
                                name + "ERR: options must be in range 1..3",
                                name + "SetNBrightest: nbrightest must not be 0"));
    }
    EXPECT_TRUE(library.SetImageProcessing_COpt(2, 0, 7));
    EXPECT_EQ(library.GetImageProcessing_COpt().nbrightest, 7U);
    EXPECT_TRUE(library.DisableGPCentering());
    EXPECT_FALSE(VoskTelescopeStateManager::GetGPCenteringEnabled());
    EXPECT_TRUE(library.EnableGPCentering());
    EXPECT_TRUE(RuntimeMonitor::GetPerformanceData().GetDataTopic().gp_cmd_valid);
}

}  // namespace
}  // namespace vosk::lumo
