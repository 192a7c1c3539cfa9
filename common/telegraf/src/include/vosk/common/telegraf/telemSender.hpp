#pragma once

// Scalar performance figures on their way to a metrics collector: each becomes one line of text of its line
// protocol, handed to a shared-memory queue that another process drains. A sender belongs to one worker
// thread, which records a point on thinned samples only, after its work is done: formatting allocates.

#include <vosk/common/shmif/shmBoost.hpp>
#include <vosk/common/shmif/shmIf.hpp>

#include <chrono>
#include <cstdint>
#include <locale>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace vosk::common::telegraf {

// The format. A point of a sender that isn't set up goes nowhere, at no cost.
class TelemSender {
public:
    virtual bool IsSetup() const = 0;

    // Waits for no room.
    virtual void Send(const std::string& line) = 0;

    // Formats and sends "<field_set>=<value>" under the tag. Throws std::invalid_argument for an empty text.
    template <class T>
    void RecordPoint(const std::string& tag_set, const std::string& tag, const std::string& field_set,
                     const T& value);

    template <class T>
    void BuildLineProtocol(std::string& line, const std::string& tag_set, const std::string& tag,
                           const std::string& field_set, const T& value);

    // The collector's agent. A thread sets its sender up only if the address isn't empty and the port is
    // above 0; the host application sets both before it makes the threads.
    static std::string m_default_telegraph_host_ip_addr;
    static int m_default_telegraph_port;
    static bool HasCollector() {
        return !m_default_telegraph_host_ip_addr.empty() && m_default_telegraph_port > 0;
    }

    // Set at set-up, constant afterwards.
    std::string m_tag_set;
    std::string m_tag;
    std::string m_extra;
    std::string m_source;  // which system on this machine speaks

protected:
    ~TelemSender() = default;
};

// Sends through the topic "vosk_telemetry_queue".
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): final, and its base can't be deleted through
class SHMTelemSender final : public TelemSender {
public:
    SHMTelemSender() = default;
    SHMTelemSender(const SHMTelemSender&) = delete;
    SHMTelemSender& operator=(const SHMTelemSender&) = delete;
    ~SHMTelemSender() = default;

    // Opens the queue: a sender that isn't set up touches none. One that is refused costs the telemetry, with
    // a WARN, and no start. Tag key and tag value of each line; `extra` is kept and has no place in the line.
    // The source is the shared-memory prefix, by which two systems on one machine differ.
    void Setup(const std::string& tag_set, const std::string& tag, const std::string& extra);

    bool IsSetup() const override { return m_queue.has_value(); }

    // A line fills one message from its start, the rest zero. A line that is too long is dropped with a WARN,
    // and one for which the queue has no room is dropped without. A queue that refuses a line costs all lines
    // of the next 100 ms, with one WARN until a line gets through again and their count then. Waits a
    // millisecond at most, once in 100, and only while somebody holds the queue's lock.
    void Send(const std::string& line) override;

private:
    shmif::ShmIf m_shm;
    std::optional<shmif::ShmWriterBoost> m_queue;  // since a Setup that opened it
    std::uint64_t m_refused_lines = 0;             // since the last that got through
    std::chrono::steady_clock::time_point m_next_try{};
    std::vector<char> m_message;  // of the topic's size
};

template <class T>
void TelemSender::RecordPoint(const std::string& tag_set, const std::string& tag,
                              const std::string& field_set, const T& value) {
    if (!IsSetup()) return;
    std::string line;
    BuildLineProtocol(line, tag_set, tag, field_set, value);
    Send(line);
}

template <class T>
void TelemSender::BuildLineProtocol(std::string& line, const std::string& tag_set, const std::string& tag,
                                    const std::string& field_set, const T& value) {
    if (tag_set.empty() || tag.empty() || field_set.empty()) {
        throw std::invalid_argument{"tag_set, tag or field_set empty"};
    }
    std::stringstream text;
    text.imbue(std::locale::classic());  // a decimal comma would break the protocol
    text << "/oru/cs/vosk(" << m_source << ")," << tag_set << "=" << tag << " " << field_set << "=";
    text.precision(16);
    text << value;
    line = text.str();
}

}  // namespace vosk::common::telegraf
