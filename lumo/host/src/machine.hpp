#pragma once

// What decides on this machine whether a run can hold its times: shown once at start, and in `status`.

#include <lumolib/lumoThread.hpp>

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace vosk::host {

using common::ThreadState;

// With the workers of each: "WfsLisa_WFS_GP1/pool_th_0".
std::vector<ThreadState> StatesOf(const std::map<std::string, std::unique_ptr<lumo::Thread>>& threads);

struct Machine {
    std::string version = VOSK_VERSION;
    std::string memory;    // whether it is locked, or why not
    std::string priority;  // whether the threads have theirs, or why not
    int tai_offset = 0;    // seconds that the kernel's TAI is ahead of UTC; 0: nothing has set it
    std::string preemption;
    std::string clock_source;
    std::string blas_kernel;
};

// For running threads. `memory_error` is the errno of locking the memory, 0 for success.
Machine LookAtMachine(const std::vector<ThreadState>& threads, int memory_error);

// The offset of the moment: a daemon may set it later.
int ReadTaiOffset();

std::string ToLine(const Machine& machine);

// By the version text of the kernel (uname -v), and its file that marks the mode in force by parentheses,
// where that can be read.
std::string PreemptionModel(std::string_view version, std::string_view modes);

// Threads that spin at a priority let nothing else onto their CPU: whether they leave none of `cpus`.
bool HasNoCpuToSpare(const std::vector<ThreadState>& threads, long cpus);
// At WARN in the log, if they leave none of this machine's.
void WarnIfNoCpuToSpare(const std::vector<ThreadState>& threads);

}  // namespace vosk::host
