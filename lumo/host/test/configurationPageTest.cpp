// The reference page of the configuration against the code: a document that holds every key of the page, each
// where the page puts it, leaves no key unread; and the page names every key that the sources hold.

#include "../src/configCheck.hpp"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <vosk/common/fits.hpp>
#include <vosk/test/node.hpp>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using namespace vosk::host;

namespace {

// Whatever stands in the text between two of these, from the first on.
std::vector<std::string> Between(char mark, const std::string& text) {
    std::vector<std::string> found;
    std::istringstream rest{text};
    std::string piece;
    std::getline(rest, piece, mark);
    while (std::getline(rest, piece, mark)) {
        found.push_back(piece);
        std::getline(rest, piece, mark);
    }
    return found;
}

std::string ContentOf(const std::filesystem::path& file) {
    std::ifstream stream{file};
    return {std::istreambuf_iterator<char>{stream}, {}};
}

// The keys in the tables of the page, by the line that opens their section.
std::map<std::string, std::vector<std::string>> KeysOfPage() {
    std::map<std::string, std::vector<std::string>> keys;
    std::ifstream page{CONFIGURATION_PAGE};
    std::string section;
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with("## ")) section = line.substr(3);
        if (line.starts_with("LSPX ")) section = line.substr(0, line.find(" ("));
        if (!line.starts_with("| `")) continue;
        for (const std::string& key : Between('`', line.substr(0, line.find(" |", 2))))
            keys[section].push_back(key);
    }
    return keys;
}

// Good values, in the short form of YAML.
constexpr const char* VALUES =
    R"({busy: false, cpu: -1, numa_buf_size: 0, timeout: 50 ms, send_interval: 2 ms, send_offset: 0 us,
    listen_udp: 0, listen_ip: 127.0.0.1, iface_name: lo, rxbuf_size: 65536, busy_poll: 0,
    qudex_topic: 7, num_frames: 3, buf_packets: 16, checksum_force_ignore: false, endianness: LE,
    leader_extended_info_size: 4, trailer_extended_info_size: 0, leading_padding_size: 0,
    data_unit_size: 4, buf_samples: 2, ip_dest: 127.0.0.1, udp_dest: 47999, ip_src: 127.0.0.1,
    udp_src: 0, ip_time_to_live: 1, udp_checksum_enable: true, txbuf_size: 65536, component_id: 1,
    qudex_checksum_enable: true, sample_size: 21408, niovs: 4, m4_send_delay: 1 ms,
    m4_response_timeout: 1 ms, gpao_highest_mode: 52, delta_scaling: true, managed_modes: 2,
    threshold_velocity: 0.1, threshold_gap: 0.2, shm_prefix: /page_test_, log_level: warn})";

class ConfigurationPage : public testing::Test {
protected:
    ConfigurationPage() {
        const auto values = vosk::test::NodeOf(VALUES);
        for (const std::string& key : values.Keys()) m_values[key] = values[key].As<std::string>();
        m_values["m2p_path"] = m_dir / "m2p.fits";
        m_values["control_socket"] = m_dir / "control";
        m_values["log_file"] = m_dir / "log";
        const std::vector<float> projection(std::size_t{2} * 5352, 0.0F);
        vosk::common::Fits::WriteImg<float>(vosk::common::Fits::FitsFileWrite(m_dir / "m2p.fits", true),
                                            projection, {2, 5352});
    }

    // A map of all keys of these sections, in YAML's short form.
    std::string MapOf(const std::vector<std::string>& sections) {
        std::string map;
        for (const std::string& section : sections) {
            EXPECT_FALSE(m_page[section].empty()) << section;
            for (const std::string& key : m_page[section]) {
                EXPECT_TRUE(m_values.contains(key)) << "no value known for " << key;
                map += fmt::format("{}{}: {}", map.empty() ? "" : ", ", key, m_values[key]);
            }
        }
        return "{" + map + "}";
    }

    vosk::test::TempDir m_dir;
    std::map<std::string, std::vector<std::string>> m_page = KeysOfPage();
    std::map<std::string, std::string> m_values;
};

