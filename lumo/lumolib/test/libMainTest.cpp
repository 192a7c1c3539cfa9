// The library object: the walk through the document, the common start, the stop, the control commands.

#include "testSupport.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <gim/config.hpp>
#include <lumolib/libMain.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/voskHandoverManager.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>
#include <vosk/common/testing/logCapture.hpp>

namespace vosk::lumo {
namespace {

using common::LogCapture;
using defs::Camera;
using defs::VoskControlMode;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

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
protected:
    LibMainTest() {
        ResetControlState();
        VoskTelescopeStateManager::SetActiveCameraFS(Camera::IMG_GP1);
    }

    ~LibMainTest() override { m_library.StopThreads(); }

    OpenLibMain m_library{"libMainTest" + std::to_string(::getpid()) + "_"};
};

constexpr const char* INPUT =
    "{busy: false, timeout: \"1 ms\", listen_udp: 0, listen_ip: 127.0.0.1, iface_name: lo}";
constexpr const char* OUTPUT = "{busy: false, ip_dest: 127.0.0.1, udp_dest: 47001}";

std::string Receiver(int port) {
    return "{busy: false, timeout: \"1 ms\", listen_udp: " + std::to_string(port) +
           ", listen_ip: 127.0.0.1, iface_name: lo, qudex_topic: 1}";
}

TEST_F(LibMainTest, EmptyDocumentMakesNoThread) {
    for (const char* text : {"cfg: {}", "cfg:"}) {
        m_library.SetupThreads(ConfigOf(text));
        EXPECT_THAT(ThreadNames(m_library), ElementsAre());
        m_library.StartThreads();
        m_library.StopThreads();
    }
    EXPECT_THROW(m_library.SetupThreads(gim::Config{}), std::runtime_error);
    EXPECT_THROW(m_library.SetupThreads(ConfigOf("cfg: 5")), std::runtime_error);
}

TEST_F(LibMainTest, MakesTheStreamsThatTheDocumentDescribesAndStartsThemByName) {
    const LogCapture log;
    m_library.SetupThreads(ConfigOf("cfg: {ao: {wavefront_cmd_stream: [" + Receiver(47002) +
                                    "]}, m4: {output: [" + OUTPUT + "], input: [" + Receiver(47003) + "]}}"));
    EXPECT_THAT(ThreadNames(m_library), ElementsAre("AoWfCmdInput", "M4Input", "M4Output"));
    m_library.StartThreads();
    m_library.StopThreads();
    m_library.StartThreads();  // a stopped library starts again
    m_library.StopThreads();

    std::vector<std::string> order;
    for (const auto& line : log.Lines()) {
        if (line.text.starts_with("Starting thread "))
            order.push_back(line.text.substr(16, line.text.find(':') - 16));
    }
    EXPECT_THAT(order,
                ElementsAre("AoWfCmdInput", "M4Input", "M4Output", "AoWfCmdInput", "M4Input", "M4Output"));
    EXPECT_TRUE(log.Has(log4cplus::TRACE_LOG_LEVEL, "No M5 configuration found, skipping"));
    EXPECT_TRUE(log.Has(log4cplus::TRACE_LOG_LEVEL, "No GPAO configuration found, skipping"));
}

TEST_F(LibMainTest, RefusesWhatIsNotASequenceAndWhatNoEndpointCanUse) {
    EXPECT_THROW(m_library.SetupThreads(ConfigOf(std::string{"cfg: {m4: {output: "} + OUTPUT + "}}")),
                 std::runtime_error);
    EXPECT_THROW(m_library.SetupThreads(ConfigOf("cfg: {m4: {output: []}}")), std::runtime_error);
    try {
        m_library.SetupThreads(ConfigOf(std::string{"cfg: {m4: {input: ["} + INPUT + "]}}"));
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Rx::Rx: udp_cfg.udp.listen is required");
    }
    EXPECT_THAT(ThreadNames(m_library), ElementsAre());
}

TEST_F(LibMainTest, WhatFailsToStartIsToldAndTheOthersRunOn) {
    m_library.SetupThreads(ConfigOf("cfg: {}"));
    auto first = std::make_unique<TestThread>("A", [](auto& started) { started.set_value(); });
    const TestThread& running = *first;
    m_library.EnterThread(std::move(first));
    m_library.EnterThread(
        std::make_unique<TestThread>("B", [](auto&) { throw std::runtime_error("the mirror is away"); }));
    try {
        m_library.StartThreads();
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "the mirror is away");
    }
    EXPECT_FALSE(running.HasEnded());
    m_library.StopThreads();
    EXPECT_TRUE(running.HasEnded());

    m_library.EnterThread(std::make_unique<TestThread>("B", [](auto&) {}));  // never reports ready
    try {
        m_library.StartThreads();
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Thread B failed to start on time");
    }
}

TEST_F(LibMainTest, SimulationWantsFourTopics) {
    m_library.SetupDataSync(test::CfgOf("cfg: {}"));
    m_library.SetupDataSync(test::CfgOf("cfg: {ecmwfsim: {input: [{shm_topic: [a, b, c, d]}]}}"));
    EXPECT_THROW(m_library.SetupDataSync(test::CfgOf("cfg: {ecmwfsim: {input: [{shm_topic: [a, b, c]}]}}")),
                 std::runtime_error);
}

TEST_F(LibMainTest, ModeIsSwitchedBeforeTheCamera) {
    m_library.SetVoskMode(VoskControlMode::INS_DRIVEN_CASCADE, {});
    EXPECT_EQ(m_library.GetActiveCameraFs(), Camera::IMG_GP1);
    const LogCapture log;
    m_library.SetVoskMode(VoskControlMode::INS_DRIVEN_CASCADE,
                          Camera::WFS_GP2);  // the present mode: no observer
    EXPECT_EQ(m_library.GetControlMode(), VoskControlMode::INS_DRIVEN_CASCADE);
    EXPECT_EQ(m_library.GetActiveCameraFs(), Camera::WFS_GP2);
    for (const auto& line : log.Lines())
        EXPECT_THAT(line.text, ::testing::Not(HasSubstr("HandoverStateManager")));
    EXPECT_THROW(m_library.SetVoskMode(static_cast<VoskControlMode>(7), {}), std::runtime_error);
    EXPECT_EQ(m_library.GetControlMode(), VoskControlMode::INS_DRIVEN_CASCADE);
}

}  // namespace
}  // namespace vosk::lumo
