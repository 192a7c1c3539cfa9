#pragma once

// An empty directory of a test's own, which goes away with what is in it.

#include <cstdlib>
#include <vosk/test/support.hpp>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace vosk::test {

class TempDir {
public:
    TempDir() {
        std::string name = ::testing::TempDir() + "voskXXXXXX";
        if (::mkdtemp(name.data()) == nullptr) throw std::system_error{errno, std::generic_category(), name};
        m_path = name;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& Path() const { return m_path; }
    std::string operator/(const std::string& name) const { return (m_path / name).string(); }

    // Writes a file, with the directories above it, and gives its path.
    std::string Put(const std::string& name, const std::string& content) const {
        std::filesystem::create_directories((m_path / name).parent_path());
        std::ofstream{m_path / name, std::ios::binary} << content;
        return *this / name;
    }
    std::string Content(const std::string& name) const {
        std::ifstream file{m_path / name, std::ios::binary};
        return {std::istreambuf_iterator<char>{file}, {}};
    }

private:
    std::filesystem::path m_path;
};

}  // namespace vosk::test
