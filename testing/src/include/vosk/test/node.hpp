#pragma once

// Configuration nodes from YAML text.

#include <oru/configng/pliConfigDocument.hpp>

#include <string>

namespace vosk::test {

// The top of a document, whose path is "test.yaml".
inline oru::configng::PliConfigInstanceNode NodeOf(const std::string& yaml) {
    return oru::configng::PliConfigDocument::FromText(yaml, "test.yaml").Instances();
}

}  // namespace vosk::test
