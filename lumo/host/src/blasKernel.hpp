#pragma once

// OpenBLAS picks the kernel of its matrix products when it is loaded, and picks a slow one on a CPU that it
// does not know: by a factor of 1.4 to 4 here. Only its environment, before it is loaded, can name another:
// the host checks at start and, where the choice is wrong, starts itself again.

#include <optional>
#include <string>

namespace vosk::host {

struct CpuFeatures {
    bool avx2 = false;    // with FMA
    bool avx512 = false;  // F, BW, DQ and VL
};

// The kernel to load in the place of `loaded`, or none if that is as good as any.
std::optional<std::string> ChooseBetterKernel(const std::string& loaded, const CpuFeatures& cpu);

// Replaces the process by a new start of itself with OPENBLAS_CORETYPE set, if there is a better kernel;
// returns if there is none, if the variable is set already (by the user, or by this), or if the system
// refuses. Call first of all, before there is a thread or an open file. `arguments` are those of main().
void LoadBestBlasKernel(char** arguments);

// The kernel that is loaded, for the log.
std::string BlasKernel();

}  // namespace vosk::host
