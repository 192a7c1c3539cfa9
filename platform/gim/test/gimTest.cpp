#include <gim/config.hpp>
#include <gim/helper.hpp>

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace fs = std::filesystem;

namespace {

// Two directories of CFGPATH and a working directory, each empty at first.
class FindFile : public testing::Test {
protected:
    FindFile() {
        fs::remove_all(m_root);
        for (const char* name : {"first", "second", "work"}) fs::create_directories(m_root / name);
        const std::string path = "::" + (m_root / "first").string() + ":" + (m_root / "second").string();
        ::setenv("CFGPATH", path.c_str(), 1);
        fs::current_path(m_root / "work");
    }
    ~FindFile() override {
        ::unsetenv("CFGPATH");
        fs::current_path(m_before);
        fs::remove_all(m_root);
    }

    void Put(const std::string& directory, const std::string& text = "a: 1\n") const {
        std::ofstream{m_root / directory / "gim.yaml"} << text;
    }

    const fs::path m_before = fs::current_path();
    const fs::path m_root = fs::path{testing::TempDir()} / ("gimTest" + std::to_string(::getpid()));
};

TEST_F(FindFile, PrefersRootThenWorkingDirectoryThenCfgpathInItsOrder) {
    EXPECT_EQ(gim::Helper::FindFile("gim.yaml"), "");
    Put("second");
    EXPECT_EQ(gim::Helper::FindFile("gim.yaml"), m_root / "second/gim.yaml");
    Put("first");
    EXPECT_EQ(gim::Helper::FindFile("gim.yaml"), m_root / "first/gim.yaml");
    Put("work");
    EXPECT_EQ(gim::Helper::FindFile("gim.yaml"), "gim.yaml");
    EXPECT_EQ(gim::Helper::FindFile("tmp"), "/tmp");
    EXPECT_EQ(gim::Helper::FindFile(""), "");
    EXPECT_EQ(gim::Helper::FindFile(m_root / "first/gim.yaml"), m_root / "first/gim.yaml");
}

TEST_F(FindFile, LetsConfigLoadByName) {
    gim::Config config;
    EXPECT_FALSE(config.GetDocument().has_value());
    Put("first", "cfg: {a: 5}\n");
    config.LoadFile("gim.yaml");
    EXPECT_EQ(config.GetDocument()->Instances()["cfg"]["a"].As<int>(), 5);
    EXPECT_THROW(config.LoadFile("absent.yaml"), oru::configng::PliConfigDocumentError);
    EXPECT_THROW(config.ParseText("a: [", "text"), oru::configng::PliConfigDocumentError);
    EXPECT_TRUE(config.GetDocument()->Instances().Has("cfg"));
}

}  // namespace
