#pragma once

// The first look at a file that is said to be FITS, before cfitsio opens it.

#include <string>

namespace vosk::common {

// Why cfitsio must not open the file, empty if it may: it waits for ever at a pipe, and a header with more
// than 99 axes makes it write beyond its tables.
std::string FaultOfFile(const std::string& path);

}  // namespace vosk::common
