#pragma once

// Helpers of the shared-memory tests: another process that can be told to go on or be killed, names that no
// other test run uses.

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <vosk/test/support.hpp>

namespace vosk::test {

// The two ends of what parent and child say to one another, a byte at a time.
class Signals {
public:
    Signals() {
        if (::pipe(m_to_child) != 0 || ::pipe(m_to_parent) != 0) throw std::runtime_error{"pipe"};
    }
    ~Signals() {
        for (int fd : {m_to_child[0], m_to_child[1], m_to_parent[0], m_to_parent[1]}) ::close(fd);
    }
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    void TellParent() { Put(m_to_parent[1]); }
    void AwaitParent() { Get(m_to_child[0]); }
    void TellChild() { Put(m_to_child[1]); }
    void AwaitChild() { Get(m_to_parent[0]); }

private:
    static void Put(int fd) {
        if (::write(fd, "x", 1) != 1) std::abort();
    }
    static void Get(int fd) {
        char byte = 0;
        if (::read(fd, &byte, 1) != 1) std::abort();
    }

    int m_to_child[2]{};
    int m_to_parent[2]{};
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
        if (m_pid > 0) Kill();
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    Signals& GetSignals() { return m_signals; }

    bool Succeeds() {
        const int status = Reap();
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

    void Kill() {
        ::kill(m_pid, SIGKILL);
        Reap();
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
        ::waitpid(m_pid, &status, 0);
        m_pid = -1;
        return status;
    }

    Signals m_signals;  // before the fork
    pid_t m_pid;
};

// A process that makes what `make` gives, and holds it until it is killed.
template <class Make>
class Holder {
public:
    explicit Holder(Make make)
        : m_child{[make](Signals& signals) {
              const auto held = make();
              signals.TellParent();
              signals.AwaitParent();
              return true;
          }} {
        m_child.GetSignals().AwaitChild();
    }

private:
    ChildProcess m_child;
};

// A prefix of this process and test; what is left under it goes away with the fixture.
class UniquePrefix {
public:
    const std::string& Get() const { return m_prefix; }
    std::string NameOf(const std::string& topic) const { return m_prefix + topic; }
    bool Exists(const std::string& topic) const {
        return ::access(("/dev/shm" + NameOf(topic)).c_str(), F_OK) == 0;
    }
    void Remove(const std::string& topic) const { ::shm_unlink(NameOf(topic).c_str()); }

private:
    const std::string m_prefix = std::string{"/"}.append(UniqueName()).append("_");
};

}  // namespace vosk::test
