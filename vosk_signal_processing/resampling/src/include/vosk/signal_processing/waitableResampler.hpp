#pragma once

// A resampler that its consumer can sleep on.

#include <vosk/common/waitSynchronizer.hpp>
#include <vosk/signal_processing/resampling.hpp>

#include <utility>

namespace vosk::signal_processing {

// The wait side. It has a synchroniser of its own, which sleeps, until the consumer replaces it. There is no
// ready flag: whether data is ready is asked of the resampler, so that the two can't disagree.
class WaitableResampler : public common::WaitSynchronizerFlagBase {
protected:
    WaitableResampler() : WaitSynchronizerFlagBase{false} {}
};

// Any resampler, made waitable. Notifies after the resampler's mutex is released, so that a woken consumer
// does not run into the producer's lock.
template <class R>
class WaitableResamplerImplementation final : public R, public WaitableResampler {
public:
    using Sample = typename R::Sample;

    // The arguments of R.
    template <class... Args>
    explicit WaitableResamplerImplementation(Args&&... args) : R(std::forward<Args>(args)...) {}
    // No waiter may look at a resampler of which a part is gone.
    ~WaitableResamplerImplementation() override { Unregister(); }

    void AddSample(const Sample& sample) override {
        R::AddSample(sample);
        SetDataReady();
    }

    std::optional<Sample> GetSample() override {
        const auto sample = R::GetSample();
        ClearDataReady();
        return sample;
    }

    bool IsDataReady() override { return this->HasSamples(); }
};

}  // namespace vosk::signal_processing
