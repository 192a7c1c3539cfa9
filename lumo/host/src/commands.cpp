#include "commands.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <map>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <type_traits>
#include <vector>

namespace vosk::host {

using defs::Camera;
using defs::VoskControlMode;

namespace {

constexpr const char* OK = "ok";
constexpr const char* HELP =
    "ok: mode <MODE> [<CAMERA>] | camera <CAMERA> | reference [<X> <Y> <BOX_X> <BOX_Y>] | "
    "centroiding [cog | tsh <THRESHOLD> | nbr <N>] | centering [on | off] | status | stop | help";
constexpr std::size_t MAX_QUOTED = 40;

using Words = std::vector<std::string>;

// Foreign text as it may stand in a reply: short, and nothing that a terminal would obey.
std::string Quoted(const std::string& text) {
    std::string shown = text.substr(0, MAX_QUOTED);
    std::replace_if(
        shown.begin(), shown.end(), [](unsigned char c) { return c < 0x20 || c > 0x7e; }, '?');
    return fmt::format("'{}{}'", shown, text.size() > MAX_QUOTED ? "..." : "");
}

Words Split(const std::string& line) {
    std::istringstream stream{line};
    Words words;
    for (std::string word; stream >> word;) words.push_back(std::move(word));
    return words;
}

const std::map<std::string, VoskControlMode>& Modes() {
    static const auto MODES = [] {
        std::map<std::string, VoskControlMode> modes;
        for (const auto mode :
             {VoskControlMode::TEL_DRIVEN, VoskControlMode::INS_DRIVEN_SEQUENTIAL,
              VoskControlMode::INS_DRIVEN_CASCADE, VoskControlMode::TEL_DRIVEN_WITH_GPAO_TT,
              VoskControlMode::HIGH_ORDER_CASCADE, VoskControlMode::HIGH_ORDER_CASCADE_WITH_GPAO_TT}) {
            modes.emplace(to_string(mode), mode);
        }
        return modes;
    }();
    return MODES;
}

template <class Value>
Value FindOrThrow(const std::map<std::string, Value>& values, const std::string& name, const char* what) {
    if (const auto found = values.find(name); found != values.end()) return found->second;
    std::string known;
    for (const auto& entry : values) {
        if (!known.empty()) known += ", ";
        known += entry.first;
    }
    throw std::invalid_argument{fmt::format("{} is no {}; there are {}", Quoted(name), what, known)};
}

std::string SetMode(const Words& words, ControlTarget& target) {
    const auto mode = FindOrThrow(Modes(), words[1], "control mode");
    std::optional<Camera> camera;
    if (words.size() > 2) camera = FindOrThrow(defs::CAMERAS, words[2], "camera");
    target.SetMode(mode, camera);
    return OK;
}

std::string SetCamera(const Words& words, ControlTarget& target) {
    target.SetCamera(FindOrThrow(defs::CAMERAS, words[1], "camera"));
    return OK;
}

[[noreturn]] void RefuseNumberOfWords(const Words& words) {
    throw std::invalid_argument{fmt::format("wrong number of words for '{}'; try 'help'", words[0])};
}

// All of the word, as a plain number.
template <class Number>
Number NumberOf(const std::string& word) {
    Number number{};
    const char* const end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, number);
    bool is_good = error == std::errc{} && stop == end;
    if constexpr (std::is_floating_point_v<Number>) is_good = is_good && std::isfinite(number);
    if (!is_good) throw std::invalid_argument{fmt::format("{} is no number that fits", Quoted(word))};
    return number;
}

std::string Reference(const Words& words, ControlTarget& target) {
    if (words.size() == 1) {
        const auto [ref_x, ref_y, box_x, box_y] = target.GetReference();
        return fmt::format("{} {} {} {}", ref_x, ref_y, box_x, box_y);
    }
    if (words.size() != 5) RefuseNumberOfWords(words);
    const auto number = [&words](std::size_t i) { return NumberOf<unsigned>(words[i]); };
    target.SetReference({number(1), number(2), number(3), number(4)});
    return OK;
}

constexpr unsigned TSH = 1;
constexpr unsigned NBR = 2;
constexpr unsigned COG = 3;

std::string TextOf(const lumo::COptions& options) {
    switch (options.option) {
        case TSH:
            return fmt::format("tsh {}", options.threshold);
        case NBR:
            return fmt::format("nbr {}", options.nbrightest);
        default:
            return "cog";
    }
}

std::string Centroiding(const Words& words, ControlTarget& target) {
    if (words.size() == 1) return TextOf(target.GetCentroiding());
    static const std::map<std::string, unsigned> METHODS{{"tsh", TSH}, {"nbr", NBR}, {"cog", COG}};
    lumo::COptions options{.option = FindOrThrow(METHODS, words[1], "centroiding method")};
    const bool has_parameter = options.option != COG;
    if (words.size() != (has_parameter ? 3U : 2U)) RefuseNumberOfWords(words);
    if (options.option == TSH) options.threshold = NumberOf<float>(words[2]);
    if (options.option == NBR) options.nbrightest = NumberOf<unsigned>(words[2]);
    target.SetCentroiding(options);
    return OK;
}

std::string Centering(const Words& words, ControlTarget& target) {
    if (words.size() == 1) return target.GetCentering() ? "on" : "off";
    static const std::map<std::string, bool> STATES{{"on", true}, {"off", false}};
    target.SetCentering(FindOrThrow(STATES, words[1], "state of centering"));
    return OK;
}

std::string Status(const Words&, ControlTarget& target) {
    return target.Status();
}

std::string Stop(const Words&, ControlTarget& target) {
    target.Stop();
    return OK;
}

std::string Help(const Words&, ControlTarget&) {
    return HELP;
}

struct Command {
    std::size_t min_words;  // with the command's own
    std::size_t max_words;
    std::string (*run)(const Words& words, ControlTarget& target);
};

const std::map<std::string, Command>& Commands() {
    static const std::map<std::string, Command> COMMANDS{
        {"mode", {2, 3, SetMode}},        {"camera", {2, 2, SetCamera}},
        {"reference", {1, 5, Reference}}, {"centroiding", {1, 3, Centroiding}},
        {"centering", {1, 2, Centering}}, {"status", {1, 1, Status}},
        {"stop", {1, 1, Stop}},           {"help", {1, 1, Help}},
    };
    return COMMANDS;
}

std::string ExecuteWords(const Words& words, ControlTarget& target) {
    const Command command = FindOrThrow(Commands(), words[0], "command");
    if (words.size() < command.min_words || words.size() > command.max_words) RefuseNumberOfWords(words);
    return command.run(words, target);
}

}  // namespace

std::string Execute(const std::string& line, ControlTarget& target) try {
    const Words words = Split(line);
    return words.empty() ? std::string{} : ExecuteWords(words, target);
} catch (const std::exception& error) {
    return fmt::format("error: {}", error.what());
}

}  // namespace vosk::host
