#include "../src/configCheck.hpp"

#include "../src/controlSocket.hpp"

#include <gmock/gmock.h>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

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
                           "  m4:\n"
                           "    input: 5\n"
                           "    output: []\n"
                           "  m44: {}\n"
                           "  pfs: []\n"
                           "  m5: {output: 5}\n"
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
    EXPECT_THAT(
        PlacesOf("cfg:\n"
                 "  m4:\n"
                 "    input:\n"
                 "      - busy: maybe\n"
                 "        cpu: x\n"
                 "        timeout: 5 s\n"
                 "        listen_udp: 99999\n"
                 "        listen_ip: telescope\n"
                 "        rxbuf_size: -1\n"
                 "        num_frames: 0\n"
                 "        num_frame: 3\n"),
        UnorderedElementsAre("4 cfg.m4.input[0].busy", "5 cfg.m4.input[0].cpu", "6 cfg.m4.input[0].timeout",
                             "7 cfg.m4.input[0].listen_udp", "8 cfg.m4.input[0].listen_ip",
                             "4 cfg.m4.input[0].iface_name", "9 cfg.m4.input[0].rxbuf_size",
                             "10 cfg.m4.input[0].num_frames", "11 cfg.m4.input[0].num_frame"));
    EXPECT_THAT(PlacesOf("cfg:\n"
                         "  m4:\n"
                         "    output:\n"
                         "      - ip_dest: 127.0.0.1\n"
                         "        send_offset: '1'\n"
                         "        num_frames: 5\n"
                         "        sample_size: 7\n"),
                UnorderedElementsAre("4 cfg.m4.output[0].busy", "4 cfg.m4.output[0].udp_dest",
                                     "5 cfg.m4.output[0].send_offset", "6 cfg.m4.output[0].num_frames",
                                     "7 cfg.m4.output[0].sample_size"));
    EXPECT_THAT(
        PlacesOf("cfg:\n"
                 "  ao:\n"
                 "    ao_tasks:\n"
                 "      - m4_send_delay: -1 ms\n"
                 "        m4_response_timeout: 1 ms\n"
                 "        gpao_highest_mode: 1\n"
                 "        delta_scaling: 3\n"
                 "        managed_modes: 2\n"
                 "        m2p_path: nowhere.fits\n"
                 "        threshold_velocity: -1\n"
                 "        threshold_gap: .nan\n"),
        UnorderedElementsAre("4 cfg.ao.ao_tasks[0].busy", "4 cfg.ao.ao_tasks[0].m4_send_delay",
                             "6 cfg.ao.ao_tasks[0].gpao_highest_mode", "7 cfg.ao.ao_tasks[0].delta_scaling",
                             "9 cfg.ao.ao_tasks[0].m2p_path", "10 cfg.ao.ao_tasks[0].threshold_velocity",
                             "11 cfg.ao.ao_tasks[0].threshold_gap"));
}

// Which would end the stream later, or have it give nothing.
TEST(ConfigCheck, RefusesAFormThatNoWavefrontCommandHas) {
    const std::string common = "listen_ip: 127.0.0.1, iface_name: lo, busy: false, timeout: 1 ms, ";
    const std::string port = std::to_string(vosk::test::UniquePort());
    EXPECT_THAT(PlacesOf("cfg:\n  ao:\n    wavefront_cmd_stream:\n      - {" + common +
                         "qudex_topic: 1, listen_udp: " + port +
                         ",\n         num_frames: 2,\n         trailer_extended_info_size: 1}\n"),
                ElementsAre("5 cfg.ao.wavefront_cmd_stream[0].num_frames",
                            "6 cfg.ao.wavefront_cmd_stream[0].trailer_extended_info_size"));
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
}

TEST(ConfigCheck, LeavesNothingInSharedMemory) {
    const std::string name = "vosk_check_" + std::to_string(::getpid()) + "_planted";
    const std::vector<std::string> files{"/dev/shm/" + name, "/dev/shm/sem." + name};
    for (const auto& file : files) std::ofstream{file} << "x";
    FindingsOf("cfg: {m4: {output: 5}}\n");
    for (const auto& file : files) EXPECT_FALSE(std::filesystem::exists(file)) << file;
}

}  // namespace
