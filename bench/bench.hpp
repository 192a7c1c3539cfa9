#pragma once

// The benchmarks: each measures something of ours and, in the same run, what it is compared with (a plain
// reference or a limit of the machine), and gives one row of the one table that vosk-bench prints.

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace vosk::bench {

struct Row {
    std::string what;        // "executor pass, managed_modes 500"
    std::string against;     // "streaming the matrix twice"
    std::string unit;        // "us"
    double ours = 0.0;       // in `unit`
    double reference = 0.0;  // in `unit`
};

// One function a benchmark file; each is called once, in the order of the table.
std::vector<Row> BenchExecutor();
std::vector<Row> BenchHandOff();
std::vector<Row> BenchWaitUntil();
std::vector<Row> BenchCommandLatency();
std::vector<Row> BenchLspxReceive();
std::vector<Row> BenchMailbox();
std::vector<Row> BenchCentroiding();
std::vector<Row> BenchCleanAndCentroid();
std::vector<Row> BenchFrameCleaning();
std::vector<Row> BenchResampling();
std::vector<Row> BenchCameras();
std::vector<Row> BenchFieldStabilization();
std::vector<Row> BenchGpao();
std::vector<Row> BenchAoOutput();
std::vector<Row> BenchChain();

// The value below which a fraction of the samples lies; the samples are reordered.
template <class T>
T Percentile(std::vector<T>& samples, double fraction) {
    const auto index = static_cast<std::size_t>(fraction * static_cast<double>(samples.size() - 1));
    std::nth_element(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(index), samples.end());
    return samples[index];
}

// Microseconds that one call takes, on the steady clock.
template <class Work>
double TimeUs(Work&& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

// Reads all elements, as fast as one core can: 8 independent sums of a vector each, as wide as the machine
// has. The sum means nothing.
float StreamFloats(const float* values, std::size_t count);
inline void Stream(std::span<const float> values) {
    [[maybe_unused]] const volatile float sink = StreamFloats(values.data(), values.size());
}

}  // namespace vosk::bench
