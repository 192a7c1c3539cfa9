#pragma once

// Another process of a test, which can be told to go on or be killed.

#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <vosk/test/support.hpp>

namespace vosk::test {

// What parent and child say to one another.
class Signals {
public:
    ~Signals() {
        ::close(m_to_child);
        ::close(m_to_parent);
    }
    void TellParent() const { ::eventfd_write(m_to_parent, 1); }
    void AwaitParent() const { Await(m_to_child); }
    void TellChild() const { ::eventfd_write(m_to_child, 1); }
    void AwaitChild() const { Await(m_to_parent); }

private:
    static void Await(int fd) {
        eventfd_t count = 0;
        if (::eventfd_read(fd, &count) != 0) std::abort();
    }

    const int m_to_child = ::eventfd(0, 0);
    const int m_to_parent = ::eventfd(0, 0);
};

// Runs `body` in a process of its own; the process succeeds if it returns true. Killed if still there at the
// end.
class ChildProcess {
public:
    explicit ChildProcess(const std::function<bool(Signals&)>& body) : m_pid{::fork()} {
        if (m_pid != 0) return;
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that dies leaves nobody behind
        bool succeeded = false;
        try {
            succeeded = body(m_signals);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "child: %s\n", error.what());
        }
        ::_exit(succeeded ? 0 : 1);
    }
    ~ChildProcess() {
        if (m_pid <= 0) return;
        ::kill(m_pid, SIGKILL);
        Reap();
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    Signals& GetSignals() { return m_signals; }

    bool Succeeds() {
        const int status = Reap();
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    bool IsAsleep() const {
        std::ifstream file{"/proc/" + std::to_string(m_pid) + "/stat"};
        std::string text;
        std::getline(file, text);
        return text.find(") S ") != std::string::npos;
    }

private:
    int Reap() {
        int status = 0;
        ::waitpid(std::exchange(m_pid, -1), &status, 0);
        return status;
    }

    Signals m_signals;  // before the fork
    pid_t m_pid;
};

// Makes what `make` gives in another process, which is killed while it holds it.
template <class Make>
void KillAHolderOf(
    Make make, const std::function<void()>& meanwhile = [] {}) {
    ChildProcess child{[&](Signals& signals) {
        const auto held = make();
        signals.TellParent();
        signals.AwaitParent();
        return true;
    }};
    child.GetSignals().AwaitChild();
    meanwhile();
}

}  // namespace vosk::test
