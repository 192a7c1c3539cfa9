#include <gim/config.hpp>
#include <gim/helper.hpp>

#include <cstdlib>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

// The order of the search is tried with the callers of FindFile, in common.
TEST(Config, IsLoadedByNameAndKeptWhenTheNextIsUnusable) {
    const vosk::test::TempDir first;
    const vosk::test::TempDir second;
    second.Put("gim.yaml", "cfg: {a: 4}\n");
    const std::string found = first.Put("gim.yaml", "cfg: {a: 5}\n");
    ::setenv("CFGPATH", ("::" + first.Path().string() + ":" + second.Path().string()).c_str(), 1);
    EXPECT_EQ(gim::Helper::FindFile("gim.yaml"), found);
    EXPECT_EQ(gim::Helper::FindFile(found), found);
    EXPECT_EQ(gim::Helper::FindFile("proc"), "/proc");
    first.Put("proc", "");  // the root comes last
    EXPECT_EQ(gim::Helper::FindFile("proc"), first / "proc");
    EXPECT_EQ(gim::Helper::FindFile(""), "");

    gim::Config config;
    EXPECT_FALSE(config.GetDocument().has_value());
    config.LoadFile("gim.yaml");
    EXPECT_THROW(config.LoadFile("absent.yaml"), oru::configng::PliConfigDocumentError);
    EXPECT_THROW(config.ParseText("a: [", "text"), oru::configng::PliConfigDocumentError);
    EXPECT_EQ(config.GetDocument()->Instances()["cfg"]["a"].As<int>(), 5);
    EXPECT_EQ(config.GetPath(), found);
    ::unsetenv("CFGPATH");
}
