#include <nodepin/nodepin.hpp>

#include <log4cplus/loggingmacros.h>
#include <numa.h>
#include <numaif.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <memory>

namespace nodepin {

namespace {

constexpr std::size_t MAX_NAME = 15;         // without the final 0; longer names are refused by the kernel
constexpr unsigned long TIMER_SLACK_NS = 1;  // 0 would mean the default
constexpr std::uint64_t SHORT_SLICE_NS = 100'000;  // the kernel's least

std::error_code LastError() noexcept {
    return {errno, std::system_category()};
}

std::error_code NotSupported() noexcept {
    return {ENOSYS, std::system_category()};
}

struct FreeBitmask {
    void operator()(bitmask* mask) const noexcept { ::numa_bitmask_free(mask); }
};

// Calls `apply` with the kernel's form of a set of one node; false from it means that errno is set.
template <class Apply>
std::error_code WithNodeMask(int node, Apply apply) noexcept {
    if (::numa_available() == -1) return NotSupported();
    if (node < 0 || node > ::numa_max_node()) return {EINVAL, std::system_category()};
    const std::unique_ptr<bitmask, FreeBitmask> mask{::numa_allocate_nodemask()};
    ::numa_bitmask_setbit(mask.get(), static_cast<unsigned>(node));
    // One more than the bits: the kernel takes the last one off.
    return apply(mask->maskp, mask->size + 1) ? std::error_code{} : LastError();
}

// The kernel's sched_attr, which Debian's C library does not have.
struct SchedulingAttributes {
    std::uint32_t size = sizeof(SchedulingAttributes);
    std::uint32_t policy = 0;
    std::uint64_t flags = 0;
    std::int32_t nice = 0;
    std::uint32_t priority = 0;
    std::uint64_t runtime_ns = 0;  // of an ordinary thread: its slice
    std::uint64_t deadline_ns = 0;
    std::uint64_t period_ns = 0;
};

// Since Linux 6.12 an ordinary thread that asks for short slices is run sooner once it wakes, and needs no
// right to it. Older kernels take no notice.
void AskForShortSlices() noexcept {
    SchedulingAttributes attributes{};
    if (::syscall(SYS_sched_getattr, 0, &attributes, sizeof attributes, 0) != 0) return;
    attributes.runtime_ns = SHORT_SLICE_NS;
    static_cast<void>(::syscall(SYS_sched_setattr, 0, &attributes, 0));
}

// A refused priority fails no thread. Priority 0 ends a real-time policy that the process has inherited.
void SetPriority(const std::string& name, int priority) {
    const sched_param parameters{priority};
    if (priority == 0 && PriorityOfThisThread() == 0) return;
    if (::sched_setscheduler(0, priority == 0 ? SCHED_OTHER : SCHED_FIFO, &parameters) == 0) return;
    const std::error_code error = LastError();
    AskForShortSlices();
    static log4cplus::Logger logger = log4cplus::Logger::getInstance("nodepin");
    LOG4CPLUS_WARN(logger,
                   "Thread " << name << " runs without its priority " << priority << ": " << error.message());
}

}  // namespace

int PriorityOfThisThread() noexcept {
    sched_param parameters{};
    return ::sched_getparam(0, &parameters) == 0 ? parameters.sched_priority : 0;
}

std::error_code CpuAffinity::ApplyToThisThread() const noexcept {
    if (m_cpu < 0 || m_cpu >= CPU_SETSIZE) return {EINVAL, std::system_category()};
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(static_cast<unsigned>(m_cpu), &cpus);
    return ::sched_setaffinity(0, sizeof(cpus), &cpus) == 0 ? std::error_code{} : LastError();
}

std::error_code MemPolicy::ApplyToThisThread() const noexcept {
    return WithNodeMask(m_node, [](const unsigned long* nodes, unsigned long bits) {
        return ::set_mempolicy(MPOL_BIND, nodes, bits) == 0;
    });
}

std::error_code MemPolicy::ApplyToMemory(void* memory, std::size_t size) const noexcept {
    return WithNodeMask(m_node, [memory, size](const unsigned long* nodes, unsigned long bits) {
        return ::mbind(memory, size, MPOL_BIND, nodes, bits, 0) == 0;
    });
}

std::optional<int> GetNodeOfCpu(int cpu) noexcept {
    if (cpu < 0 || ::numa_available() == -1) return std::nullopt;
    const int node = ::numa_node_of_cpu(cpu);
    return node < 0 ? std::nullopt : std::optional{node};
}

// Where all memory to come is locked, a mapping that may be used gets its pages at once, from the caller's
// node: it may be used only once it is bound.
void* Allocate(std::size_t size, const MemPolicy& policy, std::error_code& error) noexcept {
    void* const memory = ::mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        error = LastError();
        return nullptr;
    }
    error = policy.ApplyToMemory(memory, size);
    if (!error && ::mprotect(memory, size, PROT_READ | PROT_WRITE) != 0) error = LastError();
    if (!error) return memory;
    ::munmap(memory, size);
    return nullptr;
}

void Free(void* memory, std::size_t size, std::error_code& error) noexcept {
    error.clear();
    if (memory != nullptr && ::munmap(memory, size) != 0) error = LastError();
}

std::error_code MemLock(const void* memory, std::size_t size, LockFlag flag) noexcept {
    const unsigned flags = flag == LockFlag::OnFirstTouch ? MLOCK_ONFAULT : 0;
    return ::mlock2(memory, size, flags) == 0 ? std::error_code{} : LastError();
}

namespace detail {

std::error_code ThreadInitializer::Initialize() {
    const char* step = "";
    const std::error_code error = Apply(step);
    // Notified under the lock: the creator may destroy this object as soon as it can see m_done.
    const std::lock_guard lock{m_mutex};
    m_error = error;
    m_step = step;
    m_done = true;
    m_done_cv.notify_one();
    return error;
}

std::system_error ThreadInitializer::Wait() {
    std::unique_lock lock{m_mutex};
    m_done_cv.wait(lock, [this] { return m_done; });
    return {m_error, m_name + ": " + m_step};
}

// Gives the first error; `step` then says what was being done.
std::error_code ThreadInitializer::Apply(const char*& step) const {
    step = "naming the thread";
    if (const int code = ::pthread_setname_np(::pthread_self(), m_name.substr(0, MAX_NAME).c_str());
        code != 0) {
        return {code, std::system_category()};
    }
    // A system that forbids this leaves the thread with less precise sleeps, which is no reason not to start.
    static_cast<void>(::prctl(PR_SET_TIMERSLACK, TIMER_SLACK_NS, 0, 0, 0));
    step = "binding it to its CPU";
    if (m_policies.cpu_affinity) {
        if (const auto error = m_policies.cpu_affinity->ApplyToThisThread()) return error;
    }
    step = "binding its memory to its NUMA node";
    if (m_policies.mem_policy) {
        if (const auto error = m_policies.mem_policy->ApplyToThisThread()) return error;
    }
    step = "";
    SetPriority(m_name, m_policies.priority);
    return {};
}

}  // namespace detail

}  // namespace nodepin
