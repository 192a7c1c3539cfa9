// The library object: the walk through the document, the common start, the stop, the control commands.

#include "testSupport.hpp"

#include <unistd.h>
#include <vosk/test/support.hpp>

#include <gim/config.hpp>
#include <lumolib/libMain.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/voskHandoverManager.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>
#include <vosk/test/logCapture.hpp>

namespace vosk::lumo {
namespace {

using defs::Camera;
using defs::VoskControlMode;
using namespace std::chrono_literals;
using namespace testing;
using namespace vosk::test;

gim::Config ConfigOf(const std::string& text) {
    gim::Config config;
    config.ParseText(text, "test.yaml");
    return config;
}

std::vector<std::string> ThreadNames(const LibMain& library) {
    std::vector<std::string> names;
    for (const auto& [name, thread] : library.GetThreads()) names.push_back(name);
    return names;
}

// The library with threads of the test's own beside those of the document.
class OpenLibMain : public LibMain {
public:
    using LibMain::EnterThread;
    using LibMain::LibMain;
};

class TestThread : public Thread {
public:
    using Body = std::function<void(std::promise<void>&)>;
    TestThread(const std::string& name, Body body)
        : Thread{name, test::CfgOf("cfg: {busy: false}"), ""}, m_body{std::move(body)} {}
    bool HasEnded() const { return m_ended; }

protected:
    void Work(std::promise<void>& started) override {
        m_body(started);
        while (IsRunning()) std::this_thread::sleep_for(std::chrono::milliseconds{1});
        m_ended = true;
    }

private:
    Body m_body;
    std::atomic<bool> m_ended{false};
};

class LibMainTest : public ::testing::Test {
public:
    ~LibMainTest() override { m_library.StopThreads(); }

protected:
    LibMainTest() {
        ResetControlState();
        VoskTelescopeStateManager::SetActiveCameraFS(Camera::IMG_GP1);
    }

