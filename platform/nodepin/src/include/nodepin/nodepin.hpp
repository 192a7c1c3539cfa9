#pragma once

// Names threads and places them and their memory: a CPU and a priority for a thread, a NUMA node for its
// memory, pages locked in RAM. Used at set-up by whoever makes a thread; nothing here is for a running loop.
// On a machine without NUMA no CPU has a node, and memory bound to one is refused with an error code.

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>

namespace nodepin {

// The CPU that a thread is bound to.
class CpuAffinity {
public:
    static CpuAffinity MakeBindCpu(int cpu) noexcept { return CpuAffinity{cpu}; }
    std::error_code ApplyToThisThread() const noexcept;

private:
    explicit CpuAffinity(int cpu) noexcept : m_cpu{cpu} {}
    int m_cpu;
};

// The NUMA node that memory comes from, with no other to fall back on.
class MemPolicy {
public:
    static MemPolicy MakeBindNode(int node) noexcept { return MemPolicy{node}; }
    // For the pages that the thread is the first to touch.
    std::error_code ApplyToThisThread() const noexcept;
    // For a mapping whose pages nobody has touched.
    std::error_code ApplyToMemory(void* memory, std::size_t size) const noexcept;

private:
    explicit MemPolicy(int node) noexcept : m_node{node} {}
    int m_node;
};

struct NumaPolicies {
    std::optional<CpuAffinity> cpu_affinity;
    std::optional<MemPolicy> mem_policy;
    int priority = 0;  // SCHED_FIFO, up to MAX_PRIORITY; 0 for an ordinary thread
};
inline constexpr int MAX_PRIORITY = 99;

// The priority of a thread whose configuration names none. Set before there are threads.
inline int default_priority = 0;

// The SCHED_FIFO priority that the calling thread has, 0 for an ordinary one.
int PriorityOfThisThread() noexcept;

// Nothing for a CPU that is not there, and on a machine without NUMA.
std::optional<int> GetNodeOfCpu(int cpu) noexcept;

// Whole pages under the policy, or null with the error set. `error` is cleared on success.
void* Allocate(std::size_t size, const MemPolicy& policy, std::error_code& error) noexcept;
// Gives back what Allocate() gave for the same size; a null pointer is no error.
void Free(void* memory, std::size_t size, std::error_code& error) noexcept;

enum class LockFlag : unsigned { Now = 0, OnFirstTouch = 1 };  // when the pages are brought in
std::error_code MemLock(const void* memory, std::size_t size, LockFlag flag = LockFlag::Now) noexcept;

namespace detail {

// The hand-shake of a new thread with its creator, on whose stack it stands.
class ThreadInitializer {
public:
    ThreadInitializer(std::string_view name, const NumaPolicies& policies)
        : m_name{name}, m_policies{policies} {}
    ThreadInitializer(const ThreadInitializer&) = delete;
    ThreadInitializer& operator=(const ThreadInitializer&) = delete;

    // New thread, first of all: names and places it and makes its sleeps precise. The thread must end on an
    // error, and must not touch this object again. A priority that the system refuses is a WARN, no error.
    std::error_code Initialize();

    // Creating thread: blocks until Initialize() is done. Code 0 for success.
    std::system_error Wait();

private:
    std::error_code Apply(const char*& step) const;

    const std::string m_name;
    const NumaPolicies m_policies;
    std::mutex m_mutex;
    std::condition_variable m_done_cv;
    bool m_done = false;      // guarded by m_mutex
    std::error_code m_error;  // guarded by m_mutex
    const char* m_step = "";  // what gave the error; guarded by m_mutex
};

}  // namespace detail

// Starts a thread under the name, of which the system keeps the first 15 characters, and the policies, and
// runs `body` there. Where the system allows it, its sleeps overshoot by the least that the kernel can do,
// not by its 50 us of default slack. A thread whose priority is refused runs as an ordinary one with slices
// of 100 us. Returns when the thread is set up; throws std::system_error if it could not be, and `body` then
// never runs.
template <class Body>
std::thread MakeThread(std::string_view name, const NumaPolicies& policies, Body&& body) {
    detail::ThreadInitializer initializer{name, policies};
    std::thread thread{[&initializer, run = std::decay_t<Body>(std::forward<Body>(body))]() mutable {
        if (!initializer.Initialize()) run();
    }};
    if (const std::system_error error = initializer.Wait(); error.code()) {
        thread.join();
        throw error;
    }
    return thread;
}

}  // namespace nodepin
