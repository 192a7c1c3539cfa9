#include <oru/configng/pliConfigDocument.hpp>

#include <fmt/format.h>
#include <sys/stat.h>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

using namespace oru::configng;
using namespace testing;

namespace {

std::string RefusalOf(const std::string& text) {
    return vosk::test::TextOf<PliConfigDocumentError>([&] { PliConfigDocument::FromText(text, "t.yaml"); });
}

std::string Repeat(const std::string& text, std::size_t times) {
    std::string all;
    for (std::size_t i = 0; i < times; ++i) all += text;
    return all;
}

TEST(Document, RefusesWhatIsNoConfiguration) {
    for (const auto& [text, refusal] : std::initializer_list<std::pair<std::string, const char*>>{
             {"", ": the document is empty"},
             {"# only a comment\n", ": the document is empty"},
             {"\n- a\n", ":2: the top of the document is no map"},
             {"cfg:\n  a: 1\nb: [1,\n", ":4:1: end of sequence flow not found"},
             {"cfg: 1\n---\ncfg: 2\n", ":2:1: a second document begins"},
             {"a: 1\nb:\n  c: 1\n  d: 2\n  c: 3\n", ":5:3: key \"c\" stands twice in b"},
             {"a: &x {b: 1}\nc:\n  <<: *x\n", ":3:3: merge keys are not supported"},
             {"a: !color 5", ":1:4: unknown tag \"!color\""},
             {"cfg: 1\nb: \x04\nlost: 2\n", ":2: byte 10 of the document is no UTF-8 text"}})
        EXPECT_EQ(RefusalOf(text), std::string{"t.yaml"} + refusal);
    for (const char* text : {"? [a]\n: 1", "~: 1", "? {a: 1}\n: 1", "x: &x a\n*x : 1"})
        EXPECT_THAT(RefusalOf(text), HasSubstr("a key must be text")) << text;
    for (const std::string& bytes : {std::string{"\0", 1}, std::string{"\xc3"}, std::string{"\xc0\x80"},
                                     std::string{"\xed\xa0\x80"}, std::string{"\xf4\x90\x80\x80"}})
        EXPECT_THAT(RefusalOf(bytes), HasSubstr("no UTF-8 text"));
    const auto document = PliConfigDocument::FromText("\xef\xbb\xbfname: \xc2\xb5m \xf0\x9f\x94\xad\n", "t");
    EXPECT_EQ(document.Instances()["name"].As<std::string>(), "\xc2\xb5m \xf0\x9f\x94\xad");
}

TEST(Document, BoundsDepthAndSize) {
    const auto nested = [](std::size_t depth) { return Repeat("{a: ", depth).append(Repeat("}", depth)); };
    EXPECT_EQ(RefusalOf(nested(MAX_DOCUMENT_DEPTH)), "no exception");
    EXPECT_THAT(RefusalOf(nested(MAX_DOCUMENT_DEPTH + 1)), HasSubstr("nested more than 64 levels deep"));
    EXPECT_THAT(RefusalOf(Repeat("- ", 100'000)), HasSubstr("nested more than 64 levels deep"));
    EXPECT_THAT(RefusalOf(Repeat("- 1\n", MAX_DOCUMENT_NODES)), HasSubstr("more than 250000 nodes"));
    EXPECT_EQ(RefusalOf(std::string(MAX_DOCUMENT_BYTES + 1, ' ')), "t.yaml: larger than 4194304 bytes");
}

TEST(Document, ExpandsAliasesWithinBounds) {
    const auto top = PliConfigDocument::FromText("a: &x\n  b: [1]\nc:\n  d: *x\n", "t").Instances();
    EXPECT_EQ(top["c"]["d"]["b"][0].As<int>(), 1);
    EXPECT_EQ(top["c"]["d"]["b"][0].GetPath(), "c.d.b[0]");
    EXPECT_EQ(top["c"]["d"].GetLine(), 4);
    EXPECT_EQ(top["c"]["d"]["b"].GetLine(), 2);

    EXPECT_THAT(RefusalOf("a: &x [1, *x]"), HasSubstr("an alias inside the node that it names"));
    EXPECT_EQ(RefusalOf("&k name: 1\nb: *k\n"), "t.yaml:2:4: an alias that names a key");
    std::string laughs = "k0: &a0 [1]\n";
    std::string nested = "k0: &a0 [1]\n";
    for (int i = 1; i < 80; ++i) {
        laughs += fmt::format("k{0}: &a{0} [*a{1}, *a{1}]\n", i, i - 1);
        nested += fmt::format("k{0}: &a{0} [*a{1}]\n", i, i - 1);
    }
    EXPECT_THAT(RefusalOf(laughs), HasSubstr("more than 250000 nodes"));
    EXPECT_THAT(RefusalOf(nested), HasSubstr("aliases nest too deeply"));
}

TEST(Document, ReadsAFileAndNamesItInErrors) {
    const vosk::test::TempDir directory;
    const std::string path = directory.Put("a.yaml", "cfg:\n  a: 5\n");
    EXPECT_EQ(PliConfigDocument::FromFile(path).Instances()["cfg"]["a"].As<int>(), 5);
    directory.Put("a.yaml", "cfg:\n  a: [\n");
    const std::string pipe = directory / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    for (const auto& [file, text] : {std::pair{path, ":3:1: "},
                                     {pipe, ": is no file"},
                                     {"/no/such.yaml", ": can't be opened: No such file"},
                                     {"/dev/zero", ": is no file"}})
        EXPECT_THAT(
            vosk::test::TextOf<PliConfigDocumentError>([&file = file] { PliConfigDocument::FromFile(file); }),
            testing::StartsWith(file + text));
}

TEST(UnreadKeys, AreThoseThatNobodyAskedFor) {
    const auto document = PliConfigDocument::FromText(
        "cfg:\n  m4:\n    input:\n      - busy: true\n        cpuu: 3\n      - busy: true\n  extra: {a: 1}\n",
        "t");
    const auto unread = [&document] {
        std::string keys;
        for (const auto& key : UnreadKeys(document)) keys += fmt::format(" {}:{}", key.path, key.line);
        return keys;
    };
    EXPECT_EQ(unread(), " cfg:1");
    const auto cfg = document.Instances()["cfg"];
    EXPECT_TRUE(cfg.Has("m4"));
    EXPECT_FALSE(cfg["m4"]["input"][0].Has("cpu"));
    cfg["m4"]["input"][0]["busy"].As<bool>();
    EXPECT_EQ(unread(), " cfg.m4.input[0].cpuu:5 cfg.m4.input[1]:6 cfg.extra:7");
    for (const auto& value : cfg) static_cast<void>(value);
    EXPECT_EQ(unread(), " cfg.m4.input[0].cpuu:5 cfg.m4.input[1]:6 cfg.extra.a:7");
    cfg["extra"].PassOver();
    EXPECT_EQ(unread(), " cfg.m4.input[0].cpuu:5 cfg.m4.input[1]:6");
}

}  // namespace
