#include <vosk/common/telegraf/telemSender.hpp>

#include <vosk/common/logger.hpp>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace vosk::common::telegraf {

namespace {

constexpr const char* TOPIC = "vosk_telemetry_queue";

std::string WithoutLeadingSlash(const std::string& name) {
    return name.starts_with('/') ? name.substr(1) : name;
}

}  // namespace

std::string TelemSender::m_default_telegraph_host_ip_addr;
int TelemSender::m_default_telegraph_port = 0;

SHMTelemSender::SHMTelemSender() : m_queue{m_shm, TOPIC}, m_message(m_shm.GetQueueSize(TOPIC)) {}

SHMTelemSender::~SHMTelemSender() {
    m_active = false;
}

void SHMTelemSender::Setup(const std::string& tag_set, const std::string& tag, const std::string& extra) {
    m_tag_set = tag_set;
    m_tag = tag;
    m_extra = extra;
    m_source = WithoutLeadingSlash(m_shm.GetPrefix());
    m_active = true;
}

void SHMTelemSender::Send(const std::string& line) {
    if (line.size() > m_message.size()) {
        LogWarn("Telemetry line of {} bytes is dropped, a message holds {}.", line.size(), m_message.size());
        return;
    }
    std::fill(std::copy(line.begin(), line.end(), m_message.begin()), m_message.end(), '\0');
    try {
        m_queue.TrySend(m_message.data());
        m_refusal_told = false;
    } catch (const std::runtime_error& error) {
        if (std::exchange(m_refusal_told, true)) return;
        LogWarn("Telemetry of {} is dropped, its queue is not usable: {}", m_tag, error.what());
    }
}

}  // namespace vosk::common::telegraf
