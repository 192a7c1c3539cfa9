#pragma once

// Finds what is wrong with a configuration document and the files that it names: makes everything that can be
// made without starting it, notes each failure and goes on, then looks for keys that nobody has read. Meets
// the network and shared memory as set-up does. For a process that does nothing else.

#include <gim/config.hpp>

#include <string>
#include <vector>

namespace vosk::host {

struct Problem {
    std::string where;  // "vosk.yaml:12"
    std::string path;   // "cfg.m4.output[0]"
    std::string text;
    bool is_note = false;  // nothing is wrong with the document, but not all of it has an effect

    friend bool operator==(const Problem&, const Problem&) = default;
};

// In the order in which they were found. The document must be loaded.
std::vector<Problem> CheckConfig(const gim::Config& config);

// "vosk.yaml:12: cfg.m4.output[0]: no such file", and "note: " before the text of a note.
std::string ToText(const Problem& problem);

}  // namespace vosk::host
