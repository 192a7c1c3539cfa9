#pragma once

// The bases of the receiving threads, one for each protocol. They own the loop, the receive buffer and the
// account of what came; a stream brings its record and OnSample. One cycle waits for one sample, stamps it
// and tells the stream. A time-out is silent: it only lets the thread see its run flag. The receiver is
// restarted before the start handshake, so that nothing of a former run is received. Nothing here allocates.

#include <lumolib/lumoRxTx.hpp>
#include <lumolib/lumoThread.hpp>
#include <lumolib/streamState.hpp>

#include <log4cplus/loglevel.h>
#include <vosk/common/logger.hpp>

#include <cstdint>
#include <future>
#include <initializer_list>
#include <memory>
#include <string>
#include <system_error>

namespace vosk::lumo {

// What a stream reports of its receiver: a line of the log for each failed call, and its counts.
struct InputAccount {
    log4cplus::LogLevel level;                // of the line
    std::string text;                         // of the line, before the reason
    std::shared_ptr<InputStreamState> state;  // null: the stream counts nothing

    void LogError(const std::error_code& error) const {
        if (common::GetLogger().isEnabledFor(level)) common::Log(level, "{}{}", text, error.message());
    }
    void RecordValid(time_point now) const {
        if (state) state->RecordValidSample(now);
    }
    void RecordInvalid(time_point now) const {
        if (state) state->RecordInvalidSample(now);
    }
    // Not after a time-out: a thread that polls would ask the kernel each time. `cut_short` are samples that
    // are neither valid nor invalid, though packets of them came.
    template <class Receiver>
    void RecordLosses(const Receiver& receiver, std::uint64_t cut_short = 0) const {
        if (!state) return;
        const auto met = receiver.GetCounters();
        state->SetLosses({met.missed + cut_short, met.dropped, met.stale});
    }
};

// Whether these values of a sample can go on, as floats: others would spread through whatever computes with
// them. A WARN says if they can't.
bool CanGoOn(std::initializer_list<double> values, const std::string& stream, defs::sample_id_t id);

// Receives samples of one record.
template <class Payload>
class QudexInput : public RxThread, public RxQudex {
public:
    // `num_frames` is the default of the key.
    QudexInput(const std::string& name, const oru::configng::PliConfigInstanceNode& node,
               std::uint16_t num_frames, InputAccount account)
        : RxThread{name, node, "", std::chrono::microseconds{0}},
          RxQudex{node, {}, Defaults(num_frames), MemoryResource(), m_description},
          m_account{std::move(account)},
          m_payload{std::make_unique<Payload>()} {}

protected:
    // A whole sample. SampleId() and Timestamp() of its first packet are those of the sample. It counts as
    // valid afterwards.
    virtual void OnSample(const Payload& payload, const pktwire::qudex::Packet& first, time_point now) = 0;

    // Before the start handshake.
    virtual void OnStart() {}

    void Work(std::promise<void>& started) final {
        *m_payload = Payload{};
        m_receiver->Restart();
        OnStart();
        started.set_value();
        while (IsRunning()) RunCycle();
    }

    void RunCycle() {
        const auto [error, sample] =
            m_receiver->ReceiveSample(gsl::as_writable_bytes(gsl::span{m_payload.get(), 1}), m_timeout);
        if (error == std::errc::timed_out) return;
        const auto now = atomclk::AtomClk::now();
        if (error) {
            m_account.LogError(error);
            m_account.RecordInvalid(now);
        } else if (sample) {
            OnSample(*m_payload, *sample->first, now);
            m_account.RecordValid(now);
        } else {
            m_account.RecordInvalid(now);
        }
        m_account.RecordLosses(*m_receiver);
    }

private:
    static pktwire::qudex::Receiver::Config Defaults(std::uint16_t num_frames) {
        pktwire::qudex::Receiver::Config config{};
        config.num_frames = num_frames;
        return config;
    }

    const InputAccount m_account;
    const std::unique_ptr<Payload> m_payload;  // worker thread only
};

// Receives LSPX samples into where Receive() puts them.
class LspxInput : public RxThread, public RxLspx {
public:
    LspxInput(const std::string& name, const oru::configng::PliConfigInstanceNode& node,
              const pktwire::UdpRxSocket::Config& udp, const pktwire::qudex::Receiver::Config& qudex,
              const pktwire::lspx::Receiver::Config& lspx, InputAccount account);

protected:
    using Leader = pktwire::lspx::Receiver::LeaderPacket;
    using Trailer = pktwire::lspx::Receiver::TrailerPacket;
    using Received = std::pair<std::error_code, pktwire::lspx::Receiver::Sample>;

    // One receive call of at most m_timeout.
    virtual Received Receive() = 0;
    // A whole sample; its stream counts it as valid or not. The packets go back afterwards, the trailer
    // first.
    virtual void OnSample(const Leader& leader, const Trailer& trailer, time_point now) = 0;
    // Leader or trailer is absent.
    virtual void OnNothing(time_point now) { m_account.RecordInvalid(now); }

    // Refuses keys with which the buffers, which have one form, would be filled wrongly or not at all:
    // samples of two packets, units that aren't little-endian or of another size, another size of the
    // leader's information, any of the trailer's.
    void RequireForm(const oru::configng::PliConfigInstanceNode& node, std::size_t data_unit_size,
                     std::size_t leader_info_size) const;

    void Work(std::promise<void>& started) override;
    void RunCycle();

    const InputAccount m_account;
    std::uint64_t m_cut_short = 0;  // samples that a time-out ended; worker thread only
};

}  // namespace vosk::lumo