    OpenLibMain m_library{"libMainTest" + std::to_string(::getpid()) + "_"};
};

constexpr const char* OUTPUT = "{busy: false, ip_dest: 127.0.0.1, udp_dest: 47001}";

std::string Receiver(int port) {
    return "{busy: false, timeout: \"1 ms\", listen_udp: " + std::to_string(port) +
           ", listen_ip: 127.0.0.1, iface_name: lo, qudex_topic: 1}";
}

TEST_F(LibMainTest, EmptyDocumentMakesNoThread) {
    for (const char* text : {"cfg: {}", "cfg:"}) {
        const LogCapture log;
        m_library.SetupThreads(ConfigOf(text));
        EXPECT_THAT(ThreadNames(m_library), ElementsAre());
        m_library.StartThreads();
        m_library.StopThreads();
        const bool is_skipped = std::string{text} == "cfg:";
        EXPECT_EQ(log.Texts("M4/M5/PFS/MS config invalid or missing, skipping..").size(), is_skipped);
        EXPECT_EQ(log.Texts("GNU Radio Input/Output config invalid or missing, skipping..").size(),
                  is_skipped);
    }
    EXPECT_THROW(m_library.SetupThreads(gim::Config{}), std::runtime_error);
    EXPECT_THROW(m_library.SetupThreads(ConfigOf("cfg: 5")), std::runtime_error);
}

TEST(LibMain, TellsThatItStands) {
    const LogCapture log;
    const LibMain library{"libMainTest_"};
    EXPECT_TRUE(log.Has(log4cplus::TRACE_LOG_LEVEL, "lumo library initialized"));
}

TEST_F(LibMainTest, EmptiesTheRegistriesAndReadsTheResamplersBeforeItMakesAThread) {
    const LogCapture log;
    m_library.SetupThreads(ConfigOf(std::string{"cfg: {m4: {output: ["} + OUTPUT +
                                    "]}, resamplers: [{id: r, definition: []}]}"));
    std::vector<std::string> texts = log.Texts("");
    texts.resize(5);
    EXPECT_THAT(
        texts,
        ElementsAre("Setting up threads...", "DataSyncManager::Reset()", "ResamplerManager::Reset()",
                    "ResamplerManager: found resampler configuration: r", "Setting up M4Output thread"));
}

TEST_F(LibMainTest, MakesTheStreamsThatTheDocumentDescribesAndStartsThemByName) {
    const LogCapture log;
    m_library.SetupThreads(ConfigOf("cfg: {ao: {wavefront_cmd_stream: [" + Receiver(UniquePort(0)) +
                                    "]}, m4: {output: [" + OUTPUT + "], input: [" + Receiver(UniquePort(1)) +
                                    "]}}"));
    EXPECT_THAT(ThreadNames(m_library), ElementsAre("AoWfCmdInput", "M4Input", "M4Output"));
    m_library.StartThreads();
    m_library.StopThreads();
    m_library.StartThreads();  // a stopped library starts again
    m_library.StopThreads();

    std::vector<std::string> order;
    for (const std::string& text : log.Texts("Starting thread "))
        order.push_back(text.substr(16, text.find(':') - 16));
    EXPECT_THAT(order,
                ElementsAre("AoWfCmdInput", "M4Input", "M4Output", "AoWfCmdInput", "M4Input", "M4Output"));
    EXPECT_TRUE(log.Has(log4cplus::TRACE_LOG_LEVEL, "No M5 configuration found, skipping"));
    EXPECT_TRUE(log.Has(log4cplus::TRACE_LOG_LEVEL, "No GPAO configuration found, skipping"));
}

TEST_F(LibMainTest, RefusesWhatIsNotASequenceAndWhatNoEndpointCanUse) {
    const auto refusal = [this](const std::string& text) {
        return TextOf([&] { m_library.SetupThreads(ConfigOf(text)); });
    };
    EXPECT_EQ(refusal(std::string{"cfg: {m4: {output: "} + OUTPUT + "}}"),
              "ERR: cfg.m4.output must be a sequence");
    // Also a stream that no thread of this build serves.
    EXPECT_EQ(refusal("cfg: {guide_probe: {vis_img: {camera_type: lisa}}}"),
              "ERR: cfg.guide_probe.vis_img must be a sequence");
    EXPECT_EQ(refusal("cfg: {guide_probe: {vis_img: []}}"), "no exception");
    EXPECT_THROW(m_library.SetupThreads(ConfigOf("cfg: {m4: {output: []}}")), std::runtime_error);
    const LogCapture log;
    EXPECT_EQ(refusal("cfg: {m4: {input: [" + Receiver(0) + "]}}"), "Rx::Rx: udp_cfg.udp.listen is required");
    EXPECT_THAT(log.Texts("", log4cplus::ERROR_LOG_LEVEL),
                ElementsAre("Rx::Rx: udp_cfg.udp.listen is required"));
    EXPECT_THAT(ThreadNames(m_library), ElementsAre());
}

TEST_F(LibMainTest, WhatFailsToStartIsToldAndTheOthersRunOn) {
    m_library.SetupThreads(ConfigOf("cfg: {}"));
    auto first = std::make_unique<TestThread>("A", [](auto& started) { started.set_value(); });
    const TestThread& running = *first;
    m_library.EnterThread(std::move(first));
    m_library.EnterThread(
        std::make_unique<TestThread>("B", [](auto&) { throw std::runtime_error("the mirror is away"); }));
    EXPECT_EQ(TextOf([this] { m_library.StartThreads(); }), "the mirror is away");
    EXPECT_FALSE(running.HasEnded());
    m_library.StopThreads();
    EXPECT_TRUE(running.HasEnded());
}

// With 3 s for each, B would be in time and C the one that isn't.
TEST_F(LibMainTest, AllThreadsTogetherHaveThreeSecondsToReport) {
    m_library.SetupThreads(ConfigOf("cfg: {}"));
    std::atomic<int> bodies{0};
    const auto enter = [&](const char* name, std::chrono::seconds report_after) {
        m_library.EnterThread(std::make_unique<TestThread>(name, [&bodies, report_after](auto& started) {
            ++bodies;
            std::this_thread::sleep_for(report_after);
            if (report_after > 0s) started.set_value();
        }));
    };
    enter("A", 2s);
    enter("B", 4s);
    enter("C", 0s);  // never
    const LogCapture log;
    EXPECT_EQ(TextOf([this] { m_library.StartThreads(); }), "Thread B failed to start on time");
    EXPECT_EQ(log.Count(log4cplus::ERROR_LOG_LEVEL, "Thread B failed to start on time"), 1);
    EXPECT_EQ(bodies, 3);
    m_library.StopThreads();
}

TEST_F(LibMainTest, ALaterThreadOfANameReplacesTheEarlierOneAndIsToldOf) {
    const LogCapture log;
    m_library.SetupThreads(ConfigOf("cfg: {ao: {wavefront_cmd_stream: [" + Receiver(UniquePort(0)) + ", " +
                                    Receiver(UniquePort(1)) + "]}}"));
    EXPECT_THAT(ThreadNames(m_library), ElementsAre("AoWfCmdInput"));
    EXPECT_TRUE(log.Has(log4cplus::WARN_LOG_LEVEL,
                        "test.yaml:1: cfg.ao.wavefront_cmd_stream[1]: replaces another thread of the name "
                        "AoWfCmdInput"));
    m_library.StartThreads();
    EXPECT_EQ(log.Texts("Started thread ").size(), 1U);
    EXPECT_THAT(log.Texts("Started thread ")[0], HasSubstr(":" + std::to_string(UniquePort(1))));
    m_library.StopThreads();
}

TEST_F(LibMainTest, StoppingPrintsTheStatisticsThatAreEnabled) {
    m_library.SetupThreads(ConfigOf("cfg: {statistics: {m4: 2 ms}}"));
    m_library.StartThreads();
    for (const auto& statistics :
         {RuntimeMonitor::GetInstance().m_m4_statistics, RuntimeMonitor::GetInstance().m_m5_statistics}) {
        statistics->UpdateTsSent(time_point{});
        statistics->UpdateTsReceived(time_point{});
    }
    const LogCapture log;
    m_library.StopThreads();
    EXPECT_TRUE(log.Has(log4cplus::TRACE_LOG_LEVEL, "Stream 10: num_samples = 0"));
    EXPECT_FALSE(log.Has(log4cplus::TRACE_LOG_LEVEL, "Stream 11: num_samples = 0"));
}

TEST_F(LibMainTest, SimulationWantsFourTopics) {
    const auto result = [this](const char* text) {
        return TextOf([&] { m_library.SetupDataSync(test::CfgOf(text)); });
    };
    for (const char* text : {"cfg:", "cfg: {}", "cfg: {ecmwfsim: 5}", "cfg: {ecmwfsim: {}}",
                             "cfg: {ecmwfsim: {input: [{shm_topic: [a, b, c, d]}]}}"}) {
        EXPECT_EQ(result(text), "no exception") << text;
    }
    EXPECT_EQ(result("cfg: {ecmwfsim: {input: [{shm_topic: [a, b, c]}]}}"),
              "ERR: ECMWFSim must be configured with SHM topics for all GPs, plus the PDS");
}

TEST_F(LibMainTest, ModeIsSwitchedBeforeTheCamera) {
    const LogCapture log;
    m_library.SetVoskMode(VoskControlMode::INS_DRIVEN_CASCADE, Camera::WFS_GP2);
    EXPECT_THAT(log.Texts("Changing "), ElementsAre("Changing VOSK Control Mode to INS_DRIVEN_CASCADE.",
                                                    "Changing Active Camera FS to WFS_GP2."));
    EXPECT_THAT(log.Texts("VoskTelescopeStateManager::"),
                ElementsAre(HasSubstr("Control Mode change TEL_DRIVEN -> INS_DRIVEN_CASCADE"),
                            HasSubstr("Active camera FS change IMG_GP1 -> WFS_GP2")));
    EXPECT_EQ(m_library.GetControlMode(), VoskControlMode::INS_DRIVEN_CASCADE);
    EXPECT_EQ(m_library.GetActiveCameraFs(), Camera::WFS_GP2);
}

TEST_F(LibMainTest, APresentModeIsNoChangeAndAWrongOneIsRefused) {
    m_library.SetVoskMode(VoskControlMode::INS_DRIVEN_CASCADE, {});
    EXPECT_EQ(m_library.GetActiveCameraFs(), Camera::IMG_GP1);
    const LogCapture log;
    m_library.SetVoskMode(VoskControlMode::INS_DRIVEN_CASCADE, Camera::WFS_GP2);
    EXPECT_EQ(m_library.GetActiveCameraFs(), Camera::WFS_GP2);
    EXPECT_THAT(log.Texts("HandoverStateManager"), ElementsAre());
    EXPECT_THROW(m_library.SetVoskMode(static_cast<VoskControlMode>(7), {}), std::runtime_error);
    EXPECT_EQ(m_library.GetControlMode(), VoskControlMode::INS_DRIVEN_CASCADE);
}

}  // namespace
}  // namespace vosk::lumo
