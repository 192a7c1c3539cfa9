#pragma once

// Starts the process of a flowgraph, kills it and starts it again as the scenario says, and keeps what it
// wrote down in all its lives.

#include "peers/absences.hpp"
#include "peers/flowgraphProcess.hpp"
#include "peers/peer.hpp"

#include <pktwire/udpSocket.hpp>

#include <sys/types.h>
#include <cstddef>
#include <string>
#include <vector>

namespace vosk::rig {

// What one flowgraph has of its own.
struct FlowgraphPart {
    FlowgraphKind kind = FlowgraphKind::FieldStabilisation;
    std::size_t record_size = 0;  // of its FlowgraphRecord
    std::chrono::nanoseconds period{0};
    std::vector<std::string> law;  // options of the process
    // The group of the host's document, and the text of its elements `input` and `output`.
    std::string group;
    std::string input;
    std::string output;
    // In the report; and as the host counts them, if it does.
    struct Streams {
        std::string name;
        std::string host_name;
    };
    Streams from_host;
    Streams to_host;
};

FlowgraphPart FieldFlowgraphPart(const Scenario& scenario);

class Flowgraph final : public Peer {
public:
    // Throws std::runtime_error if there is no memory for its log.
    Flowgraph(const Scenario& scenario, FlowgraphPart part);
    ~Flowgraph() override { Kill(); }

    void AddTo(HostDocument& document) const override;
    void Start(time_point first) override;
    void TakeStep(const StepAction& action) override;
    void FallSilent() override;
    void Stop() override {}
    PeerAccount Account(const RunFacts& facts) const override;

    // In order of time, of the kind that the part names. After FallSilent().
    template <class Record>
    std::vector<Record> Records() const {
        std::vector<Record> records(LogSize() / sizeof(Record));
        ReadLog(0, records.data(), records.size() * sizeof(Record));
        return records;
    }
    const Absences& GetAbsences() const { return m_absences; }
    time_point SilentSince() const { return m_silent_since; }

private:
    void Spawn();
    void Kill();
    std::size_t LogSize() const;
    void ReadLog(std::size_t place, void* data, std::size_t size) const;

    const Scenario& m_scenario;
    const FlowgraphPart m_part;
    pktwire::detail::FileDescriptor m_log;  // a file in memory, which the process appends to
    pid_t m_pid = -1;
    std::uint32_t m_lives = 0;
    Absences m_absences;
    time_point m_silent_since = time_point::max();
};

}  // namespace vosk::rig
