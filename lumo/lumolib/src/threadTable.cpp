#include <lumolib/threadTable.hpp>

#include <lumolib/aoTasks.hpp>
#include <lumolib/aoWavefrontCmdInput.hpp>
#include <lumolib/m4Input.hpp>
#include <lumolib/m4Output.hpp>
#include <vosk/common/logger.hpp>

namespace vosk::lumo {

using oru::configng::PliConfigInstanceNode;

namespace {

template <class T>
void Make(const PliConfigInstanceNode& node, const EnterThread& enter) {
    enter(std::make_unique<T>(node));
}

void LogIfAny(const std::string& text) {
    if (!text.empty()) common::LogTrace("{}", text);
}

}  // namespace

std::span<const SectionEntry> CameraAndCommandSections() {
    static const std::vector<SectionEntry> sections{
        {"guide_probe", {{"vis_img", EntriesUsed::EVERY, {}}, {"wfs", EntriesUsed::EVERY, {}}}},
        {"pds", {{"vis_img", EntriesUsed::EVERY, {}}, {"wfs", EntriesUsed::EVERY, {}}}},
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
         {{"input", EntriesUsed::FIRST, {}}, {"output", EntriesUsed::FIRST, {}}},
         "No M5 configuration found, skipping"},
        {"pfs",
         {{"input", EntriesUsed::FIRST, {}}, {"output", EntriesUsed::FIRST, {}}},
         "No PFS configuration found, skipping"},
        {"ms", {{"output", EntriesUsed::FIRST, {}}}, "No MS configuration found, skipping"},
        {"ao",
         {{"output", EntriesUsed::FIRST, {}}, {"ao_tasks", EntriesUsed::FIRST, Make<AoTasks>}},
         "No AO configuration found, skipping"},
        {"ecmwfsim", {{"input", EntriesUsed::FIRST, {}}}, "No ECMWFSim configuration found, skipping"},
    };
    return sections;
}

std::span<const SectionEntry> FlowgraphSections() {
    static const std::vector<SectionEntry> sections{
        {"fieldstabilization",
         {{"input", EntriesUsed::FIRST, {}, "No FieldStabilization input configuration found, skipping"},
          {"output", EntriesUsed::FIRST, {}, "No FieldStabilization output configuration found, skipping"}},
         "No FieldStabilization configuration found, skipping"},
        {"gpao",
         {{"input", EntriesUsed::FIRST, {}, "No GPAO input configuration found, skipping"},
          {"output", EntriesUsed::FIRST, {}, "No GPAO output configuration found, skipping"}},
         "No GPAO configuration found, skipping"},
    };
    return sections;
}

void RequireSequence(const PliConfigInstanceNode& stream) {
    if (!stream.IsSequence()) common::LogAndThrow("ERR: " + stream.GetPath() + " must be a sequence");
}

void WalkStreams(const PliConfigInstanceNode& cfg, std::span<const SectionEntry> sections,
                 const std::function<void(const StreamEntry&, const PliConfigInstanceNode&)>& visit) {
    for (const SectionEntry& section : sections) {
        if (!cfg.Has(section.key)) {
            LogIfAny(section.absent_text);
            continue;
        }
        const PliConfigInstanceNode section_node = cfg[section.key];
        for (const StreamEntry& stream : section.streams) {
            if (!section_node.Has(stream.key)) {
                LogIfAny(stream.absent_text);
                continue;
            }
            const PliConfigInstanceNode stream_node = section_node[stream.key];
            RequireSequence(stream_node);
            if (stream.make) {
                visit(stream, stream_node);
            } else {
                common::LogWarn("{}: {}: no thread of this build serves it, skipping", stream_node.GetWhere(),
                                stream_node.GetPath());
            }
        }
    }
}

std::vector<PliConfigInstanceNode> ElementsUsed(const StreamEntry& entry,
                                                const PliConfigInstanceNode& stream) {
    RequireSequence(stream);
    if (entry.used == EntriesUsed::FIRST) return {stream[0]};
    return {stream.begin(), stream.end()};
}

}  // namespace vosk::lumo
