#include <vosk/common/telegraf/telemSender.hpp>

#include <vosk/common/logger.hpp>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace vosk::common::telegraf {

namespace {

constexpr const char* TOPIC = "vosk_telemetry_queue";
// The millisecond that a lock costs which somebody holds is not paid for each line of a burst.
constexpr std::chrono::milliseconds REFUSED_PAUSE{100};

std::string WithoutLeadingSlash(const std::string& name) {
    return name.starts_with('/') ? name.substr(1) : name;
}

}  // namespace

std::string TelemSender::m_default_telegraph_host_ip_addr;
int TelemSender::m_default_telegraph_port = 0;

void SHMTelemSender::Setup(const std::string& tag_set, const std::string& tag, const std::string& extra) try {
    m_tag_set = tag_set;
    m_tag = tag;
    m_extra = extra;
    m_source = WithoutLeadingSlash(m_shm.GetPrefix());
    m_message.resize(m_shm.GetQueueSize(TOPIC));
    m_queue.emplace(m_shm, TOPIC);
} catch (const std::runtime_error& error) {
    LogWarn("Telemetry of {} is off. {}", tag, error.what());
}

void SHMTelemSender::Send(const std::string& line) {
    if (!m_queue) return;
    if (line.size() > m_message.size()) {
        LogWarn("Telemetry line of {} bytes is dropped, a message holds {}.", line.size(), m_message.size());
        return;
    }
    if (m_refused_lines > 0 && std::chrono::steady_clock::now() < m_next_try) {
        ++m_refused_lines;
        return;
    }
    std::fill(std::copy(line.begin(), line.end(), m_message.begin()), m_message.end(), '\0');
    try {
        m_queue->TrySend(m_message.data());
    } catch (const std::runtime_error& error) {
        m_next_try = std::chrono::steady_clock::now() + REFUSED_PAUSE;
        if (m_refused_lines++ == 0) LogWarn("Telemetry of {} is dropped. {}", m_tag, error.what());
        return;
    }
    if (m_refused_lines == 0) return;
    LogInfo("Telemetry of {} goes out again, {} lines were dropped.", m_tag,
            std::exchange(m_refused_lines, 0));
}

}  // namespace vosk::common::telegraf
