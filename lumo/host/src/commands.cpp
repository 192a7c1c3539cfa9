#include "commands.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace vosk::host {

using defs::Camera;
using defs::VoskControlMode;

namespace {

constexpr const char* OK = "ok";
constexpr const char* HELP = "ok: mode <MODE> [<CAMERA>] | camera <CAMERA> | status | stop | help";
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
        {"mode", {2, 3, SetMode}}, {"camera", {2, 2, SetCamera}}, {"status", {1, 1, Status}},
        {"stop", {1, 1, Stop}},    {"help", {1, 1, Help}},
    };
    return COMMANDS;
}

std::string ExecuteWords(const Words& words, ControlTarget& target) {
    const Command command = FindOrThrow(Commands(), words[0], "command");
    if (words.size() < command.min_words || words.size() > command.max_words) {
        throw std::invalid_argument{fmt::format("wrong number of words for '{}'; try 'help'", words[0])};
    }
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
