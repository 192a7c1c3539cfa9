#include <lumolib/resamplerManager.hpp>

#include <fmt/format.h>
#include <lumolib/utilities.hpp>
#include <vosk/common/logger.hpp>

#include <optional>
#include <utility>

namespace vosk::lumo {

using common::LogAndThrow;
using common::LogDebug;
using common::LogInfo;
using common::LogWarn;
using oru::configng::PliConfigInstanceNode;

namespace {

constexpr const char* DEFAULT_TEXT =
    "\ncfg:\n  resampler:\n    - type: identity\n      name: identity\n      timeout_us: 0\n";

PliConfigInstanceNode DefaultDefinition() {
    gim::Config config;
    config.ParseText(DEFAULT_TEXT, ResamplerManager::DEFAULT_CONFIGURATION);
    return config.GetDocument()->Instances()["cfg"]["resampler"];
}

// The sequence under `key` of the document's `cfg`, if there is one.
std::optional<PliConfigInstanceNode> FindSequence(const gim::Config& config, const std::string& key) {
    if (!config.GetDocument()) return std::nullopt;
    const PliConfigInstanceNode& top = config.GetDocument()->Instances();
    if (!top.Has("cfg") || !top["cfg"].IsMap() || !IsGiven(top["cfg"], key)) return std::nullopt;
    auto value = top["cfg"][key];
    if (value.IsSequence()) return value;
    WarnOf(value, "is passed over, being no sequence");
    return std::nullopt;
}

bool IsDefinition(const PliConfigInstanceNode& element) {
    return element.IsMap() && element.Has("id") && element["id"].IsScalar() && element.Has("definition");
}

}  // namespace

ResamplerManager& ResamplerManager::GetInstance() {
    static ResamplerManager instance;
    return instance;
}

void ResamplerManager::CreateInstance(const gim::Config& config, const std::string& key) {
    ResamplerManager& self = GetInstance();
    self.Reset();
    self.m_configurations.clear();
    self.m_configurations.insert_or_assign(DEFAULT_CONFIGURATION, DefaultDefinition());
    if (const auto sequence = FindSequence(config, key)) {
        self.ReadConfigurations(*sequence);
    } else {
        LogDebug("ResamplerManager: found no resampler configuration");
    }
}

void ResamplerManager::ReadConfigurations(const PliConfigInstanceNode& sequence) {
    for (const auto& element : sequence) {
        if (!IsDefinition(element)) {
            WarnOf(element, "is passed over, being no map of id and definition");
            continue;
        }
        const auto id = element["id"].As<ConfigurationId>();
        LogDebug("ResamplerManager: found resampler configuration: {}", id);
        m_configurations.insert_or_assign(id, element["definition"]);
    }
}

void ResamplerManager::Reset() {
    LogInfo("ResamplerManager::Reset()");
    m_resamplers.clear();
}

std::shared_ptr<ResamplerManager::ResamplerBase> ResamplerManager::GetResampler(const ResamplerId& id) const {
    constexpr long USERS = 3;  // this registry, the producer and the consumer
    const auto found = m_resamplers.find(id);
    if (found == m_resamplers.end()) return nullptr;
    if (found->second.use_count() >= USERS) {
        LogWarn("ResamplerManager: resampler use count > 2 for configuration id: {}, instance id: {}",
                std::get<ConfigurationId>(id), std::get<int>(id));
    }
    return found->second;
}

std::shared_ptr<ResamplerManager::ResamplerBase> ResamplerManager::GetResamplerOrThrow(
    const ResamplerId& id) const {
    if (auto resampler = GetResampler(id)) return resampler;
    LogAndThrow(fmt::format("ResamplerManager: resampler not found: configuration id: {}, instance id: {}",
                            std::get<ConfigurationId>(id), std::get<int>(id)));
}

PliConfigInstanceNode ResamplerManager::GetConfigurationOrThrow(const ConfigurationId& id) const {
    const auto found = m_configurations.find(id);
    if (found == m_configurations.end()) {
        LogAndThrow("ResamplerManager: configuration not found: id: " + id);
    }
    return found->second;
}

std::shared_ptr<ResamplerManager::ResamplerBase> ResamplerManager::RegisterResampler(
    const ResamplerId& id, const std::shared_ptr<ResamplerBase>& resampler) {
    m_resamplers.insert_or_assign(id, resampler);
    return resampler;
}

ResamplerManager::ConfigurationId ResamplerManager::ConfigurationIdOf(const PliConfigInstanceNode& node,
                                                                      const std::string& key) {
    if (!node.IsMap() || !node.Has(key)) return DEFAULT_CONFIGURATION;
    const PliConfigInstanceNode value = node[key];
    if (!value.IsScalar()) return DEFAULT_CONFIGURATION;
    auto id = value.As<ConfigurationId>();
    return id.empty() ? DEFAULT_CONFIGURATION : id;
}

std::shared_ptr<CentroidResampler> GetCentroidResampler(const PliConfigInstanceNode& node,
                                                        defs::Camera camera) {
    constexpr const char* KEY = "cent_err_resampler";
    std::shared_ptr<CentroidResampler> resampler;
    oru::configng::Attempt(node.Has(KEY) ? node[KEY] : node, [&] {
        resampler = ResamplerManager::GetInstance()
                        .GetOrRegisterResampler<defs::CentroidError,
                                                signal_processing::NoDataAccessor<defs::CentroidError>>(
                            node, KEY, static_cast<int>(camera), false);
    });
    return resampler;
}

void Drain(CentroidResampler& resampler) {
    while (resampler.HasSamples()) static_cast<void>(resampler.GetSample());
}

}  // namespace vosk::lumo
