#pragma once

// What the tests of worker threads share: documents from text, conditions waited for with a deadline.

#include <chrono>
#include <oru/configng/pliConfigDocument.hpp>
#include <string>
#include <thread>

namespace vosk::lumo::test {

// Long enough that only a fault reaches it, on a loaded machine and under a sanitizer too.
inline constexpr std::chrono::seconds PATIENCE{30};

// The node `cfg` of a document.
inline oru::configng::PliConfigInstanceNode CfgOf(const std::string& text) {
    return oru::configng::PliConfigDocument::FromText(text, "test.yaml").Instances()["cfg"];
}

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

}  // namespace vosk::lumo::test
