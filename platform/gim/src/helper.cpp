#include <gim/helper.hpp>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <vector>

namespace gim {

namespace {

std::vector<std::filesystem::path> SearchedDirectories() {
    std::vector<std::filesystem::path> directories{""};
    std::istringstream entries{Helper::GetEnvironment("CFGPATH")};
    for (std::string entry; std::getline(entries, entry, ':');) {
        if (!entry.empty()) directories.emplace_back(entry);
    }
    directories.emplace_back("/");
    return directories;
}

}  // namespace

std::string Helper::FindFile(const std::string& name) {
    if (name.empty()) return {};  // else it would be found as the root itself
    for (const auto& directory : SearchedDirectories()) {
        const auto path = directory / name;
        std::error_code ignored;  // what can't be looked at isn't there
        if (std::filesystem::exists(path, ignored)) return path.string();
    }
    return {};
}

std::string Helper::GetEnvironment(const char* variable) {
    const char* const value = std::getenv(variable);  // NOLINT(concurrency-mt-unsafe): set-up only
    return value == nullptr ? std::string{} : std::string{value};
}

}  // namespace gim
