#include <vosk/common/fileSystem.hpp>

#include <gim/helper.hpp>

#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace vosk::common {

namespace fs = std::filesystem;

namespace {

bool Exists(const fs::path& path) {
    std::error_code ignored;  // what can't be looked at isn't there
    return fs::exists(path, ignored);
}

}  // namespace

std::string FileSystem::FindFile(const std::string& file, const std::vector<std::string>& directories) {
    if (const std::string found = gim::Helper::FindFile(file); !found.empty())
        return fs::absolute(found).string();
    if (Exists(file)) return fs::absolute(file).string();
    for (const std::string& directory : directories) {
        if (const fs::path path = fs::path{directory} / file; Exists(path))
            return fs::absolute(path).string();
    }
    const std::string introot = gim::Helper::GetEnvironment("INTROOT");
    if (introot.empty()) return {};
    const fs::path path = fs::path{introot} / "resource" / file;
    return Exists(path) ? fs::absolute(path).string() : std::string{};
}

std::string FileSystem::FindFileOrThrow(const std::string& file,
                                        const std::vector<std::string>& directories) {
    std::string found = FindFile(file, directories);
    if (!found.empty()) return found;

    std::string text = "FileSystem: Path or file " + file + " not found, searched in:\n/\n./\n$CFGPATH (" +
                       gim::Helper::GetEnvironment("CFGPATH") + ")\n";
    if (const std::string introot = gim::Helper::GetEnvironment("INTROOT"); !introot.empty()) {
        text += "$INTROOT/resource (" + introot + "/resource)\n";
    }
    for (std::size_t i = 0; i < directories.size(); ++i) text += (i == 0 ? "" : "\n") + directories[i];
    throw std::runtime_error(text);
}

}  // namespace vosk::common
