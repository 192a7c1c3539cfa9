#include "peers/streamPeer.hpp"

#include <nodepin/nodepin.hpp>

#include <algorithm>
#include <utility>

namespace vosk::rig {

using namespace std::chrono_literals;

namespace {

// How often the thread looks whether it is to die, return or stop.
constexpr std::chrono::nanoseconds LOOK_ROUND = 20ms;

}  // namespace

StreamPeer::StreamPeer(std::string name, FieldPeer who, int priority, std::chrono::nanoseconds period,
                       std::chrono::nanoseconds offset)
    : m_name(std::move(name)), m_who(who), m_priority(priority), m_period(period), m_offset(offset) {}

void StreamPeer::Start(time_point first) {
    m_first = first;
    m_running = true;
    m_thread = nodepin::MakeThread(m_name, {{}, {}, m_priority}, [this] { Run(); });
}

void StreamPeer::TakeStep(const StepAction& action) {
    const auto* life = std::get_if<SetFieldPeerAlive>(&action);
    if (life != nullptr && life->peer == m_who) m_wanted_alive = life->alive;
}

void StreamPeer::Stop() {
    m_running = false;
    if (m_thread.joinable()) m_thread.join();
}

void StreamPeer::Run() {
    time_point point = m_first + m_offset;
    while (m_running) {
        LiveOrDie();
        const time_point now = AtomClk::now();
        const time_point next = std::min(point, m_alive ? SendDelayed(now) : point);
        if (now < next) {
            const auto left = std::min<std::chrono::nanoseconds>(next - now, LOOK_ROUND);
            m_alive ? Receive(left) : SleepUntil(now + left);
            continue;
        }
        if (now < point) continue;
        if (m_alive && !m_silent && now - point < m_period) OnGridPoint(point);
        point += m_period;
    }
}

void StreamPeer::LiveOrDie() {
    const bool wanted = m_wanted_alive.load(std::memory_order_relaxed);
    if (wanted == m_alive) return;
    m_alive = wanted;
    if (!wanted) {
        m_absences.Begin(AtomClk::now());
        Die();
        return;
    }
    Return();
    m_absences.End(AtomClk::now());
}

}  // namespace vosk::rig
