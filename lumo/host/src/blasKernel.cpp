#include "blasKernel.hpp"

#include <cblas.h>
#include <fmt/format.h>
#include <strings.h>
#include <unistd.h>
#include <gim/helper.hpp>

#include <algorithm>
#include <cstdlib>
#include <initializer_list>

namespace vosk::host {

namespace {

constexpr const char* KERNEL_VARIABLE = "OPENBLAS_CORETYPE";

CpuFeatures ReadCpuFeatures() {
    __builtin_cpu_init();
    return {.avx2 = __builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("fma") != 0,
            .avx512 = __builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512bw") != 0 &&
                      __builtin_cpu_supports("avx512dq") != 0 && __builtin_cpu_supports("avx512vl") != 0};
}

// The first of `kernels`, all of which use what the CPU has, unless one of them is loaded.
std::optional<std::string> FirstUnlessLoaded(std::initializer_list<const char*> kernels,
                                             const std::string& loaded) {
    if (std::find(kernels.begin(), kernels.end(), loaded) != kernels.end()) return std::nullopt;
    return *kernels.begin();
}

}  // namespace

std::optional<std::string> ChooseBetterKernel(const std::string& loaded, const CpuFeatures& cpu) {
    if (cpu.avx512) return FirstUnlessLoaded({"SkylakeX", "Cooperlake", "SapphireRapids"}, loaded);
    if (cpu.avx2) return FirstUnlessLoaded({"Haswell", "Zen", "Excavator"}, loaded);
    return std::nullopt;
}

void LoadBestBlasKernel(char** arguments) {
    if (!gim::Helper::GetEnvironment(KERNEL_VARIABLE).empty()) return;
    const auto better = ChooseBetterKernel(::openblas_get_corename(), ReadCpuFeatures());
    if (!better) return;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the threads of OpenBLAS idle
    ::setenv(KERNEL_VARIABLE, better->c_str(), 1);
    ::execv("/proc/self/exe", arguments);
}

std::string BlasKernel() {
    std::string loaded = ::openblas_get_corename();
    const std::string wanted = gim::Helper::GetEnvironment(KERNEL_VARIABLE);
    if (wanted.empty() || ::strcasecmp(wanted.c_str(), loaded.c_str()) == 0) return loaded;
    return fmt::format("{} (OpenBLAS has not followed {}={})", loaded, KERNEL_VARIABLE, wanted);
}

}  // namespace vosk::host
