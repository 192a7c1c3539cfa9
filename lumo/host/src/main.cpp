// vosk-host: runs the data path that a configuration document describes.
//
//   vosk-host CONFIG          runs until SIGINT, SIGTERM or the command "stop"
//   vosk-host check CONFIG    tells everything that is wrong with a document, and runs nothing
//   vosk-host ctl SOCKET COMMAND   sends a command to a host that runs

#include "blasKernel.hpp"
#include "configCheck.hpp"
#include "controlClient.hpp"
#include "host.hpp"
#include "hostSettings.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <gim/config.hpp>
#include <vosk/common/logSetup.hpp>
#include <vosk/common/logger.hpp>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

namespace vosk::host {

namespace {

constexpr int EXIT_USAGE = 2;

struct CommandLine {
    std::string document;
    HostSettings settings;
    bool serve_stdin = false;
    bool check_only = false;
    std::string socket;  // to send a command to
    std::vector<std::string> command;
};

// The text is good if `parse` takes it.
template <class Parse>
CLI::Validator Accepts(Parse parse) {
    return {[parse](const std::string& text) {
                try {
                    parse(text);
                    return std::string{};
                } catch (const std::exception& error) {
                    return std::string{error.what()};
                }
            },
            ""};
}

void Describe(CLI::App& app, CommandLine& line) {
    app.add_option("CONFIG", line.document, "Configuration document");
    app.add_option("--control", line.settings.control_socket, "Path of the control socket");
    app.add_option("--shm-prefix", line.settings.shm_prefix, "What the names in shared memory begin with")
        ->check(Accepts(VetShmPrefix));
    app.add_option("--log-level", line.settings.log_level, "trace, debug, info, warn or error")
        ->check(Accepts(ParseLogLevel));
    app.add_option("--log-file", line.settings.log_file,
                   "Where the log goes in the place of standard output");
    app.add_flag("--stdin", line.serve_stdin, "Take commands from standard input though it is no terminal");
    app.set_version_flag("--version", "vosk-host " VOSK_VERSION);
    CLI::App* check = app.add_subcommand("check", "Tell what is wrong with a document, run nothing");
    check->add_option("CONFIG", line.document, "Configuration document")->required();
    check->callback([&line] { line.check_only = true; });
    CLI::App* ctl = app.add_subcommand("ctl", "Send a command to a host that runs");
    ctl->add_option("SOCKET", line.socket, "Its control socket")->required();
    ctl->add_option("COMMAND", line.command, "As on its terminal; 'help' lists them")->required();
}

// Both may be one file, as the log is too: nobody is to write over the others.
void AppendToOutputs() {
    for (int fd : {STDOUT_FILENO, STDERR_FILENO}) {
        const int flags = ::fcntl(fd, F_GETFL);
        if (flags != -1) ::fcntl(fd, F_SETFL, flags | O_APPEND);
    }
}

void SetupLog(const HostSettings& settings) {
    const auto level = ParseLogLevel(settings.log_level.value_or(DEFAULT_LOG_LEVEL));
    if (settings.log_file) return common::SetupLogging(level, *settings.log_file);
    try {
        common::SetupLogging(level, "/dev/stdout");
    } catch (const std::runtime_error&) {
        common::SetupLogging(level);  // a standard output that can't be opened, such as a socket
    }
}

gim::Config LoadDocument(const std::string& name) {
    gim::Config config;
    config.LoadFile(name);
    return config;
}

int Check(const gim::Config& config) {
    // The check takes warnings from the log, and prints a line for each finding.
    common::SetupLogging(log4cplus::WARN_LOG_LEVEL, "/dev/null");
    const auto findings = CheckConfig(config);
    for (const auto& finding : findings) fmt::print("{}\n", ToText(finding));
    const bool is_good =
        std::all_of(findings.begin(), findings.end(), [](const auto& finding) { return finding.is_warning; });
    if (is_good) fmt::print("No problems.\n");
    return is_good ? EXIT_SUCCESS : EXIT_FAILURE;
}

int Control(const CommandLine& line) {
    std::string command;
    for (const std::string& word : line.command) command += word + ' ';
    const std::string reply = Ask(line.socket, command);
    fmt::print("{}\n", reply);
    return reply.starts_with("error: ") ? EXIT_FAILURE : EXIT_SUCCESS;
}

// Must not throw, whatever has become of standard error.
int Fail(const std::string& text, int exit_code) noexcept {
    std::fputs(("vosk-host: " + text + '\n').c_str(), stderr);
    return exit_code;
}

int Run(const CommandLine& line, char** arguments) {
    if (!line.command.empty()) return Control(line);
    if (line.check_only) return Check(LoadDocument(line.document));

    LoadBestBlasKernel(arguments);
    const gim::Config config = LoadDocument(line.document);
    const HostSettings settings = Merge(line.settings, ReadHostSettings(config.GetDocument()->Instances()));
    const Signals signals{settings.log_file.has_value()};
    SetupLog(settings);
    common::LogInfo("Reading configuration document {}", config.GetPath());
    Host host{config, settings, line.serve_stdin || ::isatty(STDIN_FILENO) != 0};
    const auto ended = host.Run(signals);
    if (ended.empty()) return EXIT_SUCCESS;
    std::string text = "threads that ended by themselves:";
    for (const std::string& name : ended) text += ' ' + name;
    return Fail(text, EXIT_FAILURE);
}

// On one line, whatever an exception brings.
int FailSetUp(std::string text) {
    common::FlushLog();
    std::replace(text.begin(), text.end(), '\n', ' ');
    return Fail(text, EXIT_FAILURE);
}

int Main(int argc, char** argv) {
    common::OpenStandardDescriptors();
    AppendToOutputs();
    // A host in the background must not be stopped for looking at its terminal, nor end with who reads its
    // output.
    std::signal(SIGTTIN, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
    CommandLine line;
    CLI::App app{"Runs the adaptive-optics data path that a configuration document describes.", "vosk-host"};
    Describe(app, line);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& shown) {  // the help or the version
        return app.exit(shown);
    } catch (const CLI::ParseError& error) {
        return Fail(error.what(), EXIT_USAGE);
    }
    if (line.document.empty() && line.command.empty())
        return Fail("which configuration document? See --help", EXIT_USAGE);
    try {
        return Run(line, argv);
    } catch (const oru::configng::PliConfigDocumentError& error) {
        return FailSetUp(error.what());  // which says where
    } catch (const oru::configng::PliConfigError& error) {
        return FailSetUp(fmt::format("{}: {}", error.Where(), error.what()));
    } catch (const std::exception& error) {
        return FailSetUp(error.what());
    }
}

}  // namespace

}  // namespace vosk::host

int main(int argc, char** argv) {
    return vosk::host::Main(argc, argv);
}
