#include "configCheck.hpp"

#include "controlSocket.hpp"
#include "hostSettings.hpp"

#include <fmt/format.h>
#include <unistd.h>
#include <lumolib/libMain.hpp>
#include <lumolib/resamplerManager.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/threadTable.hpp>

#include <algorithm>
#include <functional>
#include <map>
#include <optional>

namespace vosk::host {

using lumo::SectionEntry;
using lumo::StreamEntry;
using oru::configng::PliConfigError;
using oru::configng::PliConfigInstanceNode;
using oru::configng::PliConfigKey;

namespace {

constexpr const char* INSTANCE = "cfg";
constexpr const char* HOST = "host";
constexpr const char* STATISTICS = "statistics";
constexpr const char* RESAMPLERS = "resamplers";

// Why no thread can use an element that the library has stored; null if one can.
const char* FaultOfStored(const PliConfigInstanceNode& element) {
    if (element["id"].As<std::string>().empty()) return "no thread can name it: its id is empty";
    const PliConfigInstanceNode definition = element["definition"];
    if (definition.IsSequence() && definition.GetSize() != 0) return nullptr;
    return "no thread can use it: its definition is no sequence of stages";
}

class Check {
public:
    explicit Check(const gim::Config& config) : m_config{config} {}

    std::vector<Problem> Run() {
        const PliConfigInstanceNode& top = m_config.GetDocument()->Instances();
        if (top.Has(HOST)) CheckHost(top[HOST]);
        if (!top.Has(INSTANCE)) {
            Add({top.GetWhere(), INSTANCE, "the document has no such node"});
        } else if (top[INSTANCE].IsMap()) {
            CheckStreams(top[INSTANCE]);
        } else if (top[INSTANCE].GetKind() != oru::configng::PliConfigNodeKind::UNDEFINED) {
            AddFailure(top[INSTANCE], {}, "must be a map");
        }
        AddUnreadKeys();
        return std::move(m_problems);
    }

private:
    void CheckHost(const PliConfigInstanceNode& host) {
        HostSettings settings;
        Try(host, [&] {
            for (const HostKey& entry : HostKeys()) {
                if (host.Has(entry.key)) Try(host[entry.key], [&] { entry.read(host[entry.key], settings); });
            }
        });
        if (settings.control_socket)
            Try(host["control_socket"], [&] { VetSocketPath(*settings.control_socket); });
        if (settings.log_file) Try(host["log_file"], [&] { VetLogFile(*settings.log_file); });
    }

    void CheckStreams(const PliConfigInstanceNode& cfg) {
        // Names of its own in shared memory, so that a running system isn't touched.
        lumo::LibMain library{fmt::format("/vosk_check_{}_", ::getpid())};
        lumo::SetupRegistries(m_config);
        if (cfg.Has(STATISTICS)) CheckStatistics(cfg[STATISTICS]);
        if (cfg.Has(RESAMPLERS)) CheckResamplers(cfg[RESAMPLERS]);
        for (const auto sections :
             {lumo::CameraAndCommandSections(), lumo::QudexSections(), lumo::FlowgraphSections()}) {
            for (const SectionEntry& section : sections) CheckSection(cfg, section);
        }
        m_threads.clear();
    }

    void CheckStatistics(const PliConfigInstanceNode& periods) {
        Try(periods, [&] {
            for (const std::string& name : periods.Keys()) {
                Try(periods[name], [&] { lumo::RuntimeMonitor::EnableStatisticsOf(name, periods[name]); });
            }
        });
    }

    // What the library passes over without a word. The stages themselves are looked into by threads.
    void CheckResamplers(const PliConfigInstanceNode& sequence) {
        if (sequence.GetKind() == oru::configng::PliConfigNodeKind::UNDEFINED) return;  // as if left out
        Try(sequence, [&] {
            lumo::RequireSequence(sequence);
            std::map<std::string, PliConfigInstanceNode> elements;  // by their id
            for (const PliConfigInstanceNode& element : sequence) {
                if (const char* fault = lumo::ResamplerManager::FaultOf(element)) {
                    AddFailure(element, {}, fmt::format("is passed over: it {}", fault));
                    continue;
                }
                m_definitions.push_back(element["definition"].GetPath());
                if (const char* fault = FaultOfStored(element)) AddUseless(element, fault);
                const auto id = element["id"].As<std::string>();
                const auto [earlier, is_first] = elements.try_emplace(id, element);
                if (is_first) continue;
                AddUseless(earlier->second,
                           fmt::format("is passed over: {} has the id {} too", element.GetWhere(), id));
                earlier->second = element;
            }
        });
    }

