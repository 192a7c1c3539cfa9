#include <atomclk/atomClk.hpp>

#include <ctime>

namespace atomclk {

std::atomic<const std::atomic<AtomClk::rep>*> AtomClk::m_manual{nullptr};

AtomClk::time_point AtomClk::now() noexcept {
    if (const auto* manual = m_manual.load(std::memory_order_relaxed); manual != nullptr) [[unlikely]] {
        return time_point{duration{manual->load()}};
    }
    timespec now{};
    ::clock_gettime(CLOCK_TAI, &now);
    return time_point{std::chrono::seconds{now.tv_sec} + std::chrono::nanoseconds{now.tv_nsec}};
}

ManualClock::ManualClock(AtomClk::time_point start) : m_now{start.time_since_epoch().count()} {
    AtomClk::m_manual.store(&m_now);
}

ManualClock::~ManualClock() {
    AtomClk::m_manual.store(nullptr);
}

}  // namespace atomclk
