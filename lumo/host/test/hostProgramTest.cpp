// The program as its user meets it: documents, the control socket, signals, exit codes.

#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

#include <fcntl.h>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

using testing::HasSubstr;
using testing::StartsWith;

namespace {

class HostProgram : public ::testing::Test {
public:
    ~HostProgram() override {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
    }

protected:
    HostProgram() { WriteDocument("cfg: {}\n"); }

    void WriteDocument(const std::string& text) const { m_dir.Put("site.yaml", text); }

    void Start(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), VOSK_HOST_PROGRAM);
        std::vector<char*> pointers;
        pointers.reserve(arguments.size() + 1);
        for (std::string& argument : arguments) pointers.push_back(argument.data());
        pointers.push_back(nullptr);
        m_pid = ::fork();
        if (m_pid != 0) return;
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        Redirect(STDIN_FILENO, m_input, O_RDONLY);
        Redirect(STDOUT_FILENO, m_output, O_WRONLY | O_CREAT | O_TRUNC);
        Redirect(STDERR_FILENO, m_dir / "err", O_WRONLY | O_CREAT | O_TRUNC);
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

    std::string Output() const { return m_dir.Content("out"); }
    std::string Errors() const { return m_dir.Content("err"); }

    // The reply to one line, as soon as the host takes it.
    std::string Ask(const std::string& line) const {
        std::string reply;
        vosk::test::Eventually([&] {
            const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            const std::string path = m_dir / "sock";
            std::memcpy(address.sun_path, path.data(), path.size());
            if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
                ::send(fd, line.data(), line.size(), MSG_NOSIGNAL);
                ::shutdown(fd, SHUT_WR);
                char byte = 0;
                while (::recv(fd, &byte, 1, 0) == 1) reply += byte;
            }
            ::close(fd);
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

private:
    static void Redirect(int fd, const std::string& file, int flags) {
        ::dup2(::open(file.c_str(), flags | O_CLOEXEC, 0600), fd);
    }
};

TEST_F(HostProgram, ServesCommandsUntilStop) {
    StartWithSocket();
    EXPECT_THAT(Ask("status"), StartsWith(R"({"mode":"TEL_DRIVEN","camera":"IMG_GP1","source":"OFF",)"));
    EXPECT_EQ(Ask("mode HIGH_ORDER_CASCADE"), "ok\n");  // a variant, which needs no handover
    EXPECT_THAT(
        Ask("status"),
        HasSubstr(
            R"("handover_running":false,"mode_to_be_set_again":false,"gp_centering":true,"mode_change_in_progress":true,)"));
    EXPECT_EQ(Ask("mode INS_DRIVEN_CASCADE WFS_GP2"), "ok\n");
    const std::string status = Ask("status");
    EXPECT_THAT(status, StartsWith(R"({"mode":"INS_DRIVEN_CASCADE","camera":"WFS_GP2","source":"NONE",)"
                                   R"("handover_state":1,"handover_running":true,)"));
    EXPECT_THAT(status, HasSubstr(R"("threads_ended":[],"streams":[)"));
    EXPECT_THAT(status, HasSubstr(R"({"name":"M4_OUTPUT","valid":false,"samples":0,"invalid":0,)"));
    EXPECT_THAT(status, HasSubstr(R"("text":"handover state 1"})"));
    EXPECT_EQ(Ask("camera IMG_GP3"), "ok\n");
    EXPECT_THAT(Ask("status"), HasSubstr(R"("mode":"INS_DRIVEN_CASCADE","camera":"IMG_GP3")"));
    EXPECT_THAT(Ask("nonsense"), StartsWith("error: "));
    EXPECT_EQ(Ask("stop"), "ok\n");
    EXPECT_EQ(ExitCode(), 0);
    EXPECT_EQ(Errors(), "");
    EXPECT_NE(::access((m_dir / "sock").c_str(), F_OK), 0);
    const std::string log = Output();
    const std::size_t handover = log.find("starting handover sequence");
    EXPECT_NE(handover, std::string::npos);
    EXPECT_EQ(log.find("starting handover sequence", handover + 1), std::string::npos);
}

TEST_F(HostProgram, ShowsWhatItFoundOnTheMachineAndWhatItGaveItsThreads) {
    WriteDocument(
        "host: {priority: 1}\n"
        "cfg: {m4: {output: [{busy: false, priority: 0, ip_dest: 127.0.0.1, udp_dest: 9}]}}\n");
    StartWithSocket();
    const std::string status = Ask("status");
    EXPECT_THAT(status, HasSubstr(R"("machine":{"version":")"));
    EXPECT_THAT(status, HasSubstr(R"("threads":[{"name":"M4Output","cpu":-1,"busy":false,"priority":0,)"));
    EXPECT_EQ(Ask("stop"), "ok\n");
    EXPECT_EQ(ExitCode(), 0);
    EXPECT_THAT(Output(), HasSubstr("real-time priority not asked for; TAI offset "));
    timespec tai{};
    timespec utc{};
    ::clock_gettime(CLOCK_REALTIME, &utc);
    ::clock_gettime(CLOCK_TAI, &tai);
    EXPECT_EQ(Output().find("The kernel does not know how far TAI") != std::string::npos,
              tai.tv_sec - utc.tv_sec < 10);
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

TEST_F(HostProgram, TakesCommandsFromStandardInput) {
    m_input = m_dir.Put("in", "mode INS_DRIVEN_CASCADE\n" + std::string(3000, 'x') + "\nnonsense\nstop");
    EXPECT_EQ(ExitCodeOf({m_document, "--stdin", "--log-level", "warn"}), 0);
    EXPECT_THAT(Output(), StartsWith("ok\nerror: a line has at most 1024 bytes\nerror: 'nonsense' is no"));
    EXPECT_EQ(Errors(), "");
}

TEST_F(HostProgram, RunsOnWhenItsOutputIsLost) {
    m_input = m_dir.Put("in", "status\nstatus\n");
    m_output = "/dev/full";
    StartWithSocket({"--stdin"});
    EXPECT_THAT(Ask("status"), StartsWith("{"));
    EXPECT_EQ(Ask("stop"), "ok\n");
    EXPECT_EQ(ExitCode(), 0);
}

TEST_F(HostProgram, LogsToTheOtherOutputWhereStandardOutputIsClosed) {
    m_closed = {STDIN_FILENO, STDOUT_FILENO};
    StartWithSocket();
    EXPECT_EQ(Ask("stop"), "ok\n");
    EXPECT_EQ(ExitCode(), 0);
    EXPECT_THAT(Errors(), HasSubstr("Running with 0 threads"));
}

TEST_F(HostProgram, OpensItsLogFileAgainAtAHangUp) {
    const std::string log = m_dir / "log";
    StartWithSocket({"--log-file", log});
    Ask("status");
    ASSERT_EQ(::rename(log.c_str(), (m_dir / "log.1").c_str()), 0);
    ::kill(m_pid, SIGHUP);
    EXPECT_TRUE(vosk::test::Eventually([&] { return ::access(log.c_str(), F_OK) == 0; }));
    EXPECT_EQ(Ask("stop"), "ok\n");
    EXPECT_EQ(ExitCode(), 0);
    EXPECT_THAT(m_dir.Content("log.1"), HasSubstr("Running with"));
    EXPECT_THAT(m_dir.Content("log"), HasSubstr("Stopping."));
}

TEST_F(HostProgram, SetUpFailureIsOneLine) {
    WriteDocument("cfg:\n  m4:\n    output:\n      - {ip_dest: 127.0.0.1}\n");
    EXPECT_EQ(ExitCodeOf({m_document}), 1);
    const std::string errors = Errors();
    EXPECT_THAT(errors, StartsWith("vosk-host: "));
    EXPECT_EQ(errors.find('\n'), errors.size() - 1);
    const std::string log = Output();
    EXPECT_THAT(log, HasSubstr(" INFO  vosk: Reading configuration document " + m_document + '\n'));
    EXPECT_THAT(log, HasSubstr("site.yaml:4: cfg.m4.output[0] can't be set up"));
    EXPECT_NE(log.find(" ERROR "), std::string::npos);
    EXPECT_EQ(log.find(" ERROR "), log.rfind(" ERROR "));
    WriteDocument(
        "cfg:\n  m4:\n    input:\n      - {busy: true, listen_ip: 127.0.0.1, iface_name: nowhere0, "
        "listen_udp: 9}\n");
    EXPECT_EQ(ExitCodeOf({m_document}), 1);  // refused by the endpoint, not for its keys
    const std::string second = Output();
    EXPECT_NE(second.find(" ERROR "), std::string::npos);
    EXPECT_EQ(second.find(" ERROR "), second.rfind(" ERROR "));
    EXPECT_EQ(ExitCodeOf({m_dir / "nowhere"}), 1);
    EXPECT_THAT(Errors(), HasSubstr("nowhere"));
}

TEST_F(HostProgram, TellsItsVersion) {
    EXPECT_EQ(ExitCodeOf({"--version"}), 0);
    EXPECT_THAT(Output(), testing::MatchesRegex("vosk-host [0-9]+[.][0-9]+[.][0-9]+\n"));
}

TEST_F(HostProgram, RefusesAWrongCommandLine) {
    for (const auto& arguments : std::vector<std::vector<std::string>>{{},
                                                                       {m_document, "--no-such-option"},
                                                                       {m_document, "--log-level", "loud"},
                                                                       {m_document, "--shm-prefix", "a/b"}}) {
        EXPECT_EQ(ExitCodeOf(arguments), 2) << testing::PrintToString(arguments);
        EXPECT_THAT(Errors(), StartsWith("vosk-host: "));
    }
}

TEST_F(HostProgram, CheckPrintsAllAndFailsOnAProblemOnly) {
    WriteDocument("cfg: {m5: {input: []}}\n");
    EXPECT_EQ(ExitCodeOf({"check", m_document}), 0);
    EXPECT_THAT(Output(), HasSubstr(":1: cfg.m5.input: warning: "));
    EXPECT_THAT(Output(), testing::EndsWith("No problems.\n"));

    WriteDocument("cfg:\n  m4:\n    output:\n      - {ip_dest: 127.0.0.1}\n  m44: 1\n");
    EXPECT_EQ(ExitCodeOf({"check", m_document}), 1);
    EXPECT_THAT(Output(), HasSubstr(":4: cfg.m4.output[0].busy: "));
    EXPECT_THAT(Output(), testing::EndsWith(":5: cfg.m44: nothing reads this key\n"));
    EXPECT_EQ(Errors(), "");
}

}  // namespace