    void CheckSection(const PliConfigInstanceNode& cfg, const SectionEntry& section) {
        if (!cfg.Has(section.key)) return;
        const PliConfigInstanceNode node = cfg[section.key];
        const auto problems_before = m_problems.size();
        Try(node, [&] {
            for (const StreamEntry& stream : section.streams) {
                if (node.Has(stream.key)) CheckStream(stream, node[stream.key]);
            }
        });
        // A thread that was not made has taken up no resampler.
        if (m_problems.size() > problems_before)
            m_unreached.insert(m_unreached.end(), m_definitions.begin(), m_definitions.end());
    }

    void CheckStream(const StreamEntry& stream, const PliConfigInstanceNode& node) {
        Try(node, [&] {
            lumo::RequireSequence(node);
            if (!stream.make) return AddUnserved(node);
            for (const PliConfigInstanceNode& element : lumo::ElementsUsed(stream, node)) {
                Try(element, [&] { MakeThreads(stream, element); });
            }
        });
    }

    void MakeThreads(const StreamEntry& stream, const PliConfigInstanceNode& element) {
        stream.make(element, [&](std::unique_ptr<lumo::Thread> thread) {
            const auto [place, is_new] = m_threads.try_emplace(thread->GetName(), nullptr);
            place->second = std::move(thread);
            if (!is_new) AddFailure(element, {}, "replaces another thread of the name " + place->first);
        });
    }

    void Try(const PliConfigInstanceNode& node, const std::function<void()>& step) {
        try {
            step();
        } catch (const PliConfigError& error) {
            AddFailure(node, error.Where(), error.what());
        } catch (const std::exception& error) {
            AddFailure(node, {}, error.what());
        }
    }

    void AddFailure(const PliConfigInstanceNode& node, const std::string& where, const std::string& text) {
        m_unreached.push_back(node.GetPath());
        Add({where.empty() ? node.GetWhere() : where, node.GetPath(), text});
    }

    // Of a resampler; nobody looks into its definition.
    void AddUseless(const PliConfigInstanceNode& element, const std::string& text) {
        m_unreached.push_back(element["definition"].GetPath());
        Add({element.GetWhere(), element.GetPath(), text});
    }

    // Its thread would have read the keys below it.
    void AddUnserved(const PliConfigInstanceNode& stream) {
        m_unreached.push_back(stream.GetPath());
        Add({stream.GetWhere(), stream.GetPath(), "no thread of this build serves it", true});
    }

    // A section that two groups of streams share is looked at twice.
    void Add(Problem problem) {
        if (std::find(m_problems.begin(), m_problems.end(), problem) == m_problems.end()) {
            m_problems.push_back(std::move(problem));
        }
    }

    bool MayBeUnreached(const std::string& key) const {
        return std::any_of(m_unreached.begin(), m_unreached.end(), [&](const std::string& path) {
            return key.starts_with(path + ".") || key.starts_with(path + "[") || key == path;
        });
    }

    void AddUnreadKeys() {
        for (const PliConfigKey& key : UnreadKeys(*m_config.GetDocument())) {
            if (MayBeUnreached(key.path)) continue;
            Add({fmt::format("{}:{}", key.file, key.line), key.path, "nothing reads this key"});
        }
    }

    const gim::Config& m_config;
    std::vector<Problem> m_problems;
    std::vector<std::string> m_unreached;    // paths of nodes that weren't read to the end
    std::vector<std::string> m_definitions;  // paths of what the threads may look into
    std::map<std::string, std::unique_ptr<lumo::Thread>> m_threads;  // kept, so that they meet one another
};

}  // namespace

std::vector<Problem> CheckConfig(const gim::Config& config) {
    return Check{config}.Run();
}

std::string ToText(const Problem& problem) {
    return fmt::format("{}: {}: {}{}", problem.where, problem.path, problem.is_note ? "note: " : "",
                       problem.text);
}

}  // namespace vosk::host
