#pragma once

// What the benchmarks of worker threads share: their figures, a thread to measure on, and what the threads
// find: files, and the objects of the process in their first state.

#include "bare.hpp"
#include "bench.hpp"

#include <oru/configng/pliConfig.hpp>
#include <pktwire/udpSocket.hpp>
#include <vosk/common/fits.hpp>
#include <vosk/defs/controlMode.hpp>

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace vosk::bench {

using std::chrono::steady_clock;

constexpr int WARM_UP = 30;
constexpr int SAMPLES = 400;
constexpr std::chrono::microseconds PAUSE{500};  // ahead of a sample, so that every thread has gone to sleep
constexpr std::chrono::seconds PATIENCE{2};

struct Figures {
    double p50;
    double p99;
};

// Reorders the samples.
inline Figures FiguresOf(std::vector<double>& samples) {
    return {Percentile(samples, 0.5), Percentile(samples, 0.99)};
}

// Of what `sample` returns in microseconds.
template <class Sample>
Figures Measure(Sample sample) {
    std::vector<double> samples;
    for (int i = 0; i < WARM_UP + SAMPLES; ++i) {
        const double us = sample();
        if (i >= WARM_UP) samples.push_back(us);
    }
    return FiguresOf(samples);
}

inline Figures operator+(const Figures& a, const Figures& b) {
    return {a.p50 + b.p50, a.p99 + b.p99};
}

inline void AddRows(const std::string& what, const std::string& against, const Figures& ours,
                    const Figures& reference, std::vector<Row>& rows) {
    rows.push_back({what + ", p50", against, "us", ours.p50, reference.p50});
    rows.push_back({what + ", p99", against, "us", ours.p99, reference.p99});
}

template <class Duration>
double Us(Duration duration) {
    return std::chrono::duration<double, std::micro>(duration).count();
}

inline double UsSince(steady_clock::time_point start) {
    return Us(steady_clock::now() - start);
}

// On a thread of its own; throws what the work throws.
template <class Work>
void RunOn(int cpu, Work work) {
    std::exception_ptr error;
    nodepin::MakeThread("reader", OnCpu(cpu), [&] {
        try {
            work();
        } catch (...) {
            error = std::current_exception();
        }
    }).join();
    if (error) std::rethrow_exception(error);
}

inline std::uint16_t FreePort() {
    pktwire::UdpRxSocket::Config config;
    config.ip.listen = pktwire::Ipv4{"127.0.0.1"};
    return pktwire::UdpRxSocket{config, nullptr}.LocalPort();
}

// A directory for the files of the threads, and shared memory.
class Surroundings {
public:
    Surroundings();
    ~Surroundings();
    Surroundings(const Surroundings&) = delete;
    Surroundings& operator=(const Surroundings&) = delete;

    // The registries and the control state, before any thread is made.
    static void Renew();

    template <class Values>
    std::string Write(const std::string& name, const Values& values,
                      const std::vector<std::size_t>& axes) const {
        std::string file = Path(name);
        common::Fits::WriteImg<typename Values::value_type>(common::Fits::FitsFileWrite(file, true), values,
                                                            axes);
        return file;
    }
    std::string Path(const std::string& name) const { return (m_directory / name).string(); }

    static oru::configng::PliConfigInstanceNode NodeOf(const std::string& keys);

private:
    std::filesystem::path m_directory =
        std::filesystem::temp_directory_path() / ("vosk-bench-" + std::to_string(::getpid()));
};

}  // namespace vosk::bench
