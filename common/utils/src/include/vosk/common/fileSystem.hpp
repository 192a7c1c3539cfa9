#pragma once

// Finds the data files that a configuration names. For set-up, on the controlling thread.

#include <string>
#include <vector>

namespace vosk::common {

class FileSystem {
public:
    // The absolute path of the first that exists, a directory counting as well as a file: what the framework
    // finds (working directory, CFGPATH, root), `file` itself, `file` in each of `directories`, `file` in
    // $INTROOT/resource. Empty if there is none.
    static std::string FindFile(const std::string& file, const std::vector<std::string>& directories);

    // The same; std::runtime_error with all places searched when there is none.
    static std::string FindFileOrThrow(const std::string& file, const std::vector<std::string>& directories);
};

}  // namespace vosk::common
