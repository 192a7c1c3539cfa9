#include <lumolib/threadTable.hpp>

#include <lumolib/aliceInput.hpp>
#include <lumolib/aoOutput.hpp>
#include <lumolib/aoTasks.hpp>
#include <lumolib/aoWavefrontCmdInput.hpp>
#include <lumolib/ecmwfSimInput.hpp>
#include <lumolib/fieldStabilizationInput.hpp>
#include <lumolib/fieldStabilizationOutput.hpp>
#include <lumolib/gpaoInput.hpp>
#include <lumolib/gpaoOutput.hpp>
#include <lumolib/imageProcessing.hpp>
#include <lumolib/lisaInput.hpp>
#include <lumolib/m4Input.hpp>
#include <lumolib/m4Output.hpp>
#include <lumolib/m5InputOutput.hpp>
#include <lumolib/maranaInput.hpp>
#include <lumolib/pfsMsInputOutput.hpp>
#include <lumolib/utilities.hpp>
#include <vosk/common/logger.hpp>

#include <strings.h>

namespace vosk::lumo {

using oru::configng::Attempt;
using oru::configng::PliConfigInstanceNode;

namespace {

template <class T>
void Make(const PliConfigInstanceNode& node, const EnterThread& enter) {
    enter(std::make_unique<T>(node));
}

// An ALICE camera has two threads. The one that processes comes first: its `busy` key decides how it waits.
// Under a review the other is looked at all the same.
void MakeAlice(const PliConfigInstanceNode& node, const EnterThread& enter) {
    Attempt(node, [&] { Make<ImageProcessing>(node, enter); });
    Make<AliceInput>(node, enter);
}

bool IsLisa(const PliConfigInstanceNode& node) {
    if (!node.Has("camera_type")) return false;
    const auto type = node["camera_type"].As<std::string>();
    return ::strcasecmp(type.c_str(), "lisa") == 0;
}

void MakeGuideProbeImager(const PliConfigInstanceNode& node, const EnterThread& enter) {
    if (IsLisa(node)) return Make<ImgLisaInput>(node, enter);
    MakeAlice(node, enter);
}

void LogIfAny(const std::string& text) {
    if (!text.empty()) common::LogTrace("{}", text);
}

std::vector<PliConfigInstanceNode> ElementsUsed(const StreamEntry& entry,
                                                const PliConfigInstanceNode& stream) {
    if (entry.used == EntriesUsed::FIRST) return {stream[0]};
    return {stream.begin(), stream.end()};
}

void WalkStream(const StreamEntry& entry, const PliConfigInstanceNode& stream, const VisitElement& visit) {
    if (!stream.IsSequence()) common::LogAndThrow("ERR: " + stream.GetPath() + " must be a sequence");
    for (const auto& element : ElementsUsed(entry, stream)) {
        Attempt(element, [&] { visit(entry, element); });
    }
}

void WalkSection(const SectionEntry& section, const PliConfigInstanceNode& node, const VisitElement& visit) {
    for (const StreamEntry& entry : section.streams) {
        if (!node.Has(entry.key)) {
            LogIfAny(entry.absent_text);
            continue;
        }
        const PliConfigInstanceNode stream = node[entry.key];
        Attempt(stream, [&] { WalkStream(entry, stream, visit); });
    }
}

}  // namespace

std::span<const SectionEntry> CameraAndCommandSections() {
    static const std::vector<SectionEntry> sections{
        {"guide_probe",
         {{"vis_img", EntriesUsed::EVERY, MakeGuideProbeImager},
          {"wfs", EntriesUsed::EVERY, Make<WfsLisaInput>}}},
        {"pds",
         {{"vis_img", EntriesUsed::EVERY, Make<ImgMaranaInput>},
          {"wfs", EntriesUsed::EVERY, Make<WfsLisaInput>}}},
        {"ao", {{"wavefront_cmd_stream", EntriesUsed::EVERY, Make<AoWavefrontCmdInput>}}},
    };
    return sections;
}

std::span<const SectionEntry> QudexSections() {
    static const std::vector<SectionEntry> sections{
        {"m4",
         {{"input", EntriesUsed::FIRST, Make<M4Input>},
          {"output", EntriesUsed::FIRST, Make<M4Output>},
          {"feedback", EntriesUsed::FIRST, Make<M4FeedbackInput>}},
         "No M4 configuration found, skipping"},
        {"m5",
         {{"input", EntriesUsed::FIRST, Make<M5Input>}, {"output", EntriesUsed::FIRST, Make<M5Output>}},
         "No M5 configuration found, skipping"},
        {"pfs",
         {{"input", EntriesUsed::FIRST, Make<PfsInput>}, {"output", EntriesUsed::FIRST, Make<PfsOutput>}},
         "No PFS configuration found, skipping"},
        {"ms", {{"output", EntriesUsed::FIRST, Make<MSOutput>}}, "No MS configuration found, skipping"},
        {"ao",
         {{"output", EntriesUsed::FIRST, Make<AoOutput>}, {"ao_tasks", EntriesUsed::FIRST, Make<AoTasks>}},
         "No AO configuration found, skipping"},
        {"ecmwfsim",
         {{"input", EntriesUsed::FIRST, Make<ECMWFSimInput>}},
         "No ECMWFSim configuration found, skipping"},
    };
    return sections;
}

std::span<const SectionEntry> FlowgraphSections() {
    static const std::vector<SectionEntry> sections{
        {"fieldstabilization",
         {{"input", EntriesUsed::FIRST, Make<FieldStabilizationInput>,
           "No FieldStabilization input configuration found, skipping"},
          {"output", EntriesUsed::FIRST, Make<FieldStabilizationOutput>,
           "No FieldStabilization output configuration found, skipping"}},
         "No FieldStabilization configuration found, skipping"},
        {"gpao",
         {{"input", EntriesUsed::FIRST, Make<GpaoInput>, "No GPAO input configuration found, skipping"},
          {"output", EntriesUsed::FIRST, Make<GpaoOutput>, "No GPAO output configuration found, skipping"}},
         "No GPAO configuration found, skipping"},
    };
    return sections;
}

void WalkElements(const PliConfigInstanceNode& cfg, std::span<const SectionEntry> sections,
                  const VisitElement& visit) {
    for (const SectionEntry& section : sections) {
        if (!IsGiven(cfg, section.key)) {
            LogIfAny(section.absent_text);
            continue;
        }
        const PliConfigInstanceNode node = cfg[section.key];
        Attempt(node, [&] { WalkSection(section, node, visit); });
    }
}

}  // namespace vosk::lumo
