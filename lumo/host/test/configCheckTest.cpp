#include "../src/configCheck.hpp"

#include "../src/controlSocket.hpp"

#include <gmock/gmock.h>
#include <unistd.h>
#include <vosk/common/fits.hpp>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <vector>

using namespace vosk::host;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;
using vosk::common::Fits;

namespace {

std::vector<std::string> FindingsOf(const std::string& document) {
    gim::Config config;
    config.ParseText(document, "site.yaml");
    std::vector<std::string> texts;
    for (const auto& finding : CheckConfig(config)) texts.push_back(ToText(finding));
    return texts;
}

// "12 cfg.m4.output[0].cpu", with " warning" behind it for a warning.
std::vector<std::string> PlacesOf(const std::string& document) {
    std::vector<std::string> places;
    for (const std::string& text : FindingsOf(document)) {
        EXPECT_EQ(text.find('\n'), std::string::npos) << text;
        const auto path = text.find(": ") + 2;
        const auto end = text.find(": ", path);
        const bool is_warning = text.compare(end, 11, ": warning: ") == 0;
        places.push_back(text.substr(10, path - 12) + " " + text.substr(path, end - path) +
                         (is_warning ? " warning" : ""));
    }
    return places;
}

// Of a stream's only element, whose keys stand in a line each, from line 4 on: "4 busy".
std::vector<std::string> PlacesIn(const std::string& section, const std::string& stream, std::string keys) {
    while (keys.find("; ") != std::string::npos) keys.replace(keys.find("; "), 2, "\n        ");
    auto places = PlacesOf("cfg:\n  " + section + ":\n    " + stream + ":\n      - " + keys + "\n");
    const std::string path = "cfg." + section + "." + stream + "[0].";
    for (std::string& place : places)
        if (place.find(path) != std::string::npos) place.erase(place.find(path), path.size());
    return places;
}

TEST(ConfigCheck, PassesWhatCanRun) {
    EXPECT_THAT(FindingsOf("host: {log_level: warn, log_file: new.log, control_socket: /tmp/new.sock}\n"
                           "cfg:\n"
                           "  m4:\n"
                           "    output:\n"
                           "      - {busy: false, ip_dest: 127.0.0.1, udp_dest: 47999, qudex_topic: 1}\n"
                           "  resamplers: [{id: a, definition: [{type: zoh}]}]\n"),
                IsEmpty());
    for (const char* empty : {"cfg:\n", "host:\ncfg: {m4: , statistics: , resamplers: }\n"})
        EXPECT_THAT(FindingsOf(empty), IsEmpty()) << empty;
}

TEST(ConfigCheck, FindsAllProblemsEachWithItsPlace) {
    EXPECT_THAT(FindingsOf("cfg:\n"
                           "  statistics: {no_such_stream: \"2 ms\", m4: 2, m5: \"2 ms\"}\n"
                           "  m4:\n    input: 5\n    output: []\n"
                           "  m44: {}\n  pfs: []\n  m5: {output: 5}\n"
                           "extra: 1\n"),
                UnorderedElementsAre(
                    AllOf(StartsWith("site.yaml:2: cfg.statistics.no_such_stream: "), HasSubstr("no stream")),
                    AllOf(StartsWith("site.yaml:2: cfg.statistics.m4: "), HasSubstr("duration format")),
                    StartsWith("site.yaml:4: cfg.m4.input: "), StartsWith("site.yaml:5: cfg.m4.output: "),
                    "site.yaml:6: cfg.m44: nothing reads this key", StartsWith("site.yaml:7: cfg.pfs: "),
                    "site.yaml:8: cfg.m5.output: ERR: cfg.m5.output must be a sequence",
                    "site.yaml:9: extra: nothing reads this key"));
    EXPECT_THAT(PlacesOf("other: 1\n"), ElementsAre("1 site.yaml.cfg", "1 other"));
    EXPECT_THAT(PlacesOf("cfg: [1]\n"), ElementsAre("1 cfg"));
}

TEST(ConfigCheck, GoesOnKeyByKeyWithinAnElement) {
    EXPECT_THAT(PlacesIn("m4", "input",
                         "busy: maybe; cpu: x; timeout: 5 s; listen_udp: 99999; listen_ip: telescope; "
                         "rxbuf_size: -1; num_frames: 0; num_frame: 3"),
                UnorderedElementsAre("4 busy", "5 cpu", "6 timeout", "7 listen_udp", "8 listen_ip",
                                     "4 iface_name", "9 rxbuf_size", "10 num_frames", "11 num_frame"));
    EXPECT_THAT(PlacesIn("m4", "output",
                         "ip_dest: 127.0.0.1; send_offset: '1'; num_frames: 5; niovs: 1024; "
                         "sample_size: 4294967296"),
                UnorderedElementsAre("4 busy", "4 udp_dest", "5 send_offset", "6 num_frames", "7 niovs",
                                     "8 sample_size"));
    const vosk::test::TempDir dir;
    constexpr std::size_t ACTUATORS = 5352;
    Fits::WriteImg<float>(Fits::FitsFileWrite(dir / "nan.fits", true, {}),
                          std::vector<float>(2 * ACTUATORS, NAN), {{2, ACTUATORS}});
    const std::string file = dir / "nan.fits";
    const std::pair<std::string, std::string> faults_of_m2p[] = {
        {"managed_modes: 2; m2p_path: nowhere.fits", "5 m2p_path"},
        {"managed_modes: 2; m2p_path: " + file, "5 m2p_path"},
        {"managed_modes: -1; m2p_path: " + file, "4 managed_modes"},
        {"managed_modes: 5353; m2p_path: " + file, "4 managed_modes"}};
    for (const auto& [keys, place] : faults_of_m2p) {
        EXPECT_THAT(PlacesIn("ao", "ao_tasks",
                             keys + "; m4_send_delay: -1 ms; gpao_highest_mode: 1; delta_scaling: 3; "
                                    "threshold_velocity: -1; threshold_gap: .nan; m4_delay: 1 ms"),
                    UnorderedElementsAre("4 busy", place, "6 m4_send_delay", "4 m4_response_timeout",
                                         "7 gpao_highest_mode", "8 delta_scaling", "9 threshold_velocity",
                                         "10 threshold_gap", "11 m4_delay"));
    }
}

// Which would end the stream later, have it give nothing, or be refused by a layer of the endpoint.
TEST(ConfigCheck, RefusesAFormThatNoWavefrontCommandHas) {
    const auto element = [](int number, const std::string& keys) {
        return "      - {listen_ip: 127.0.0.1, busy: false, timeout: 1 ms, qudex_topic: 1, listen_udp: " +
               std::to_string(vosk::test::UniquePort(number)) + ", " + keys + "}\n";
    };
    const std::string path = " cfg.ao.wavefront_cmd_stream[";
    EXPECT_THAT(
        PlacesOf("cfg:\n  ao:\n    wavefront_cmd_stream:\n" +
                 element(0, "iface_name: lo, num_frames: 2,\n         trailer_extended_info_size: 1") +
                 element(1,
                         "iface_name: nowhere0,\n         num_frames: 1, data_unit_size: 0,\n"
                         "         buf_packets: 4097, buf_samples: 1025")),
        UnorderedElementsAre("4" + path + "0].num_frames", "5" + path + "0].trailer_extended_info_size",
                             "6" + path + "1].iface_name", "7" + path + "1].num_frames",
                             "7" + path + "1].data_unit_size", "8" + path + "1].buf_packets",
                             "8" + path + "1].buf_samples", "6" + path + "1] warning"));
}

TEST(ConfigCheck, WarnsOfWhatASetUpWarnsOf) {
    const std::string port = std::to_string(vosk::test::UniquePort());
    const std::string receiver = "busy: false, listen_ip: 127.0.0.1, iface_name: lo, listen_udp: ";
    EXPECT_THAT(
        PlacesOf("cfg:\n"
                 "  m4:\n"
                 "    output: [{busy: false, ip_dest: 127.0.0.1, udp_dest: 9, send_interval: 1 us}]\n"
                 "    input: [{" +
                 receiver + port + "}]\n    feedback: [{" + receiver +
                 std::to_string(vosk::test::UniquePort(1)) +
                 ", timeout: 1001 ms, rxbuf_size: 99999999999}]\n"
                 "  m5: {input: [{resampler: a}]}\n"
                 "  resamplers: [text]\n"),
        ElementsAre("7 cfg.resamplers[0] warning", "4 cfg.m4.input[0].timeout warning",
                    "3 cfg.m4.output[0].send_interval warning", "5 cfg.m4.feedback[0].timeout warning",
                    "5 cfg.m4.feedback[0] warning", "6 cfg.m5.input warning"));
    // As many threads as there are CPUs, unless there are more than two.
    const auto busy = PlacesOf(
        "host: {priority: 1}\ncfg:\n  m4:\n    output: [{busy: true, ip_dest: 127.0.0.1, udp_dest: 9}]\n"
        "    input: [{busy: true, listen_ip: 127.0.0.1, iface_name: lo, listen_udp: " +
        port + "}]\n");
    EXPECT_EQ(busy.empty(), ::sysconf(_SC_NPROCESSORS_ONLN) > 2) << busy.size();
}

TEST(ConfigCheck, LooksAtEachKeyOfTheHost) {
    const vosk::test::TempDir dir;
    const ControlSocket live{dir / "live"};
    const std::string file = dir.Put("file", "");
    EXPECT_THAT(FindingsOf("host:\n"
                           "  log_level: loud\n"
                           "  log_file: " +
                           file +
                           "/log\n"
                           "  shm_prefix: /a/b\n"
                           "  control_socket: " +
                           dir / "live" +
                           "\n"
                           "  telegraf: {address: 127.0.0.1, port: 0}\n"
                           "cfg:\n"),
                UnorderedElementsAre(
                    AllOf(StartsWith("site.yaml:2: host.log_level: "), HasSubstr("'loud'")),
                    AllOf(StartsWith("site.yaml:3: host.log_file: "), HasSubstr("Not a directory")),
                    AllOf(StartsWith("site.yaml:4: host.shm_prefix: "), HasSubstr("no slash")),
                    AllOf(StartsWith("site.yaml:5: host.control_socket: "), HasSubstr("process listens")),
                    AllOf(StartsWith("site.yaml:6: host.telegraf: "), HasSubstr("port other than 0"))));
    EXPECT_THAT(PlacesOf("host: {log_file: [1], control_socket: [1], priority: 200}\ncfg:\n"),
                UnorderedElementsAre("1 host.log_file", "1 host.control_socket", "1 host.priority"));
}

TEST(ConfigCheck, LeavesNothingInSharedMemory) {
    const std::string name = "vosk_check_" + std::to_string(::getpid()) + "_planted";
    const std::vector<std::string> files{"/dev/shm/" + name, "/dev/shm/sem." + name};
    for (const auto& file : files) std::ofstream{file} << "x";
    FindingsOf("cfg: {m4: {output: 5}}\n");
    for (const auto& file : files) EXPECT_FALSE(std::filesystem::exists(file)) << file;
}

}  // namespace
