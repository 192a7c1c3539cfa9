// The reference page of the configuration against the code: its example document is one that can run, and it
// holds every key of the page's tables that threads of this build read.

#include "../src/configCheck.hpp"

#include <gmock/gmock.h>
#include <vosk/common/fits.hpp>
#include <vosk/test/node.hpp>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

using namespace vosk::host;
using oru::configng::PliConfigInstanceNode;

namespace {

std::string Page() {
    std::ifstream stream{CONFIGURATION_PAGE};
    return {std::istreambuf_iterator<char>{stream}, {}};
}

std::string Example() {
    const std::string page = Page();
    const std::string fence = "```yaml\n";
    const std::size_t start = page.find(fence) + fence.size();
    return page.substr(start, page.find("```", start) - start);
}

// The keys in the tables of the page, by the line that opens their section.
std::map<std::string, std::vector<std::string>> KeysOfPage() {
    std::map<std::string, std::vector<std::string>> keys;
    std::istringstream page{Page()};
    std::string section;
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with("## ")) section = line.substr(3);
        if (line.starts_with("LSPX ")) section = line.substr(0, line.find(" ("));
        if (!line.starts_with("| `")) continue;
        std::istringstream cell{line.substr(3, line.find(" |", 2) - 3)};
        for (std::string key, between; std::getline(cell, key, '`'); std::getline(cell, between, '`'))
            keys[section].push_back(key);
    }
    return keys;
}

// Those of a map within it as "telegraf.port".
std::vector<std::string> KeysOf(const PliConfigInstanceNode& node) {
    std::vector<std::string> keys;
    for (const std::string& key : node.Keys()) {
        keys.push_back(key);
        if (!node[key].IsMap()) continue;
        for (const std::string& inner : node[key].Keys()) keys.push_back(key + "." + inner);
    }
    return keys;
}

class ConfigurationPage : public testing::Test {
protected:
    ConfigurationPage() { std::filesystem::current_path(m_dir.Path()); }
    ~ConfigurationPage() override { std::filesystem::current_path(m_before); }

    const std::filesystem::path m_before = std::filesystem::current_path();
    const vosk::test::TempDir m_dir;
};

TEST_F(ConfigurationPage, HoldsAnExampleThatCanRun) {
    const std::vector<float> projection(std::size_t{500} * 5352, 0.0F);
    vosk::common::Fits::WriteImg<float>(vosk::common::Fits::FitsFileWrite("m2p.fits", true), projection,
                                        {500, 5352});
    std::string document = Example();
    const std::string key = "listen_udp: ";
    int receivers = 0;
    for (std::size_t at = document.find(key); at != std::string::npos; at = document.find(key, at + 1)) {
        const auto port = std::to_string(vosk::test::UniquePort(receivers++));
        document.replace(at + key.size(), port.size(), port);
    }
    EXPECT_EQ(receivers, 3);
    gim::Config config;
    config.ParseText(document, "example.yaml");
    std::vector<std::string> problems;
    for (const auto& finding : CheckConfig(config)) problems.push_back(ToText(finding));
    EXPECT_THAT(problems, testing::IsEmpty());
}

TEST_F(ConfigurationPage, HasEveryKeyOfItsTablesInTheExample) {
    const PliConfigInstanceNode top = vosk::test::NodeOf(Example());
    const PliConfigInstanceNode ao = top["cfg"]["ao"];
    const PliConfigInstanceNode receiver = ao["wavefront_cmd_stream"][0];
    const PliConfigInstanceNode sender = top["cfg"]["m4"]["output"][0];
    auto tables = KeysOfPage();
    for (const auto& [section, node] : {std::pair{"Every thread", receiver},
                                        {"Receivers", receiver},
                                        {"LSPX receivers", receiver},
                                        {"Every thread", sender},
                                        {"Senders", sender},
                                        {"`ao.ao_tasks`", ao["ao_tasks"][0]},
                                        {"`host`", top["host"]}}) {
        EXPECT_FALSE(tables[section].empty()) << section;
        EXPECT_THAT(KeysOf(node), testing::IsSupersetOf(tables[section])) << section;
    }
}

}  // namespace
