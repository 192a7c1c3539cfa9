#include "../src/configCheck.hpp"

#include <gmock/gmock.h>
#include <vosk/test/tempDir.hpp>

#include <vector>

using namespace vosk::host;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace {

std::vector<std::string> ProblemsOf(const std::string& document) {
    gim::Config config;
    config.ParseText(document, "site.yaml");
    std::vector<std::string> texts;
    for (const Problem& problem : CheckConfig(config)) texts.push_back(ToText(problem));
    return texts;
}

TEST(ConfigCheck, PassesWhatCanRun) {
    EXPECT_THAT(ProblemsOf("host: {log_level: warn, log_file: new.log, control_socket: /tmp/new.sock}\n"
                           "cfg:\n"
                           "  m4:\n"
                           "    output:\n"
                           "      - {busy: false, ip_dest: 127.0.0.1, udp_dest: 47999, qudex_topic: 1}\n"),
                IsEmpty());
    EXPECT_THAT(ProblemsOf("cfg:\n"), IsEmpty());
}

TEST(ConfigCheck, TellsAllProblemsEachWithItsPlace) {
    const auto problems = ProblemsOf(
        "cfg:\n"
        "  statistics: {no_such_stream: \"2 ms\", m4: 2, m5: \"2 ms\"}\n"
        "  m4:\n"
        "    input: 5\n"
        "    output:\n"
        "      - {ip_dest: 127.0.0.1, udp_dest: 47999, qudex_topic: 1}\n"
        "  m44: {}\n"
        "  pfs: []\n"
        "  m5: {output: 5}\n"
        "extra: 1\n");
    EXPECT_THAT(problems,
                UnorderedElementsAre(
                    AllOf(StartsWith("site.yaml:2: cfg.statistics.no_such_stream: "), HasSubstr("no stream")),
                    AllOf(StartsWith("site.yaml:2: cfg.statistics.m4: "), HasSubstr("duration format")),
                    StartsWith("site.yaml:4: cfg.m4.input: "),
                    AllOf(StartsWith("site.yaml:6: cfg.m4.output[0]: "), HasSubstr("busy")),
                    "site.yaml:7: cfg.m44: nothing reads this key", StartsWith("site.yaml:8: cfg.pfs: "),
                    "site.yaml:9: cfg.m5.output: ERR: cfg.m5.output must be a sequence",
                    "site.yaml:10: extra: nothing reads this key"));
}

TEST(ConfigCheck, LooksAtEachKeyOfTheHost) {
    const vosk::test::TempDir dir;
    const std::string file = dir.Put("file", "");
    EXPECT_THAT(ProblemsOf("host:\n"
                           "  log_level: loud\n"
                           "  log_file: " +
                           file +
                           "/log\n"
                           "  shm_prefix: /a/b\n"
                           "  control_socket: " +
                           file +
                           "\n"
                           "  telegraf: {address: 127.0.0.1, port: 0}\n"
                           "cfg:\n"),
                UnorderedElementsAre(
                    AllOf(StartsWith("site.yaml:2: host.log_level: "), HasSubstr("'loud'")),
                    AllOf(StartsWith("site.yaml:3: host.log_file: "), HasSubstr("Not a directory")),
                    AllOf(StartsWith("site.yaml:4: host.shm_prefix: "), HasSubstr("no slash")),
                    AllOf(StartsWith("site.yaml:5: host.control_socket: "), HasSubstr("no socket")),
                    AllOf(StartsWith("site.yaml:6: host.telegraf: "), HasSubstr("port other than 0"))));
}

// Its keys, and resamplers that it would have taken up, are no misspelt ones.
TEST(ConfigCheck, AStreamThatNobodyServesIsANote) {
    gim::Config config;
    config.ParseText(
        "cfg:\n"
        "  resamplers: [{id: a, definition: [{type: zoh}]}]\n"
        "  m5: {input: [{resampler: a}]}\n",
        "site.yaml");
    const auto problems = CheckConfig(config);
    ASSERT_EQ(problems.size(), 1U);
    EXPECT_TRUE(problems[0].is_note);
    EXPECT_EQ(ToText(problems[0]), "site.yaml:3: cfg.m5.input: note: no thread of this build serves it");
}

// And those that a thread that fails would have taken up are not blamed for it.
TEST(ConfigCheck, TellsOfResamplersThatNoThreadCanUse) {
    const std::string no_stages = ": no thread can use it: its definition is no sequence of stages";
    EXPECT_THAT(ProblemsOf("cfg:\n"
                           "  resamplers:\n"
                           "    - {id: a, definition: [{type: zoh}]}\n"
                           "    - text\n"
                           "    - {definition: [{type: zoh}]}\n"
                           "    - {id: [1], definition: []}\n"
                           "    - {id: b, definitoin: []}\n"
                           "    - {id: a, definition: [{type: zoh}]}\n"
                           "    - {id: '', definition: [{type: zoh}]}\n"
                           "    - {id: c, definition: {type: zoh}, extra: 1}\n"
                           "    - {id: d, definition: []}\n"
                           "  m4: {output: [{ip_dest: 127.0.0.1}]}\n"),
                ElementsAre("site.yaml:4: cfg.resamplers[1]: is passed over: it is no map",
                            "site.yaml:5: cfg.resamplers[2]: is passed over: it has no id",
                            "site.yaml:6: cfg.resamplers[3]: is passed over: it has an id that is no text",
                            "site.yaml:7: cfg.resamplers[4]: is passed over: it has no definition",
                            "site.yaml:3: cfg.resamplers[0]: is passed over: site.yaml:8 has the id a too",
                            "site.yaml:9: cfg.resamplers[6]: no thread can name it: its id is empty",
                            "site.yaml:10: cfg.resamplers[7]" + no_stages,
                            "site.yaml:11: cfg.resamplers[8]" + no_stages,
                            StartsWith("site.yaml:12: cfg.m4.output[0]: "),
                            "site.yaml:10: cfg.resamplers[7].extra: nothing reads this key"));
    EXPECT_THAT(ProblemsOf("cfg:\n  resamplers:\n"), IsEmpty());
    EXPECT_THAT(ProblemsOf("cfg:\n  resamplers: {id: a, definition: []}\n"),
                ElementsAre("site.yaml:2: cfg.resamplers: ERR: cfg.resamplers must be a sequence"));
    const std::string elements = "[{id: a, definition: [{type: zoh}]}, {id: '', definition: [{type: zoh}]}]";
    EXPECT_THAT(
        ProblemsOf("host: {log_level: loud}\ncfg:\n  resamplers: " + elements),
        ElementsAre(StartsWith("site.yaml:1: host.log_level: "), HasSubstr("resamplers[1]: no thread"),
                    "site.yaml:3: cfg.resamplers[0].definition[0]: nothing reads this key"));
}

TEST(ConfigCheck, WantsTheInstanceNode) {
    EXPECT_THAT(ProblemsOf("other: 1\n"), testing::Contains(HasSubstr("cfg: the document has no such node")));
    EXPECT_THAT(ProblemsOf("cfg: [1]\n"), ElementsAre("site.yaml:1: cfg: must be a map"));
}

}  // namespace
