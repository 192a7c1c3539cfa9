#include "bench.hpp"

#include <cblas.h>
#include <fmt/format.h>
#include <sched.h>
#include <nodepin/nodepin.hpp>

#include <CLI/CLI.hpp>
#include <fstream>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace {

using vosk::bench::Row;

std::string ProcessorName() {
    std::ifstream cpuinfo{"/proc/cpuinfo"};
    for (std::string line; std::getline(cpuinfo, line);) {
        if (line.starts_with("model name")) return line.substr(line.find(':') + 2);
    }
    return "unknown processor";
}

void Print(const Row& row) {
    fmt::print("{:<58} {:>10.2f} {:<9} {:<46} {:>10.2f} {:>7.2f}\n", row.what, row.ours, row.unit,
               row.against, row.reference, row.ours / row.reference);
}

}  // namespace

int main(int argc, char** argv) {
    using namespace vosk::bench;
    const std::vector<std::pair<std::string, std::function<std::vector<Row>()>>> benchmarks{
        {"executor", BenchExecutor},
        {"hand-off", BenchHandOff},
        {"wait-until", BenchWaitUntil},
        {"latency", BenchCommandLatency},
        {"lspx", BenchLspxReceive},
        {"mailbox", BenchMailbox},
        {"cleaning", BenchFrameCleaning},
        {"centroiding", BenchCentroiding},
        {"clean-and-centroid", BenchCleanAndCentroid},
        {"resampling", BenchResampling},
        {"cameras", BenchCameras},
        {"field-stabilisation", BenchFieldStabilization},
        {"gpao", BenchGpao},
        {"ao-output", BenchAoOutput},
        {"chain", BenchChain},
    };

    CLI::App app{"Measures the library against bare forms and limits of the machine, in one run"};
    std::string only;
    app.add_option("--only", only,
                   "one of executor, hand-off, wait-until, latency, lspx, mailbox, cleaning, centroiding, "
                   "clean-and-centroid, resampling, cameras, "
                   "field-stabilisation, gpao, ao-output, chain");
    int priority = 0;
    app.add_option("--priority", priority,
                   "real-time priority (SCHED_FIFO) of the threads, for a machine that has other work")
        ->check(CLI::Range(0, nodepin::MAX_PRIORITY));
    CLI11_PARSE(app, argc, argv);
    const sched_param parameters{priority};
    if (priority != 0 && ::sched_setscheduler(0, SCHED_FIFO, &parameters) != 0) {
        fmt::print(stderr, "The system refuses the priority {}\n", priority);
        return 1;
    }
    nodepin::default_priority = priority;

    fmt::print("{}, OpenBLAS kernel {}\n\n", ProcessorName(), ::openblas_get_corename());
    fmt::print("{:<58} {:>10} {:<9} {:<46} {:>10} {:>7}\n", "what", "ours", "unit", "against", "reference",
               "ratio");
    for (const auto& [name, benchmark] : benchmarks) {
        if (!only.empty() && name != only) continue;
        for (const Row& row : benchmark()) Print(row);
        std::fflush(stdout);
    }
    return 0;
}
