#pragma once

// The table of streams: which place of the configuration document makes which worker threads.
// LibMain walks it at set-up. A new thread class costs a line in threadTable.cpp. Controlling thread only.

#include <lumolib/lumoThread.hpp>

#include <functional>
#include <memory>
#include <oru/configng/pliConfig.hpp>
#include <span>
#include <string>
#include <vector>

namespace vosk::lumo {

using EnterThread = std::function<void(std::unique_ptr<Thread>)>;

// How many elements of a stream's sequence make threads.
enum class EntriesUsed { EVERY, FIRST };

struct StreamEntry {
    std::string key;  // below the section's key
    EntriesUsed used;
    // Makes the thread or threads of one element and enters each.
    std::function<void(const oru::configng::PliConfigInstanceNode&, const EnterThread&)> make;
    std::string absent_text{};  // logged at TRACE where the key is absent, if not empty
};

struct SectionEntry {
    std::string key;  // below `cfg`
    std::vector<StreamEntry> streams;
    std::string absent_text{};  // as above
};

// The sections in the order of set-up: cameras and wavefront commands; mirrors and AO; flowgraphs.
std::span<const SectionEntry> CameraAndCommandSections();
std::span<const SectionEntry> QudexSections();
std::span<const SectionEntry> FlowgraphSections();

using VisitElement = std::function<void(const StreamEntry&, const oru::configng::PliConfigInstanceNode&)>;

// Calls `visit` for each element that makes threads, of each stream of `sections` that the map `cfg`
// configures, in the order of the table. Throws std::runtime_error where a stream is no sequence,
// PliConfigNotFoundError where it is empty and its first element is wanted; under a review these and what
// `visit` throws are noted.
void WalkElements(const oru::configng::PliConfigInstanceNode& cfg, std::span<const SectionEntry> sections,
                  const VisitElement& visit);

}  // namespace vosk::lumo
