#pragma once

// One cycle of a receiving thread, for each of the two protocols: wait for one sample, stamp it, tell the
// stream what came. A thread's Work() calls it while the thread is to run; a test calls it once. A time-out
// is silent: it only lets the thread see its run flag. The packets are given back when the cycle ends.
// Nothing here allocates.
//
// A stream brings three functions, called on the receiving thread with `now`, the time of reception:
//   on_error(error, now)    a sample was lost, or the socket failed
//   on_sample(..., now)     a whole sample is in the buffers; its packets are valid during the call
//   on_nothing(now)         neither: the receiver came back without an error and without a whole sample
// Receivers are those of pktwire, or a test's own with the same ReceiveSample().
//
// A thread restarts its receiver before its start handshake: nothing of a former run is received.

#include <atomclk/atomClk.hpp>
#include <gsl/span>

#include <chrono>
#include <cstddef>
#include <system_error>

namespace vosk::lumo {

// on_sample(first_packet, now): SampleId() and Timestamp() are those of the sample, which fills `buffer`.
template <class Receiver, class OnError, class OnSample, class OnNothing>
void ReceiveQudexOnce(Receiver& receiver, gsl::span<std::byte> buffer, std::chrono::nanoseconds timeout,
                      OnError&& on_error, OnSample&& on_sample, OnNothing&& on_nothing) {
    const auto [error, sample] = receiver.ReceiveSample(buffer, timeout);
    const auto now = atomclk::AtomClk::now();
    if (error) {
        if (error != std::errc::timed_out) on_error(error, now);
    } else if (sample) {
        on_sample(*sample->first, now);
    } else {
        on_nothing(now);
    }
}

// on_sample(leader, trailer, now): leader.NumUnits() tells how much of `payload` the sample fills.
template <class Receiver, class OnError, class OnSample, class OnNothing>
void ReceiveLspxOnce(Receiver& receiver, gsl::span<std::byte> leader_info, gsl::span<std::byte> payload,
                     std::chrono::nanoseconds timeout, OnError&& on_error, OnSample&& on_sample,
                     OnNothing&& on_nothing) {
    const auto [error, sample] = receiver.ReceiveSample(leader_info, payload, {}, timeout);
    const auto now = atomclk::AtomClk::now();
    if (error) {
        if (error != std::errc::timed_out) on_error(error, now);
    } else if (sample.leader && sample.trailer) {
        on_sample(*sample.leader, *sample.trailer, now);
    } else {
        on_nothing(now);
    }
}

// Copies the receiver's losses to the stream's figures: after a sample or an error, not after a time-out, as
// a thread that polls would ask the kernel each time.
template <class Receiver, class State>
void ReportLosses(const Receiver& receiver, State& state) {
    const auto met = receiver.GetCounters();
    state.SetLosses({met.missed, met.dropped, met.stale});
}

}  // namespace vosk::lumo
