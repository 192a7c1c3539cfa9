#include "../src/configCheck.hpp"

#include <gmock/gmock.h>

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
    EXPECT_THAT(ProblemsOf("host: {log_level: warn}\n"
                           "cfg:\n"
                           "  m4:\n"
                           "    output:\n"
                           "      - {busy: false, ip_dest: 127.0.0.1, udp_dest: 47999, qudex_topic: 1}\n"),
                IsEmpty());
}

TEST(ConfigCheck, TellsAllProblemsEachWithItsPlace) {
    const auto problems = ProblemsOf(
        "host:\n"
        "  log_level: loud\n"
        "cfg:\n"
        "  statistics: {no_such_stream: \"2 ms\"}\n"
        "  m4:\n"
        "    input: 5\n"
        "    output:\n"
        "      - {ip_dest: 127.0.0.1, udp_dest: 47999, qudex_topic: 1}\n"
        "  m44: {}\n"
        "  pfs: []\n"
        "extra: 1\n");
    EXPECT_THAT(problems,
                UnorderedElementsAre(
                    AllOf(StartsWith("site.yaml:1: host: "), HasSubstr("'loud'")),
                    AllOf(StartsWith("site.yaml:4: cfg.statistics: "), HasSubstr("no_such_stream")),
                    StartsWith("site.yaml:6: cfg.m4.input: "),
                    AllOf(StartsWith("site.yaml:8: cfg.m4.output[0]: "), HasSubstr("busy")),
                    StartsWith("site.yaml:10: cfg.pfs: "), "site.yaml:9: cfg.m44: nothing reads this key",
                    "site.yaml:11: extra: nothing reads this key"));
}

TEST(ConfigCheck, FindsMisspeltKeys) {
    EXPECT_THAT(ProblemsOf("cfg:\n"
                           "  m4:\n"
                           "    output:\n"
                           "      - busy: false\n"
                           "        ip_dest: 127.0.0.1\n"
                           "        udp_dest: 47999\n"
                           "        qudex_topic: 1\n"
                           "        cpuu: 3\n"),
                ElementsAre("site.yaml:8: cfg.m4.output[0].cpuu: nothing reads this key"));
}

TEST(ConfigCheck, WantsTheInstanceNode) {
    EXPECT_THAT(ProblemsOf("other: 1\n"), testing::Contains(HasSubstr("cfg: the document has no such node")));
    EXPECT_THAT(ProblemsOf("cfg: [1]\n"), ElementsAre("site.yaml:1: cfg: must be a map"));
}

}  // namespace
