#include <vosk/common/fileSystem.hpp>

#include <cstdlib>
#include <filesystem>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

using vosk::common::FileSystem;
namespace fs = std::filesystem;

namespace {

class FileSearch : public testing::Test {
protected:
    FileSearch() {
        for (const char* name : {"cfg", "one", "two", "int/resource", "work"})
            fs::create_directories(m_root.Path() / name);
        ::setenv("CFGPATH", (m_root / "cfg").c_str(), 1);
        ::setenv("INTROOT", (m_root / "int").c_str(), 1);
        fs::current_path(m_root / "work");
    }
    ~FileSearch() override {
        ::unsetenv("CFGPATH");
        ::unsetenv("INTROOT");
        fs::current_path(m_before);
    }

    const fs::path m_before = fs::current_path();
    const vosk::test::TempDir m_root;
    const std::vector<std::string> m_directories{m_root / "one", m_root / "two"};
};

TEST_F(FileSearch, TakesTheFirstHitInItsOrderAndAnAbsolutePathAsItStands) {
    EXPECT_EQ(FileSystem::FindFile("flat.fits", m_directories), "");
    for (const char* path :
         {"int/resource/flat.fits", "two/flat.fits", "one/flat.fits", "cfg/flat.fits", "work/flat.fits"}) {
        const std::string expected = m_root.Put(path, "x");
        EXPECT_EQ(FileSystem::FindFileOrThrow("flat.fits", m_directories), expected);
        EXPECT_EQ(FileSystem::FindFile(expected, {}), expected);
    }
    EXPECT_EQ(FileSystem::FindFile("one", {m_root.Path()}), m_root / "one");
    EXPECT_EQ(FileSystem::FindFile("/no/such/file", m_directories), "");
}

TEST_F(FileSearch, NamesThePlacesThatItSearched) {
    const std::string root = m_root.Path().string();
    EXPECT_EQ(vosk::test::TextOf<std::runtime_error>(
                  [&] { return FileSystem::FindFileOrThrow("none.fits", m_directories); }),
              "FileSystem: Path or file none.fits not found, searched in:\n/\n./\n$CFGPATH (" + root +
                  "/cfg)\n$INTROOT/resource (" + root + "/int/resource)\n" + root + "/one\n" + root + "/two");
}

}  // namespace
