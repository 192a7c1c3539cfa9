#include "judge/checkThread.hpp"

#include <sched.h>
#include <nodepin/nodepin.hpp>

#include <algorithm>
#include <chrono>
#include <utility>

namespace vosk::rig {

CheckThread::CheckThread(ContentCheck check, const AppendLog<SetpointRecord>& setpoints, SetpointRing& ring)
    : m_check(std::move(check)), m_setpoints(setpoints), m_ring(ring) {}

CheckThread::~CheckThread() {
    Finish();
}

void CheckThread::Start() {
    m_thread = nodepin::MakeThread("Check", {}, [this] { Run(); });
}

void CheckThread::Finish() {
    m_finishing = true;
    if (!m_thread.joinable()) return;
    // Nobody is disturbed any more.
    const sched_param none{};
    pthread_setschedparam(m_thread.native_handle(), SCHED_OTHER, &none);
    m_thread.join();
}

void CheckThread::Run() {
    // While the run lasts it takes only what the peers leave, after it whatever there is. Without the right
    // to either it runs like any other thread, which costs precision but no result.
    const sched_param none{};
    sched_setscheduler(0, SCHED_IDLE, &none);
    bool in_run = true;
    for (;;) {
        const bool finishing = m_finishing;
        if (finishing && std::exchange(in_run, false)) sched_setscheduler(0, SCHED_OTHER, &none);
        if (CheckSome()) continue;
        if (finishing) return;
        std::this_thread::sleep_for(std::chrono::milliseconds{5});
    }
}

bool CheckThread::CheckSome() {
    constexpr std::size_t AT_ONCE = 16;
    const auto setpoints = m_setpoints.Entries();
    const std::size_t first = m_results.size();
    const std::size_t last = std::min(first + AT_ONCE, setpoints.size());
    if (first == last) return false;
    std::vector<ContentCheck::Item> items;
    for (std::size_t i = first; i < last; ++i) {
        const std::size_t slot = setpoints[i].slot;
        items.push_back({i, &setpoints[i], slot == SetpointRecord::NO_SLOT ? nullptr : &m_ring[slot]});
    }
    for (const CheckedSetpoint& result : m_check.Check(items)) {
        m_results.push_back(result);
        if (result.content == Content::Wrong || result.content == Content::NoCommand)
            m_wrong.fetch_add(1, std::memory_order_relaxed);
    }
    for (const ContentCheck::Item& item : items)
        if (item.vector != nullptr) m_ring.GiveBack();
    m_checked.store(m_results.size(), std::memory_order_relaxed);
    return true;
}

}  // namespace vosk::rig
