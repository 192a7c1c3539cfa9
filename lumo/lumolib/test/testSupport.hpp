#pragma once

// What the tests of worker threads share beside what every test has at hand.

#include <string>
#include <vosk/test/node.hpp>
#include <vosk/test/support.hpp>

namespace vosk::lumo::test {

using vosk::test::Eventually;
using vosk::test::PATIENCE;

// The node `cfg` of a document.
inline oru::configng::PliConfigInstanceNode CfgOf(const std::string& text) {
    return vosk::test::NodeOf(text)["cfg"];
}

}  // namespace vosk::lumo::test
