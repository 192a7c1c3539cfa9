// The library object: the walk through the document, the common start, the stop, the control commands.

#include "loopBench.hpp"

#include <lumolib/libMain.hpp>

namespace vosk::lumo {
namespace {

using namespace test;

// The library with threads of the test's own beside those of the document.
struct OpenLibMain : LibMain {
    using LibMain::EnterThread;
    using LibMain::LibMain;
    using LibMain::Starting;
    using LibMain::WaitForStarts;
};

class TestThread : public Thread {
public:
    using Body = std::function<void(std::promise<void>&)>;
    TestThread(const std::string& name, Body body)
        : Thread{name, CfgOf("cfg: {busy: false}"), ""}, m_body{std::move(body)} {}
    bool HasEnded() const { return m_ended; }

protected:
    void Work(std::promise<void>& started) override {
        m_body(started);
        while (IsRunning()) std::this_thread::sleep_for(milliseconds{1});
        m_ended = true;
    }

private:
    Body m_body;
    std::atomic<bool> m_ended{false};
};

class LibMainTest : public ::testing::Test {
public:
    LibMainTest() {
        ResetControlState();
        VoskTelescopeStateManager::SetActiveCameraFS(Camera::IMG_GP1);
    }
    ~LibMainTest() override { m_library.StopThreads(); }

protected:
    void SetUpThreads(const std::string& text) {
        gim::Config config;
        config.ParseText(text, "test.yaml");
        m_library.SetupThreads(config);
    }
    std::vector<std::string> ThreadNames() const {
        std::vector<std::string> names;
        for (const auto& [name, thread] : m_library.GetThreads()) names.push_back(name);
        return names;
    }

    const LogCapture m_log;
    OpenLibMain m_library{vosk::test::UniqueName() + "_"};
};

TEST_F(LibMainTest, EmptyDocumentMakesNoThreadAndNoDocumentIsRefused) {
    SetUpThreads("cfg:");
    m_library.StartThreads();
    EXPECT_THAT(ThreadNames(), IsEmpty());
    EXPECT_THROW(m_library.SetupThreads(gim::Config{}), std::runtime_error);
    EXPECT_THROW(SetUpThreads("cfg: 5"), std::runtime_error);
}

TEST_F(LibMainTest, EmptiesTheRegistriesThenMakesTheStreamsAndStartsThemAgainAfterAStop) {
    const auto former = Get<FsRefDataSync>();
    SetUpThreads("cfg: {ao: {wavefront_cmd_stream: [" + ReceiverKeys(0) +
                 "]}, m4: {output: [{busy: false, ip_dest: 127.0.0.1, udp_dest: 47001}], input: [" +
                 ReceiverKeys(1) + "], feedback: [" + ReceiverKeys(2) +
                 "]}, resamplers: [{id: r, definition: []}]}");
    EXPECT_NE(Get<FsRefDataSync>(), former);
    EXPECT_THAT(m_log.Texts("ResamplerManager: found resampler configuration: r"), SizeIs(1));
    for (unsigned starts : {1U, 2U}) {
        m_library.StartThreads();
        m_library.StopThreads();
        EXPECT_EQ(m_log.Texts("Stopped thread ").size(), 4 * starts);
    }
    EXPECT_THAT(ThreadNames(), ElementsAre("AoWfCmdInput", "M4FeedbackInput", "M4Input", "M4Output"));
}

TEST_F(LibMainTest, RefusesWhatIsNoSequenceAndWhatNoEndpointCanUse) {
    for (const char* streams :
         {"m4: {output: {busy: false, ip_dest: 127.0.0.1, udp_dest: 47001}}",
          "guide_probe: {vis_img: {camera_type: lisa}}", "m4: {output: []}", "m4: {input: [{busy: false}]}"})
        EXPECT_THROW(SetUpThreads(std::string{"cfg: {"} + streams + "}"), std::runtime_error) << streams;
    // The text of each stands once in the log.
    EXPECT_EQ(m_log.Texts("Rx::Rx: udp_cfg.udp.listen is required", log4cplus::ERROR_LOG_LEVEL).size(), 1U);
    EXPECT_THAT(ThreadNames(), IsEmpty());
    const auto node = CfgOf("cfg: {ecmwfsim: {input: [{shm_topic: [a, b, c]}]}}");
    EXPECT_THROW(m_library.SetupDataSync(node), std::runtime_error);  // one topic is missing
}

// One thread after the other would never start: the first waits for the last.
TEST_F(LibMainTest, AllThreadsStartTogetherAndAFailureIsThrownWhileTheOthersRunOn) {
    SetUpThreads("cfg: {}");
    std::atomic<bool> has_last_begun{false};
    auto first = std::make_unique<TestThread>("A", [&](auto& started) {
        EXPECT_TRUE(Eventually([&] { return has_last_begun.load(); }));
        started.set_value();
    });
    const TestThread& running = *first;
    m_library.EnterThread(std::move(first));
    m_library.EnterThread(
        std::make_unique<TestThread>("B", [](auto&) { throw std::runtime_error("the mirror is away"); }));
    m_library.EnterThread(std::make_unique<TestThread>("C", [&](auto&) { has_last_begun = true; }));
    EXPECT_EQ(TextOf([this] { m_library.StartThreads(); }), "the mirror is away");
    EXPECT_FALSE(running.HasEnded());
}

TEST_F(LibMainTest, AtTheDeadlineTheFirstThreadThatIsNotReadyIsNamed) {
    std::array<std::promise<void>, 3> threads;
    OpenLibMain::Starting starting;
    for (std::size_t i = 0; i < threads.size(); ++i)
        starting.emplace_back(std::string(1, "ABC"[i]), threads[i].get_future());
    threads[0].set_value();
    EXPECT_EQ(TextOf([&] { OpenLibMain::WaitForStarts(starting, AtomClk::now()); }),
              "Thread B failed to start on time");
}

TEST_F(LibMainTest, ALaterThreadOfANameReplacesTheEarlierOneWithAWarning) {
    SetUpThreads("cfg: {ao: {wavefront_cmd_stream: [" + ReceiverKeys(0) + ", " + ReceiverKeys(1) + "]}}");
    EXPECT_THAT(m_log.Texts("cfg.ao.wavefront_cmd_stream[1]: replaces another", log4cplus::WARN_LOG_LEVEL),
                SizeIs(1));
    m_library.StartThreads();
    EXPECT_THAT(m_log.Texts("Started thread "), ElementsAre(HasSubstr(":" + std::to_string(UniquePort(1)))));
}

TEST_F(LibMainTest, ModeIsSwitchedBeforeTheCameraAndAPresentModeIsNoChange) {
    m_library.SetVoskMode(INS_DRIVEN_CASCADE, Camera::WFS_GP2);
    EXPECT_THAT(m_log.Texts(" change "),
                ElementsAre(HasSubstr("CmdSource change"), HasSubstr("Control Mode change"),
                            HasSubstr("Active camera FS change")));
    m_library.SetVoskMode(INS_DRIVEN_CASCADE, {});
    EXPECT_EQ(m_library.GetActiveCameraFs(), Camera::WFS_GP2);
    EXPECT_THAT(m_log.Texts("starting handover sequence"), SizeIs(1));
}

}  // namespace
}  // namespace vosk::lumo
