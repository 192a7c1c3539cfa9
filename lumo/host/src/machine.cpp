#include "machine.hpp"

#include "blasKernel.hpp"

#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/timex.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <vosk/common/logger.hpp>

#include <algorithm>
#include <fstream>
#include <system_error>

namespace vosk::host {

namespace {

std::string FirstLineOf(const char* file) {
    std::string line;
    std::getline(std::ifstream{file}, line);
    return line;
}

// Of a resource of the process, as ulimit prints it.
std::string LimitOf(__rlimit_resource resource, rlim_t unit) {
    rlimit limit{};
    ::getrlimit(resource, &limit);
    return limit.rlim_cur == RLIM_INFINITY ? "unlimited" : std::to_string(limit.rlim_cur / unit);
}

std::string Memory(int error) {
    if (error == 0) return "locked";
    return fmt::format("not locked: {}, limit {} kB (ulimit -l)", std::generic_category().message(error),
                       LimitOf(RLIMIT_MEMLOCK, 1024));
}

std::string Priority(const std::vector<ThreadState>& threads) {
    const auto asked = std::count_if(threads.begin(), threads.end(),
                                     [](const ThreadState& thread) { return thread.placement.priority > 0; });
    const auto given = std::count_if(threads.begin(), threads.end(), [](const ThreadState& thread) {
        return thread.placement.priority > 0 && thread.placement.priority_given > 0;
    });
    if (asked == 0) return "not asked for";
    return fmt::format(
        "given to {} of {} threads{}", given, asked,
        given == asked ? "" : fmt::format(", limit {} (ulimit -r)", LimitOf(RLIMIT_RTPRIO, 1)));
}

std::string Preemption() {
    utsname system{};
    ::uname(&system);
    return PreemptionModel(system.version, FirstLineOf("/sys/kernel/debug/sched/preempt"));
}

}  // namespace

int ReadTaiOffset() {
    timex clock{};
    ::adjtimex(&clock);
    return clock.tai;
}

std::string PreemptionModel(std::string_view version, std::string_view modes) {
    const auto open = modes.find('(');
    const auto close = modes.find(')');
    for (const char* model : {"PREEMPT_RT", "PREEMPT_DYNAMIC", "PREEMPT"}) {
        if (version.find(model) == version.npos) continue;
        if (open >= close || close == modes.npos) return model;
        return fmt::format("{} {}", model, modes.substr(open, close - open + 1));
    }
    return "no PREEMPT";
}

std::vector<ThreadState> StatesOf(const std::map<std::string, std::unique_ptr<lumo::Thread>>& threads) {
    std::vector<ThreadState> states;
    for (const auto& [name, thread] : threads) {
        states.push_back({name, thread->GetPlacement()});
        for (const ThreadState& worker : thread->GetWorkers())
            states.push_back({name + "/" + worker.name, worker.placement});
    }
    return states;
}

Machine LookAtMachine(const std::vector<ThreadState>& threads, int memory_error) {
    const std::string clock_source =
        FirstLineOf("/sys/devices/system/clocksource/clocksource0/current_clocksource");
    return {.memory = Memory(memory_error),
            .priority = Priority(threads),
            .tai_offset = ReadTaiOffset(),
            .preemption = Preemption(),
            .clock_source = clock_source.empty() ? "unknown" : clock_source,
            .blas_kernel = BlasKernel()};
}

std::string ToLine(const Machine& machine) {
    return fmt::format(
        "vosk {}; memory {}; real-time priority {}; TAI offset {} s; kernel {}; clock source {}; BLAS kernel "
        "{}",
        machine.version, machine.memory, machine.priority, machine.tai_offset, machine.preemption,
        machine.clock_source, machine.blas_kernel);
}

bool HasNoCpuToSpare(const std::vector<ThreadState>& threads, long cpus) {
    const auto spinning = std::count_if(threads.begin(), threads.end(), [](const ThreadState& thread) {
        return thread.placement.busy && thread.placement.priority > 0;
    });
    return spinning > 0 && spinning >= cpus;
}

void WarnIfNoCpuToSpare(const std::vector<ThreadState>& threads) {
    if (!HasNoCpuToSpare(threads, ::sysconf(_SC_NPROCESSORS_ONLN))) return;
    common::LogWarn(
        "As many threads spin at a real-time priority as there are CPUs: all else waits for the 50 ms of "
        "each second that the kernel takes from them. Leave a CPU free, or set busy: false or priority: 0.");
}

}  // namespace vosk::host
