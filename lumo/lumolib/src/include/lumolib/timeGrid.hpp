#pragma once

// The points at which a thread on a grid works, one interval after the other. The grid is anchored at the
// clock's epoch, and a late cycle never shifts it. After a clock that was set, or a stall, points are
// skipped: a thread that made up for each of them would flood its peers. Worker thread only; allocates
// nothing.

#include <lumolib/lumoThread.hpp>

#include <atomclk/atomClk.hpp>

#include <chrono>
#include <cstdint>

namespace vosk::lumo {

class TimeGrid {
public:
    using time_point = atomclk::AtomClk::time_point;

    // The first point at or after `now`. `interval` is positive.
    TimeGrid(std::chrono::microseconds interval, std::chrono::microseconds offset, time_point now)
        : m_interval{interval}, m_offset{offset}, m_point{CeilToNextInterval(now, interval, offset)} {}

    time_point Point() const { return m_point; }

    // To the next point. If it lies more than 100 intervals back, or the clock was set back, to the first
    // point at or after `now`. Gives the number of points skipped.
    std::uint64_t Advance(time_point now) {
        m_point += m_interval;
        const bool is_far_behind = now - m_point > MOST_BEHIND * m_interval;
        if (!is_far_behind && !WasSetBack(m_point - m_interval, now)) return 0;
        const auto skipped_from = m_point;
        m_point = CeilToNextInterval(now, m_interval, m_offset);
        return is_far_behind ? static_cast<std::uint64_t>((m_point - skipped_from) / m_interval) : 0;
    }

private:
    static constexpr int MOST_BEHIND = 100;

    std::chrono::microseconds m_interval;
    std::chrono::microseconds m_offset;
    time_point m_point;
};

}  // namespace vosk::lumo
