#include "peers/streamPeer.hpp"

#include <nodepin/nodepin.hpp>

#include <algorithm>
#include <utility>

namespace vosk::rig {

using namespace std::chrono_literals;

StreamPeer::StreamPeer(std::string name, int priority, std::chrono::nanoseconds period,
                       std::chrono::nanoseconds offset)
    : m_name(std::move(name)), m_priority(priority), m_period(period), m_offset(offset) {}

void StreamPeer::Start(time_point first) {
    m_first = first;
    m_running = true;
    m_thread = nodepin::MakeThread(m_name, {{}, {}, m_priority}, [this] { Run(); });
}

void StreamPeer::Stop() {
    m_running = false;
    if (m_thread.joinable()) m_thread.join();
}

void StreamPeer::Run() {
    time_point point = m_first + m_offset;
    while (m_running) {
        const time_point now = AtomClk::now();
        if (now < point) {
            // A stop is noticed after this at the latest.
            Receive(std::min<std::chrono::nanoseconds>(point - now, 20ms));
            continue;
        }
        if (!m_silent && now - point < m_period) OnGridPoint(point);
        point += m_period;
    }
}

}  // namespace vosk::rig
