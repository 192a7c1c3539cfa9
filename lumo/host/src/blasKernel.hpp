#pragma once

// OpenBLAS picks the kernel of its matrix products when it is loaded, and picks a slow one on a CPU that it
// does not know: by a factor of 1.4 to 4 here. It can be told better only through the environment, before it
// is loaded: the host checks at start and, where the choice is wrong, starts itself again.

#include <optional>
#include <string>

namespace vosk::host {

struct CpuFeatures {
    bool avx = false;
    bool avx2 = false;    // with FMA
    bool avx512 = false;  // F, BW, DQ and VL
};

CpuFeatures ReadCpuFeatures();

// The kernel to load in the place of `loaded`, or none if that is as good as any. `wanted` is the user's
// choice: a kernel's name, which is followed if it is known and the CPU can run it, or empty for none.
std::optional<std::string> ChooseBetterKernel(const std::string& loaded, const std::string& wanted,
                                              const CpuFeatures& cpu);

// Throws std::invalid_argument for an option that is neither "auto" nor the name of a known kernel.
void VetBlasOption(const std::string& option);

// Replaces the process by a new start of itself if there is a better kernel, and returns if there is none, or
// if the process is that new start already. `option` is the user's: a kernel's name, "auto" to let the CPU
// decide, or empty to follow OPENBLAS_CORETYPE. Call first of all, before there is a thread or an open file.
// Returns a line for the log. `arguments` are those of main().
std::string LoadBestBlasKernel(const std::string& option, char** arguments);

}  // namespace vosk::host
