// What a check of a document finds, and the reference page: its example can run and holds every key of its
// tables but those of cameras and of LSPX senders.

#include "../src/configCheck.hpp"

#include "../src/controlSocket.hpp"

#include <unistd.h>
#include <vosk/common/fits.hpp>
#include <vosk/test/node.hpp>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

#include <set>
#include <sstream>

namespace vosk::host {
namespace {

using namespace testing;
using vosk::test::UniquePort;
using Strings = std::vector<std::string>;

Strings FindingsOf(const std::string& document) {
    gim::Config config;
    config.ParseText(document, "site.yaml");
    Strings texts;
    for (const auto& finding : CheckConfig(config)) texts.push_back(ToText(finding));
    return texts;
}

// "12 cfg.m4.output[0].cpu", with " warning" behind it for a warning.
Strings PlacesOf(const std::string& document) {
    Strings places;
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
Strings PlacesIn(const std::string& section, const std::string& stream, std::string keys) {
    while (keys.find("; ") != std::string::npos) keys.replace(keys.find("; "), 2, "\n        ");
    auto places = PlacesOf("cfg:\n  " + section + ":\n    " + stream + ":\n      - " + keys + "\n");
    const std::string path = "cfg." + section + "." + stream + "[0].";
    for (std::string& place : places)
        if (place.find(path) != std::string::npos) place.erase(place.find(path), path.size());
    return places;
}

void WriteM2p(const std::string& file, std::size_t modes, float value) {
    common::Fits::WriteImg<float>(common::Fits::FitsFileWrite(file, true, {}),
                                  std::vector<float>(modes * 5352, value), {{modes, 5352}});
}

TEST(ConfigCheck, PassesWhatCanRun) {
    for (const char* document :
         {"cfg:\n", "host:\ncfg: {m4: , statistics: , resamplers: }\n",
          "host: {log_level: warn, log_file: new.log, control_socket: /tmp/new.sock}\n"
          "cfg: {m4: {output: [{busy: false, ip_dest: 127.0.0.1, udp_dest: 47999, qudex_topic: 1}]},\n"
          "  resamplers: [{id: a, definition: [{type: zoh}]}]}\n"})
        EXPECT_THAT(FindingsOf(document), IsEmpty()) << document;
}

TEST(ConfigCheck, FindsAllProblemsEachWithItsPlace) {
    EXPECT_THAT(FindingsOf("cfg:\n"
                           "  statistics: {no_such_stream: \"2 ms\", m4: 2, m5: \"2 ms\"}\n"
                           "  m4:\n    input: 5\n    output: []\n"
                           "  m44: {}\n  pfs: []\n  m5: {output: 5}\n"
                           "extra: 1\n"),
                UnorderedElementsAre(
                    StartsWith("site.yaml:2: cfg.statistics.no_such_stream: "),
                    StartsWith("site.yaml:2: cfg.statistics.m4: "), StartsWith("site.yaml:4: cfg.m4.input: "),
                    StartsWith("site.yaml:5: cfg.m4.output: "),
                    "site.yaml:6: cfg.m44: nothing reads this key", StartsWith("site.yaml:7: cfg.pfs: "),
                    "site.yaml:8: cfg.m5.output: ERR: cfg.m5.output must be a sequence",
                    "site.yaml:9: extra: nothing reads this key"));
    EXPECT_THAT(PlacesOf("other: 1\n"), ElementsAre("1 site.yaml.cfg", "1 other"));
}

TEST(ConfigCheck, GoesOnKeyByKeyWithinAnElement) {
    EXPECT_THAT(PlacesIn("m4", "input",
                         "busy: maybe; cpu: x; timeout: 5 s; listen_udp: 99999; listen_ip: telescope; "
                         "rxbuf_size: -1; num_frames: 0; num_frame: 3"),
                UnorderedElementsAre("4 busy", "5 cpu", "6 timeout", "7 listen_udp", "8 listen_ip",
                                     "4 iface_name", "9 rxbuf_size", "10 num_frames", "11 num_frame"));
    const vosk::test::TempDir dir;
    WriteM2p(dir / "nan.fits", 2, NAN);
    for (const auto& [modes, file, place] :
         std::vector<std::array<std::string, 3>>{{"2", "nowhere.fits", "5 m2p_path"},
                                                 {"2", "nan.fits", "5 m2p_path"},
                                                 {"3", "nan.fits", "5 m2p_path"},  // of another shape
                                                 {"5353", "nan.fits", "4 managed_modes"}}) {
        EXPECT_THAT(PlacesIn("ao", "ao_tasks",
                             "managed_modes: " + modes + "; m2p_path: " + dir / file +
                                 "; m4_send_delay: -1 ms; gpao_highest_mode: 1; threshold_gap: .nan"),
                    UnorderedElementsAre("4 busy", place, "6 m4_send_delay", "4 m4_response_timeout",
                                         "7 gpao_highest_mode", "4 delta_scaling", "4 threshold_velocity",
                                         "8 threshold_gap"));
    }
}

TEST(ConfigCheck, LooksAtBothThreadsOfAnAliceCamera) {
    const std::string processing = "image_processing.";
    EXPECT_THAT(
        PlacesIn("guide_probe", "vis_img",
                 "camera_id: IMG_GP1; iface_name: lo; timeout: 1 ms; endianness: BE; num_frames: 2; "
                 "image_processing: {cpux: 1, cent_err_resampler: nowhere, cent_box: [8, 241],; "
                 "  noise_removal: {dark_path: no_dark.fits, flat_path: no_flat.fits}, refpos: [1, -1],; "
                 "  centroiding_algorithm: {type: nbr, nbrightest: 0},; "
                 "  bad_pixels: [[0, 5]], pixel_weights: [1, 1, 1, 1, 0, 1, 1, 1, 1]}"),
        UnorderedElementsAre(
            "4 busy", "4 qudex_topic", "4 listen_udp", "4 listen_ip", "7 endianness", "8 num_frames",
            "9 " + processing + "busy", "9 " + processing + "cpux", "9 " + processing + "cent_err_resampler",
            "9 " + processing + "cent_box", "10 " + processing + "noise_removal.dark_path",
            "10 " + processing + "noise_removal.flat_path", "10 " + processing + "refpos[1]",
            "11 " + processing + "centroiding_algorithm", "12 " + processing + "bad_pixels"));
    EXPECT_THAT(PlacesIn("guide_probe", "vis_img", "camera_id: WFS_GP1; image_processing: 5"),
                IsSupersetOf({"4 cfg.guide_probe.vis_img[0]", "4 camera_id", "4 busy", "4 listen_udp"}));
}

// Another form would end the stream later, let it give nothing, or be refused by a layer of the endpoint.
TEST(ConfigCheck, RefusesAFormThatNoWavefrontCommandHas) {
    const std::string good =
        "busy: false; listen_ip: 127.0.0.1; timeout: 1 ms; listen_udp: " + std::to_string(UniquePort()) +
        "; iface_name: ";
    EXPECT_THAT(PlacesIn("ao", "wavefront_cmd_stream",
                         good + "lo; qudex_topic: 1; num_frames: 2; trailer_extended_info_size: 1; "
                                "endianness: BE; leader_extended_info_size: 0"),
                UnorderedElementsAre("10 num_frames", "11 trailer_extended_info_size", "12 endianness",
                                     "13 leader_extended_info_size"));
    EXPECT_THAT(PlacesIn("ao", "wavefront_cmd_stream", good + "nowhere0; num_frames: 1; buf_packets: 4097"),
                UnorderedElementsAre("4 qudex_topic", "8 iface_name", "9 num_frames", "10 buf_packets"));
}

TEST(ConfigCheck, WarnsOfWhatASetUpWarnsOf) {
    const std::string receiver =
        "{listen_ip: 127.0.0.1, iface_name: lo, listen_udp: " + std::to_string(UniquePort());
    EXPECT_THAT(PlacesOf("cfg:\n"
                         "  m4:\n    input: [" +
                         receiver +
                         ", busy: false, timeout: 1001 ms, rxbuf_size: 99999999999}]\n"
                         "  resamplers: [text]\n"),
                ElementsAre("4 cfg.resamplers[0] warning", "3 cfg.m4.input[0].timeout warning",
                            "3 cfg.m4.input[0] warning"));
    // As many threads as there are CPUs, unless there are more than two.
    const auto busy = PlacesOf(
        "host: {priority: 1}\ncfg: {m4: {output: [{busy: true, ip_dest: 127.0.0.1, udp_dest: 9}], input: [" +
        receiver + ", busy: true}]}}\n");
    const long cpus = ::sysconf(_SC_NPROCESSORS_ONLN);
    EXPECT_EQ(busy.empty(), cpus > 2) << busy.size();
    std::string workers;
    for (long i = 0; i < cpus; ++i) workers += "{busy: true}, ";
    EXPECT_THAT(FindingsOf("host: {priority: 1}\ncfg: {pds: {wfs: [{camera_id: WFS_PDS, busy: false, "
                           "centroiding_pool: [" +
                           workers + "]}]}}\n"),
                testing::Contains(HasSubstr("spin at a real-time priority")));
}

TEST(ConfigCheck, GoesOnBehindTheFaultsOfTheThreadsAroundTheFlowgraphs) {
    EXPECT_THAT(
        PlacesIn("ao", "output", "{busy: false,; m5_ptt_act: {udp_dest: 9},; fs_u4: {frame_size: 0}}"),
        IsSupersetOf({"4 m4_cap_sens_act", "5 m5_ptt_act.ip_dest", "5 m5_ptt_act.send_delay",
                      "6 fs_u4.ip_dest", "6 fs_u4.frame_size"}));
    EXPECT_THAT(PlacesIn("fieldstabilization", "input",
                         "{busy: false, update_offset: 0 us,; shm_topic: gpao_in,; update_interval: 0 ms,; "
                         "cent_err_resampler: none,; diagnostic_streams: [{udp_dest: 9}]}"),
                IsSupersetOf({"5 shm_topic", "6 update_interval", "7 cent_err_resampler",
                              "8 diagnostic_streams[0].ip_dest"}));
    EXPECT_THAT(PlacesOf("cfg:\n  guide_probe: {vis_img: [{camera_id: IMG_GP2, image_processing: {}}]}\n  "
                         "ecmwfsim: {input: [{}]}\n"),
                Contains("3 cfg.ecmwfsim.input[0] warning"));
}

TEST(ConfigCheck, LooksAtEachKeyOfTheHost) {
    const vosk::test::TempDir dir;
    const ControlSocket live{dir / "live"};
    EXPECT_THAT(FindingsOf("host:\n  log_level: loud\n  log_file: " + dir.Put("file", "") +
                           "/log\n  shm_prefix: /a/b\n  control_socket: " + dir / "live" +
                           "\n  telegraf: {address: 127.0.0.1, port: 0}\ncfg:\n"),
                UnorderedElementsAre(
                    StartsWith("site.yaml:2: host.log_level: "), StartsWith("site.yaml:3: host.log_file: "),
                    StartsWith("site.yaml:4: host.shm_prefix: "),
                    AllOf(StartsWith("site.yaml:5: host.control_socket: "), HasSubstr("process listens")),
                    StartsWith("site.yaml:6: host.telegraf: ")));
}

TEST(ConfigCheck, LeavesNothingInSharedMemory) {
    const std::string name = "vosk_check_" + std::to_string(::getpid()) + "_planted";
    const Strings files{"/dev/shm/" + name, "/dev/shm/sem." + name};
    for (const auto& file : files) std::ofstream{file} << "x";
    FindingsOf("cfg: {m4: {output: 5}}\n");
    for (const auto& file : files) EXPECT_FALSE(std::filesystem::exists(file)) << file;
}

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

TEST(ConfigurationPage, HoldsAnExampleThatCanRun) {
    const vosk::test::TempDir dir;
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(dir.Path());
    WriteM2p("m2p.fits", 500, 0.0F);
    WriteM2p("ins2gpao.fits", 52, 0.0F);
    common::Fits::WriteImg<float>(common::Fits::FitsFileWrite("gpao2ins.fits", true, {}),
                                  std::vector<float>(4866UL * 52), {4866, 52});
    std::string document = Example();
    const std::string key = "listen_udp: ";
    int receivers = 0;
    for (std::size_t at = document.find(key); at != std::string::npos; at = document.find(key, at + 1)) {
        const auto port = std::to_string(UniquePort(receivers++));
        document.replace(at + key.size(), port.size(), port);
    }
    EXPECT_EQ(receivers, 6);
    EXPECT_THAT(FindingsOf(document), IsEmpty());
    std::filesystem::current_path(before);
}

// With the test above: the code reads every key of the tables. "telegraf.port" stands as "port".
TEST(ConfigurationPage, HasEveryKeyOfItsTablesInTheExample) {
    const std::set<std::string> sections{"Every thread",
                                         "Receivers",
                                         "LSPX receivers",
                                         "Senders",
                                         "`ao.ao_tasks`",
                                         "`ao.output`",
                                         "`host`",
                                         "`gpao.input`",
                                         "`gpao.output`",
                                         "`fieldstabilization.input`",
                                         "`fieldstabilization.output`"};
    std::set<std::string> found;
    std::istringstream page{Page()};
    std::string section;
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with("## ")) section = line.substr(3);
        if (line.starts_with("LSPX ")) section = line.substr(0, line.find(" ("));
        if (!line.starts_with("| `") || !sections.contains(section)) continue;
        found.insert(section);
        std::istringstream cell{line.substr(3, line.find(" |", 2) - 3)};
        for (std::string key, between; std::getline(cell, key, '`'); std::getline(cell, between, '`'))
            EXPECT_THAT(Example(), ContainsRegex("[ {]" + key.substr(key.find('.') + 1) + ":")) << section;
    }
    EXPECT_EQ(found, sections);
}

}  // namespace
}  // namespace vosk::host
