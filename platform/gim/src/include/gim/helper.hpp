#pragma once

// Where files and settings of the host's environment are found. For set-up, on the controlling thread.

#include <string>

namespace gim {

class Helper {
public:
    // Tries, in this order, `name` under the working directory, under each directory of CFGPATH (separated by
    // colons) and under the file system root. Directories are found as well as files. Empty if there is none.
    static std::string FindFile(const std::string& name);

    // The value of an environment variable, empty if it is unset.
    static std::string GetEnvironment(const char* variable);
};

}  // namespace gim
