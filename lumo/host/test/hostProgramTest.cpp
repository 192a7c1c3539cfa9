// The program as its user meets it: documents, the control socket, signals, exit codes.

#include "unixSocket.hpp"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <vosk/common/fits.hpp>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

#include <csignal>

namespace vosk::host {
namespace {

using namespace testing;

class HostProgram : public ::testing::Test {
public:
    HostProgram() { WriteDocument("cfg: {}\n"); }
    ~HostProgram() override {
        if (m_pid <= 0) return;
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }

protected:
    void WriteDocument(const std::string& text) const { m_dir.Put("site.yaml", text); }

    void Start(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), VOSK_HOST_PROGRAM);
        std::vector<char*> pointers;
        for (std::string& argument : arguments) pointers.push_back(argument.data());
        pointers.push_back(nullptr);
        m_pid = ::fork();
        if (m_pid != 0) return;
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(::open(m_input.c_str(), O_RDONLY | O_CLOEXEC), STDIN_FILENO);
        const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
        ::dup2(::open(m_output.c_str(), flags, 0600), STDOUT_FILENO);
        ::dup2(::open((m_dir / "err").c_str(), flags, 0600), STDERR_FILENO);
        for (int fd : m_closed) ::close(fd);
        ::execv(pointers[0], pointers.data());
        ::_exit(127);
    }
    void StartWithSocket(std::vector<std::string> arguments = {}) {
        arguments.insert(arguments.begin(),
                         {m_document, "--control", m_dir / "sock", "--shm-prefix", "/vosk_host_test_"});
        Start(std::move(arguments));
    }

