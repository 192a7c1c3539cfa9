#pragma once

// Random numbers that are the same on every machine. The standard fixes its generators but not its
// distributions, and a mathematics library may round its last digit as its CPU likes; what stands here is
// made of operations alone whose rounding is fixed. Not for loops at full rate.

#include <cstdint>
#include <random>

namespace vosk::rig {

// A mixing function of full period: neighbouring numbers give unrelated values.
constexpr std::uint64_t Scatter(std::uint64_t number) noexcept {
    number += 0x9E3779B97F4A7C15ULL;
    number = (number ^ (number >> 30U)) * 0xBF58476D1CE4E5B9ULL;
    number = (number ^ (number >> 27U)) * 0x94D049BB133111EBULL;
    return number ^ (number >> 31U);
}

// In [0, 1), with 53 random bits.
constexpr double UnitInterval(std::uint64_t bits) noexcept {
    return static_cast<double>(bits >> 11U) * 0x1p-53;
}

// Natural logarithm of a positive finite number, to some 15 digits.
double PortableLog(double value);

// The share of a normal distribution of mean 0 and rms 1 that lies below `value`, to within 1e-12.
double PortableNormalShare(double value);

class PortableRandom {
public:
    explicit PortableRandom(std::uint64_t seed) : m_generator(seed) {}

    std::uint64_t Below(std::uint64_t limit) { return m_generator() % limit; }
    double Uniform(double low, double high) { return low + (high - low) * UnitInterval(m_generator()); }
    // Of mean 0 and rms 1.
    double Normal();

private:
    std::mt19937_64 m_generator;
    double m_spare = 0.0;
    bool m_has_spare = false;
};

}  // namespace vosk::rig
