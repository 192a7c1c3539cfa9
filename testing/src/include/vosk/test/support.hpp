#pragma once

// What every test has at hand: GoogleTest and the common parts of the standard library, which no test needs
// to name again; and what tests of any layer say in the same words: an exception's text, a point in time, a
// condition waited for, names and ports of this run alone.

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomclk/atomClk.hpp>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <limits>
#include <memory>
#include <numeric>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace vosk::test {

// Long enough that only a fault reaches it, on a loaded machine and under a sanitizer too.
inline constexpr std::chrono::seconds PATIENCE{30};

// Whether the condition came true.
template <class Condition>
bool Eventually(Condition&& condition) {
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::microseconds{200});
    }
    return true;
}

// The text of the exception that the call throws, which is to be an Error.
template <class Error = std::exception, class Call>
std::string TextOf(Call&& call) {
    try {
        static_cast<void>(std::forward<Call>(call)());
    } catch (const std::exception& error) {
        return (dynamic_cast<const Error*>(&error) != nullptr ? "" : "another exception: ") +
               std::string{error.what()};
    }
    return "no exception";
}

// The point that long after the clock's epoch.
inline atomclk::AtomClk::time_point At(std::chrono::nanoseconds since_epoch) {
    return atomclk::AtomClk::time_point{since_epoch};
}
inline atomclk::AtomClk::time_point At(std::int64_t nanoseconds) {
    return At(std::chrono::nanoseconds{nanoseconds});
}

// A name that no other test and no other run has, without a slash.
inline std::string UniqueName() {
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    return "vosk_test_" + std::to_string(::getpid()) + "_" + (test != nullptr ? test->name() : "");
}

// UDP ports that no other test has that runs at the same time: 0 to 7, below those that the kernel gives out.
inline std::uint16_t UniquePort(int number = 0) {
    return static_cast<std::uint16_t>(20000 + 8 * (::getpid() % 1500) + number);
}

}  // namespace vosk::test