    int ExitCode() {
        int status = 0;
        ::waitpid(m_pid, &status, 0);
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    int ExitCodeOf(const std::vector<std::string>& arguments) {
        Start(arguments);
        return ExitCode();
    }
    void ExpectToStop() {
        EXPECT_EQ(Ask("stop"), "ok\n");
        EXPECT_EQ(ExitCode(), 0);
    }

    std::string Output() const { return m_dir.Content("out"); }
    std::string Errors() const { return m_dir.Content("err"); }

    // The reply to one line, as soon as the host takes it.
    std::string Ask(const std::string& line) const {
        std::string reply;
        vosk::test::Eventually([&] {
            const UniqueFd fd = MakeSocketAt(m_dir / "sock", ::connect);
            ::send(fd.Get(), line.data(), line.size(), MSG_NOSIGNAL);
            ::shutdown(fd.Get(), SHUT_WR);
            char byte = 0;
            while (::recv(fd.Get(), &byte, 1, 0) == 1) reply += byte;
            return !reply.empty();
        });
        return reply;
    }

    vosk::test::TempDir m_dir;
    std::string m_document = m_dir / "site.yaml";
    std::string m_input = "/dev/null";
    std::string m_output = m_dir / "out";
    std::vector<int> m_closed;  // of the host's standard descriptors
    pid_t m_pid = -1;
};

TEST_F(HostProgram, ServesCommandsUntilStop) {
    WriteDocument(
        "host: {priority: 1}\n"
        "cfg: {m4: {output: [{busy: false, priority: 0, ip_dest: 127.0.0.1, udp_dest: 9}]}}\n");
    StartWithSocket();
    EXPECT_THAT(Ask("status"), HasSubstr(R"({"name":"M4Output","cpu":-1,"busy":false,"priority":0,)"));
    EXPECT_EQ(Ask("mode INS_DRIVEN_CASCADE WFS_GP2"), "ok\n");
    EXPECT_THAT(Ask("status"),
                AllOf(StartsWith(R"({"mode":"INS_DRIVEN_CASCADE","camera":"WFS_GP2","source":"NONE",)"),
                      HasSubstr(R"("handover_state":1,"handover_running":true,)"),
                      HasSubstr(R"("text":"handover state 1"})")));
    EXPECT_EQ(Ask("camera IMG_GP3"), "ok\n");
    EXPECT_THAT(Ask("status"), HasSubstr(R"("mode":"INS_DRIVEN_CASCADE","camera":"IMG_GP3")"));
    const std::string ctl = std::string{VOSK_HOST_PROGRAM} + " ctl " + (m_dir / "sock") + " ";
    EXPECT_EQ(std::system((ctl + "centering off > /dev/null").c_str()), 0);
    EXPECT_NE(std::system((ctl + "reference 1 2 3 > /dev/null").c_str()), 0);
    EXPECT_THAT(Ask("status"), HasSubstr(R"("gp_centering":false)"));
    for (const char* no_camera : {"reference", "reference 120 120 8 8", "centroiding", "centroiding cog"})
        EXPECT_THAT(Ask(no_camera), HasSubstr(" no imaging camera")) << no_camera;
    ExpectToStop();
    EXPECT_EQ(Errors(), "");
    EXPECT_NE(::access((m_dir / "sock").c_str(), F_OK), 0);
    const std::string log = Output();
    const std::size_t handover = log.find("starting handover sequence");
    EXPECT_NE(handover, std::string::npos);
    EXPECT_EQ(handover, log.rfind("starting handover sequence"));
}

TEST_F(HostProgram, StopsCleanlyAtASignal) {
    for (int signal : {SIGINT, SIGTERM}) {
        StartWithSocket();
        Ask("status");
        ::kill(m_pid, signal);
        EXPECT_EQ(ExitCode(), 0);
        EXPECT_EQ(Errors(), "");
    }
}

// Field stabilisation, which has no flowgraph here, paces AoTasks in a mode that has no name for its source.
TEST_F(HostProgram, NamesAThreadThatEndedByItselfAndFailsAtItsEnd) {
    common::Fits::WriteImg<float>(common::Fits::FitsFileWrite(m_dir / "m2p.fits", true, {}),
                                  std::vector<float>(5352), {1, 5352});
    WriteDocument(
        "cfg: {ao: {ao_tasks: [{busy: false, m4_send_delay: 0 us, m4_response_timeout: 1 ms, "
        "gpao_highest_mode: 10, delta_scaling: true, managed_modes: 1, m2p_path: " +
        (m_dir / "m2p.fits") +
        ", threshold_velocity: 1, threshold_gap: 1}]}, fieldstabilization: {output: [{busy: false, "
        "shm_topic: fs_out, update_interval: 2 ms, update_offset: 0 us}]}}\n");
    StartWithSocket();
    EXPECT_EQ(Ask("mode HIGH_ORDER_CASCADE"), "ok\n");
    EXPECT_TRUE(vosk::test::Eventually(
        [&] { return Ask("status").find(R"("threads_ended":["AoTasks"])") != std::string::npos; }));
    EXPECT_EQ(Ask("stop"), "ok\n");
    EXPECT_EQ(ExitCode(), 1);
    EXPECT_EQ(Errors(), "vosk-host: threads that ended by themselves: AoTasks\n");
}

TEST_F(HostProgram, TakesCommandsFromStandardInput) {
    m_input = m_dir.Put("in", "mode INS_DRIVEN_CASCADE\n" + std::string(3000, 'x') + "\nnonsense\nstop");
    EXPECT_EQ(ExitCodeOf({m_document, "--stdin", "--log-file", m_dir / "log"}), 0);
    EXPECT_THAT(Output(), StartsWith("ok\nerror: a line has at most 1024 bytes\nerror: 'nonsense' is no"));
    EXPECT_EQ(Errors(), "");
}

TEST_F(HostProgram, RunsOnWhenItsOutputIsLostOrClosed) {
    m_output = "/dev/full";
    StartWithSocket();
    EXPECT_THAT(Ask("status"), StartsWith("{"));
    ExpectToStop();
    m_closed = {STDIN_FILENO, STDOUT_FILENO};
    StartWithSocket();
    ExpectToStop();
    EXPECT_THAT(Errors(), HasSubstr("Running with 0 threads"));
}

TEST_F(HostProgram, OpensItsLogFileAgainAtAHangUp) {
    const std::string log = m_dir / "log";
    StartWithSocket({"--log-file", log});
    Ask("status");
    ASSERT_EQ(::rename(log.c_str(), (m_dir / "log.1").c_str()), 0);
    ::kill(m_pid, SIGHUP);
    EXPECT_TRUE(vosk::test::Eventually([&] { return ::access(log.c_str(), F_OK) == 0; }));
    ExpectToStop();
    EXPECT_THAT(m_dir.Content("log.1"), HasSubstr("Running with"));
    EXPECT_THAT(m_dir.Content("log"), HasSubstr("Stopping."));
}

TEST_F(HostProgram, SetUpFailureIsOneLineAndOneErrorOfTheLog) {
    for (const std::string element :
         {"{ip_dest: 127.0.0.1}",                                                 // refused for its keys
          "{busy: true, ip_dest: 127.0.0.1, udp_dest: 9, ip_src: 192.0.2.1}"}) {  // by the endpoint
        WriteDocument("cfg:\n  m4:\n    output:\n      - " + element + "\n");
        EXPECT_EQ(ExitCodeOf({m_document}), 1);
        const std::string errors = Errors();
        EXPECT_THAT(errors, StartsWith("vosk-host: "));
        EXPECT_EQ(errors.find('\n'), errors.size() - 1);
        const std::string log = Output();
        EXPECT_THAT(log, HasSubstr("site.yaml:4: cfg.m4."));
        EXPECT_NE(log.find(" ERROR "), std::string::npos);
        EXPECT_EQ(log.find(" ERROR "), log.rfind(" ERROR "));
    }
}

TEST_F(HostProgram, RefusesAWrongCommandLine) {
    EXPECT_EQ(ExitCodeOf({}), 2);
    for (const char* option : {"--no-such-option", "--log-level"})
        EXPECT_EQ(ExitCodeOf({m_document, option, "loud"}), 2) << option;
}

TEST_F(HostProgram, CheckPrintsAllAndFailsOnAProblemOnly) {
    WriteDocument("cfg: {resamplers: [text]}\n");
    EXPECT_EQ(ExitCodeOf({"check", m_document}), 0);
    EXPECT_THAT(Output(), AllOf(HasSubstr(":1: cfg.resamplers[0]: warning: "), EndsWith("No problems.\n")));
    WriteDocument("cfg:\n  m44: 1\n");
    EXPECT_EQ(ExitCodeOf({"check", m_document}), 1);
    EXPECT_THAT(Output(), EndsWith(":2: cfg.m44: nothing reads this key\n"));
    EXPECT_EQ(Errors(), "");
}

}  // namespace
}  // namespace vosk::host