TEST_F(ConfigurationPage, ListsNoKeyThatNobodyReads) {
    int receivers = 0;
    const auto receiver = [&](const char* num_frames, const std::vector<std::string>& further) {
        m_values["listen_udp"] = std::to_string(vosk::test::UniquePort(receivers++));
        m_values["num_frames"] = num_frames;
        std::vector<std::string> sections{"Every thread", "Receivers"};
        sections.insert(sections.end(), further.begin(), further.end());
        return MapOf(sections);
    };
    m_page["`host`"].resize(m_page["`host`"].size() - 2);  // telegraf's two stand a level lower
    const std::string document = fmt::format(
        "cfg:\n"
        "  ao:\n"
        "    wavefront_cmd_stream: [{}]\n"
        "    ao_tasks: [{}]\n"
        "  m4:\n"
        "    input: [{}]\n"
        "    feedback: [{}]\n"
        "    output: [{}]\n"
        "host: {}\n",
        receiver("5", {"LSPX receivers"}), MapOf({"Every thread", "`ao.ao_tasks`"}), receiver("1", {}),
        receiver("1", {}), (m_values["num_frames"] = "3", MapOf({"Every thread", "Senders"})),
        MapOf({"`host`"}));
    gim::Config config;
    config.ParseText(document, "page.yaml");
    std::vector<std::string> problems;
    for (const Problem& problem : CheckConfig(config)) problems.push_back(ToText(problem));
    EXPECT_THAT(problems, testing::IsEmpty()) << document;
}

using Words = std::set<std::string>;

// What stands quoted in the page, each part of a path on its own.
Words QuotedIn(const std::string& page) {
    Words words;
    for (const std::string& quoted : Between('`', page)) {
        std::istringstream parts{quoted};
        for (std::string part; std::getline(parts, part, '.');) words.insert(part);
    }
    return words;
}

// Adds the literals of a source that have the form of keys: small letters, digits and underscores.
void AddLiterals(const std::filesystem::path& source, Words& literals) {
    constexpr const char* KEY_LETTERS = "abcdefghijklmnopqrstuvwxyz0123456789_";
    for (const std::string& literal : Between('"', ContentOf(source))) {
        if (!literal.empty() && literal.find_first_not_of(KEY_LETTERS) == std::string::npos)
            literals.insert(literal);
    }
}

Words LiteralsBelow(const std::string& directory) {
    Words literals;
    for (const auto& entry :
         std::filesystem::recursive_directory_iterator{std::filesystem::path{SOURCES} / directory}) {
        const std::filesystem::path& file = entry.path();
        if (file.filename() == "threadTable.cpp") continue;  // streams, with and without a thread
        if (file.extension() == ".cpp" || file.extension() == ".hpp") AddLiterals(file, literals);
    }
    return literals;
}

// The few of that form that are no keys, or keys that set-up reads from no document, are named here.
TEST(ConfigurationPageText, NamesEveryKeyOfTheLibraryAndOfTheHost) {
    Words named = QuotedIn(ContentOf(CONFIGURATION_PAGE));
    named.insert({"rtc_performance", "m4_output", "sent", "received", "ecmwfsim", "shm_topic"});
    Words literals = LiteralsBelow("lumo/lumolib/src");
    AddLiterals(std::filesystem::path{SOURCES} / "lumo/host/src/hostSettings.cpp", literals);
    std::erase_if(literals, [&](const std::string& literal) {
        return named.contains(literal) || literal.starts_with("m4_time_since_last_send");
    });
    EXPECT_THAT(literals, testing::IsEmpty());
}

TEST(ConfigurationPageText, NamesInItsSectionEveryKeyOfABlockAndNoOther) {
    const std::string page = ContentOf(CONFIGURATION_PAGE);
    auto tables = KeysOfPage();
    for (const auto& [heading, sources] : std::map<std::string, std::string>{
             {"`resamplers`", "vosk_signal_processing/resampling/src"},
             {"`noise_removal`", "vosk_image_processing/noise_removal/src"},
             {"`bad_pixel_correction`", "vosk_image_processing/image_processing_blocks/src"},
             {"`centroiding_algorithm`", "vosk_image_processing/centroiding/src"}}) {
        const std::size_t start = page.find("## " + heading);
        ASSERT_NE(start, std::string::npos) << heading;
        const Words literals = LiteralsBelow(sources);
        EXPECT_THAT(QuotedIn(page.substr(start, page.find("\n## ", start) - start)),
                    testing::IsSupersetOf(literals));
        EXPECT_THAT(literals, testing::IsSupersetOf(Words{tables[heading].begin(), tables[heading].end()}));
    }
}

}  // namespace
