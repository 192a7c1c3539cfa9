#include <vosk/common/fileSystem.hpp>

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

using vosk::common::FileSystem;
namespace fs = std::filesystem;

namespace {

class FileSearch : public testing::Test {
protected:
    FileSearch() {
        fs::remove_all(m_root);
        for (const char* name : {"cfg", "one", "two", "int/resource", "work"})
            fs::create_directories(m_root / name);
        ::setenv("CFGPATH", (m_root / "cfg").c_str(), 1);
        ::setenv("INTROOT", (m_root / "int").c_str(), 1);
        fs::current_path(m_root / "work");
    }
    ~FileSearch() override {
        ::unsetenv("CFGPATH");
        ::unsetenv("INTROOT");
        fs::current_path(m_before);
        fs::remove_all(m_root);
    }

    std::string Put(const std::string& path) const {
        std::ofstream{m_root / path} << "x";
        return m_root / path;
    }

    const fs::path m_before = fs::current_path();
    const fs::path m_root = fs::path{testing::TempDir()} / ("fileSystemTest" + std::to_string(::getpid()));
    const std::vector<std::string> m_directories{m_root / "one", m_root / "two"};
};

TEST_F(FileSearch, TakesTheFirstHitInItsOrder) {
    EXPECT_EQ(FileSystem::FindFile("flat.fits", m_directories), "");
    for (const char* path :
         {"int/resource/flat.fits", "two/flat.fits", "one/flat.fits", "cfg/flat.fits", "work/flat.fits"}) {
        const std::string expected = Put(path);
        EXPECT_EQ(FileSystem::FindFile("flat.fits", m_directories), expected);
        EXPECT_EQ(FileSystem::FindFileOrThrow("flat.fits", m_directories), expected);
    }
}

TEST_F(FileSearch, TakesAbsolutePathsAndDirectories) {
    const std::string file = Put("two/dark.fits");
    EXPECT_EQ(FileSystem::FindFile(file, {}), file);
    EXPECT_EQ(FileSystem::FindFile("one", {m_root}), m_root / "one");
    EXPECT_EQ(FileSystem::FindFile("/no/such/file", m_directories), "");
}

TEST_F(FileSearch, TellsWhereItSearched) {
    const auto refusal = [](const std::vector<std::string>& directories) {
        try {
            FileSystem::FindFileOrThrow("none.fits", directories);
        } catch (const std::runtime_error& error) {
            return std::string{error.what()};
        }
        return std::string{"found"};
    };
    const std::string root = m_root.string();
    const std::string start = "FileSystem: Path or file none.fits not found, searched in:\n/\n./\n$CFGPATH (";
    EXPECT_EQ(refusal(m_directories), start + root + "/cfg)\n$INTROOT/resource (" + root +
                                          "/int/resource)\n" + root + "/one\n" + root + "/two");
    ::unsetenv("CFGPATH");
    ::setenv("INTROOT", "", 1);
    EXPECT_EQ(refusal({}), start + ")\n");
}

}  // namespace
