#pragma once

// Writes the rig's files. FITS images are written beside the file and moved into place, so that an
// interrupted run leaves no half of one.

#include <unistd.h>
#include <vosk/common/fits.hpp>

#include <filesystem>
#include <fstream>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace vosk::rig {

// NAXIS1 first in `axes`. Missing directories are made. Throws std::runtime_error.
template <class T>
void WriteFitsImage(const std::filesystem::path& file, std::span<const T> values,
                    const std::vector<std::size_t>& axes) {
    // A name of its own, as two runs may want the same file at a time.
    const std::filesystem::path partial = file.string() + "." + std::to_string(getpid()) + ".part";
    {
        const auto fits = common::Fits::FitsFileWrite(partial.string(), true);
        common::Fits::WriteImg<T>(fits, values, axes);
    }
    std::filesystem::rename(partial, file);
}

// Throws std::runtime_error if the file can't be written.
inline void WriteTextFile(const std::filesystem::path& file, const std::string& text) {
    std::ofstream output(file, std::ios::binary | std::ios::trunc);
    output << text;
    output.close();
    if (!output) throw std::runtime_error(file.string() + ": can't be written");
}

}  // namespace vosk::rig
