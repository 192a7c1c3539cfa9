#include "blasKernel.hpp"

#include <cblas.h>
#include <fmt/format.h>
#include <strings.h>
#include <unistd.h>
#include <gim/helper.hpp>

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <vector>

namespace vosk::host {

namespace {

constexpr const char* AUTO = "auto";
constexpr const char* KERNEL_VARIABLE = "OPENBLAS_CORETYPE";
constexpr const char* RESTART_VARIABLE = "VOSK_BLAS_RESTARTED_FROM";  // the kernel that wasn't good enough

// What a kernel asks of the CPU; a higher one is faster.
enum class Level { SSE, AVX, AVX2, AVX512 };

struct Kernel {
    const char* name;
    Level level;
};

// The first of its level is the one to take.
constexpr Kernel KERNELS[] = {
    {"SkylakeX", Level::AVX512},  {"Cooperlake", Level::AVX512}, {"SapphireRapids", Level::AVX512},
    {"Haswell", Level::AVX2},     {"Zen", Level::AVX2},          {"Excavator", Level::AVX2},
    {"Sandybridge", Level::AVX},  {"Bulldozer", Level::AVX},     {"Piledriver", Level::AVX},
    {"Steamroller", Level::AVX},  {"Nehalem", Level::SSE},       {"Prescott", Level::SSE},
    {"Core2", Level::SSE},        {"Penryn", Level::SSE},        {"Dunnington", Level::SSE},
    {"Atom", Level::SSE},         {"Nano", Level::SSE},          {"Opteron", Level::SSE},
    {"Opteron_SSE3", Level::SSE}, {"Barcelona", Level::SSE},     {"Bobcat", Level::SSE},
    {"Katmai", Level::SSE},       {"Coppermine", Level::SSE},    {"Northwood", Level::SSE},
    {"Banias", Level::SSE},       {"Athlon", Level::SSE},
};

bool IsSameName(const std::string& one, const std::string& other) {
    return ::strcasecmp(one.c_str(), other.c_str()) == 0;
}

std::optional<Level> LevelOf(const std::string& name) {
    for (const Kernel& kernel : KERNELS) {
        if (IsSameName(kernel.name, name)) return kernel.level;
    }
    return std::nullopt;
}

Level LevelOf(const CpuFeatures& cpu) {
    if (cpu.avx512) return Level::AVX512;
    if (cpu.avx2) return Level::AVX2;
    return cpu.avx ? Level::AVX : Level::SSE;
}

// The environment of this process with `changes`, each "NAME=value", in the place of what has these names.
std::vector<std::string> ChangedEnvironment(const std::vector<std::string>& changes) {
    std::vector<std::string> result = changes;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::string head = text.substr(0, text.find('=') + 1);
        const bool is_changed = std::any_of(changes.begin(), changes.end(), [&](const std::string& change) {
            return change.starts_with(head);
        });
        if (!is_changed) result.push_back(text);
    }
    return result;
}

// Returns only if the system refuses.
void StartAgain(char** arguments, std::vector<std::string> environment) {
    std::vector<char*> pointers;
    pointers.reserve(environment.size() + 1);
    for (std::string& entry : environment) pointers.push_back(entry.data());
    pointers.push_back(nullptr);
    ::execve("/proc/self/exe", arguments, pointers.data());
}

std::string BestOf(Level level) {
    const auto* best = std::find_if(std::begin(KERNELS), std::end(KERNELS),
                                    [&](const Kernel& kernel) { return kernel.level == level; });
    return best->name;
}

}  // namespace

CpuFeatures ReadCpuFeatures() {
    __builtin_cpu_init();
    return {.avx = __builtin_cpu_supports("avx") != 0,
            .avx2 = __builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("fma") != 0,
            .avx512 = __builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512bw") != 0 &&
                      __builtin_cpu_supports("avx512dq") != 0 && __builtin_cpu_supports("avx512vl") != 0};
}

std::optional<std::string> ChooseBetterKernel(const std::string& loaded, const std::string& wanted,
                                              const CpuFeatures& cpu) {
    const Level best = LevelOf(cpu);
    const auto wanted_level = LevelOf(wanted);
    if (wanted_level && *wanted_level <= best) {
        if (IsSameName(wanted, loaded)) return std::nullopt;
        return wanted;
    }
    if (LevelOf(loaded) == best) return std::nullopt;
    return BestOf(best);
}

void VetBlasOption(const std::string& option) {
    if (option == AUTO || LevelOf(option)) return;
    throw std::invalid_argument{fmt::format("'{}' is no kernel of OpenBLAS that is known here", option)};
}

std::string LoadBestBlasKernel(const std::string& option, char** arguments) {
    const std::string loaded = ::openblas_get_corename();
    const std::string from = gim::Helper::GetEnvironment(RESTART_VARIABLE);
    if (!from.empty()) {
        return fmt::format("BLAS kernel {}, after a new start; OpenBLAS had taken {}", loaded, from);
    }
    std::string wanted = option.empty() ? gim::Helper::GetEnvironment(KERNEL_VARIABLE) : option;
    if (option == AUTO) wanted.clear();
    const auto better = ChooseBetterKernel(loaded, wanted, ReadCpuFeatures());
    if (!better) return fmt::format("BLAS kernel {}", loaded);
    StartAgain(arguments, ChangedEnvironment({fmt::format("{}={}", KERNEL_VARIABLE, *better),
                                              fmt::format("{}={}", RESTART_VARIABLE, loaded)}));
    return fmt::format("BLAS kernel {}; the new start with {} failed", loaded, *better);
}

}  // namespace vosk::host
