#pragma once

// The process-wide registry of the resamplers between two threads: the definitions that the configuration
// names, and one shared instance for each combination of sample type, definition and number. Producer and
// consumer ask for the same combination in their constructors, whichever comes first. Used on the set-up
// thread only, before any worker runs: it has no lock.

#include <gim/config.hpp>
#include <oru/configng/pliConfig.hpp>
#include <vosk/defs/controlMode.hpp>
#include <vosk/defs/valueTypes.hpp>
#include <vosk/signal_processing/resamplingFactory.hpp>

#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <typeindex>
#include <typeinfo>

namespace vosk::lumo {

class ResamplerManager {
public:
    using ResamplerBase = signal_processing::ResamplerBase;
    using ConfigurationId = std::string;
    using ResamplerId = std::tuple<std::type_index, ConfigurationId, int>;  // sample, definition, number

    // The definition of whoever names none: a mailbox in which data never gets too old.
    static constexpr const char* DEFAULT_CONFIGURATION = "default_resampler";

    static ResamplerManager& GetInstance();

    // Forgets all instances and reads the definitions anew: the default one, and those of the sequence `key`
    // below the document's `cfg`, each a map with `id` and `definition`. Other elements are passed over with
    // a WARN; of two definitions of one id the later counts.
    static void CreateInstance(const gim::Config& config, const std::string& key);

    ResamplerManager(const ResamplerManager&) = delete;
    ResamplerManager& operator=(const ResamplerManager&) = delete;

    // Forgets all instances; each lives on with those who hold it.
    void Reset();

    // The instance, or null. Warns where it has two users already.
    std::shared_ptr<ResamplerBase> GetResampler(const ResamplerId& id) const;

    // These two throw std::runtime_error if there is none.
    std::shared_ptr<ResamplerBase> GetResamplerOrThrow(const ResamplerId& id) const;
    oru::configng::PliConfigInstanceNode GetConfigurationOrThrow(const ConfigurationId& id) const;

    // Stores the instance in place of what stood there, and returns it.
    std::shared_ptr<ResamplerBase> RegisterResampler(const ResamplerId& id,
                                                     const std::shared_ptr<ResamplerBase>& resampler);

    // The one resampler for samples T, of this number, by the definition that `node` names under `key`. Made
    // if there is none yet, so that the caller that comes first decides whether it is waitable. Throws what
    // the making throws.
    template <class T, class A>
    std::shared_ptr<signal_processing::Resampler<T>> GetOrRegisterResampler(
        const oru::configng::PliConfigInstanceNode& node, const std::string& key, const int& instance,
        bool waitable) {
        const ResamplerId id{typeid(T), ConfigurationIdOf(node, key), instance};
        auto resampler = GetResampler(id);
        if (!resampler) {
            const auto definition = GetConfigurationOrThrow(std::get<ConfigurationId>(id));
            resampler = RegisterResampler(
                id, signal_processing::factory::CreateResampler<T, A>(definition, waitable));
        }
        return std::static_pointer_cast<signal_processing::Resampler<T>>(std::move(resampler));
    }

private:
    ResamplerManager() = default;

    // The default one's unless the node is a map with a text under the key.
    static ConfigurationId ConfigurationIdOf(const oru::configng::PliConfigInstanceNode& node,
                                             const std::string& key);
    void ReadConfigurations(const oru::configng::PliConfigInstanceNode& sequence);

    std::map<ConfigurationId, oru::configng::PliConfigInstanceNode> m_configurations;
    std::map<ResamplerId, std::shared_ptr<ResamplerBase>> m_resamplers;
};

using CentroidResampler = signal_processing::Resampler<defs::CentroidError>;

// Of the camera's centroid errors, by the key `cent_err_resampler`; noted under a review if there is none.
std::shared_ptr<CentroidResampler> GetCentroidResampler(const oru::configng::PliConfigInstanceNode& node,
                                                        defs::Camera camera);
// Before a run: results of a former one are no news.
void Drain(CentroidResampler& resampler);

}  // namespace vosk::lumo
