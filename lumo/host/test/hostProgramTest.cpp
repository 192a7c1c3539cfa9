// The program as its user meets it: documents, the control socket, signals, exit codes.

#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr std::chrono::seconds DEADLINE{60};

class HostProgram : public ::testing::Test {
protected:
    HostProgram() {
        const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
        m_base = testing::TempDir() + "vosk_host_" + std::to_string(::getpid()) + "_" + test->name();
        WriteDocument("cfg: {}\n");
    }
    ~HostProgram() override {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
        for (const char* end : {".yaml", ".sock", ".out", ".err"}) ::unlink((m_base + end).c_str());
    }

    void WriteDocument(const std::string& text) const { std::ofstream{m_base + ".yaml"} << text; }

    void Start(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), VOSK_HOST_PROGRAM);
        std::vector<char*> pointers;
        for (std::string& argument : arguments) pointers.push_back(argument.data());
        pointers.push_back(nullptr);
        m_pid = ::fork();
        if (m_pid != 0) return;
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        Redirect(STDOUT_FILENO, m_base + ".out");
        Redirect(STDERR_FILENO, m_base + ".err");
        ::execv(pointers[0], pointers.data());
        ::_exit(127);
    }
    void StartWithSocket() {
        Start({m_base + ".yaml", "--control", m_base + ".sock", "--shm-prefix", "/vosk_host_test_"});
    }

    int ExitCode() {
        int status = 0;
        ::waitpid(m_pid, &status, 0);
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string Output() const { return Read(m_base + ".out"); }
    std::string Errors() const { return Read(m_base + ".err"); }

    // The reply to one line, as soon as the host takes it.
    std::string Ask(const std::string& line) const {
        const auto give_up = std::chrono::steady_clock::now() + DEADLINE;
        while (std::chrono::steady_clock::now() < give_up) {
            const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            const std::string path = m_base + ".sock";
            std::memcpy(address.sun_path, path.data(), path.size());
            std::string reply;
            if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
                ::send(fd, line.data(), line.size(), MSG_NOSIGNAL);
                ::shutdown(fd, SHUT_WR);
                char byte = 0;
                while (::recv(fd, &byte, 1, 0) == 1) reply += byte;
            }
            ::close(fd);
            if (!reply.empty()) return reply;
            std::this_thread::sleep_for(std::chrono::milliseconds{10});
        }
        return "no reply";
    }

    std::string m_base;
    pid_t m_pid = -1;

private:
    static void Redirect(int fd, const std::string& file) {
        ::dup2(::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), fd);
    }
    static std::string Read(const std::string& file) {
        std::ifstream stream{file};
        return {std::istreambuf_iterator<char>{stream}, {}};
    }
};

TEST_F(HostProgram, ServesCommandsUntilStop) {
    StartWithSocket();
    EXPECT_THAT(Ask("status"), StartsWith(R"({"mode":"TEL_DRIVEN","camera":"IMG_GP1","source":"OFF",)"));
    EXPECT_EQ(Ask("mode HIGH_ORDER_CASCADE"), "ok\n");  // a variant, which needs no handover
    EXPECT_THAT(Ask("status"), HasSubstr(R"("handover_running":false,"mode_change_in_progress":true,)"));
    EXPECT_EQ(Ask("mode INS_DRIVEN_CASCADE WFS_GP2"), "ok\n");
    const std::string status = Ask("status");
    EXPECT_THAT(status,
                StartsWith(R"({"mode":"INS_DRIVEN_CASCADE","camera":"WFS_GP2","source":"NONE",)"
                           R"("handover_state":1,"handover_running":true,"mode_change_in_progress":true,)"));
    EXPECT_THAT(status, HasSubstr(R"("threads_ended":[],"streams":[)"));
    EXPECT_THAT(status, HasSubstr(R"({"name":"M4_OUTPUT","valid":false,"samples":0,"invalid":0,)"));
    EXPECT_THAT(status, HasSubstr(R"("text":"handover state 1"})"));
    EXPECT_EQ(Ask("camera IMG_GP3"), "ok\n");
    EXPECT_THAT(Ask("status"), HasSubstr(R"("mode":"INS_DRIVEN_CASCADE","camera":"IMG_GP3")"));
    EXPECT_THAT(Ask("nonsense"), StartsWith("error: "));
    EXPECT_EQ(Ask("stop"), "ok\n");
    EXPECT_EQ(ExitCode(), 0);
    EXPECT_EQ(Errors(), "");
    EXPECT_NE(::access((m_base + ".sock").c_str(), F_OK), 0);
    const std::string log = Output();
    const std::size_t handover = log.find("starting handover sequence");
    EXPECT_NE(handover, std::string::npos);
    EXPECT_EQ(log.find("starting handover sequence", handover + 1), std::string::npos);
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

TEST_F(HostProgram, SetUpFailureIsOneLine) {
    WriteDocument("cfg:\n  m4:\n    output:\n      - {ip_dest: 127.0.0.1}\n");
    Start({m_base + ".yaml"});
    EXPECT_EQ(ExitCode(), 1);
    const std::string errors = Errors();
    EXPECT_THAT(errors, StartsWith("vosk-host: "));
    EXPECT_EQ(errors.find('\n'), errors.size() - 1);

    Start({m_base + ".nowhere"});
    EXPECT_EQ(ExitCode(), 1);
    EXPECT_THAT(Errors(), HasSubstr(".nowhere"));

    Start({m_base + ".yaml", "--no-such-option"});
    EXPECT_EQ(ExitCode(), 2);
}

TEST_F(HostProgram, CheckTellsAllAndRunsNothing) {
    Start({"check", m_base + ".yaml"});
    EXPECT_EQ(ExitCode(), 0);
    EXPECT_EQ(Output(), "No problems.\n");

    WriteDocument("cfg:\n  m4:\n    output:\n      - {ip_dest: 127.0.0.1}\n  m44: 1\n");
    Start({"check", m_base + ".yaml"});
    EXPECT_EQ(ExitCode(), 1);
    EXPECT_THAT(Output(), HasSubstr(":4: cfg.m4.output[0]: "));
    EXPECT_THAT(Output(), HasSubstr(":5: cfg.m44: nothing reads this key\n"));
    EXPECT_EQ(Errors(), "");
}

}  // namespace
