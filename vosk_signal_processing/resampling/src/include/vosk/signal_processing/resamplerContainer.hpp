#pragma once

// Several resamplers, one behind the other, that look like one.

#include <vosk/common/assert.hpp>
#include <vosk/signal_processing/resampling.hpp>
#include <vosk/signal_processing/waitableResampler.hpp>

#include <algorithm>
#include <memory>
#include <vector>

namespace vosk::signal_processing {

// The chain runs at the pace of its end: a stage that still holds output takes no more input. Age is judged
// in the stages. They belong to the container alone, and its mutex guards them. A waitable stage also has to
// answer the thread that waits for it, and locks its own mutex after the container's.
template <ResamplerSample T>
class ResamplerContainer : public Resampler<T> {
public:
    // A null stage is refused with std::runtime_error. There must be one stage at least before the container
    // is used.
    explicit ResamplerContainer(std::vector<std::unique_ptr<Resampler<T>>> resamplers)
        : m_resamplers{std::move(resamplers)} {
        if (std::find(m_resamplers.begin(), m_resamplers.end(), nullptr) != m_resamplers.end()) {
            common::LogAndThrow("ResamplerContainer: resampler is a nullptr");
        }
        for (const auto& resampler : m_resamplers) {
            if (dynamic_cast<WaitableResampler*>(resampler.get()) == nullptr) {
                resampler->LeaveLockingToOwner();
            }
        }
    }

    bool HasSamples() override {
        const std::lock_guard lock{this->m_mutex};
        PullPushSamples();
        return m_resamplers.back()->HasSamples();
    }

    void AddSample(const T& sample) override {
        const std::lock_guard lock{this->m_mutex};
        VOSK_ASSERT(!m_resamplers.empty());
        m_resamplers.front()->AddSample(sample);
        PullPushSamples();
    }

    std::optional<T> GetSample() override {
        const std::lock_guard lock{this->m_mutex};
        PullPushSamples();
        return m_resamplers.back()->GetSample();
    }

private:
    // From the front, moves what each stage can take from the one before it.
    void PullPushSamples() {
        VOSK_ASSERT(!m_resamplers.empty());
        for (std::size_t i = 1; i < m_resamplers.size(); ++i) {
            Resampler<T>& from = *m_resamplers[i - 1];
            Resampler<T>& to = *m_resamplers[i];
            while (!to.HasSamples() && from.HasSamples()) {
                // Empty if the sample has grown too old since.
                if (const auto sample = from.GetSample()) to.AddSample(*sample);
            }
        }
    }

    const std::vector<std::unique_ptr<Resampler<T>>> m_resamplers;  // called under m_mutex
};

}  // namespace vosk::signal_processing
