#pragma once

// The one clock of the system: TAI, as a signed 64-bit count of nanoseconds since 1970-01-01 TAI.
// Any thread may read it at any time, at the cost of one clock read. A count of 0 means "no time given".
// Tests put a ManualClock in its place.

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace atomclk {

class AtomClk {
public:
    using rep = std::int64_t;
    using period = std::nano;
    using duration = std::chrono::nanoseconds;
    using time_point = std::chrono::time_point<AtomClk, duration>;
    static constexpr bool is_steady = false;

    static time_point now() noexcept;

private:
    friend class ManualClock;
    // Null in normal running. Relaxed: a test sets it before it starts the threads that read it.
    static std::atomic<const std::atomic<rep>*> m_manual;
};

// Whether the clock was set back between two readings, the first of them `earlier`. TAI only goes forward,
// but a daemon may reset the kernel's offset; what slewing does stays far below the second that is allowed
// here.
constexpr bool WasSetBack(AtomClk::time_point earlier, AtomClk::time_point now) noexcept {
    return now < earlier - std::chrono::seconds{1};
}

// While it lives, AtomClk::now() gives the time set here. For tests; one at a time.
class ManualClock {
public:
    explicit ManualClock(AtomClk::time_point start);
    ~ManualClock();
    ManualClock(const ManualClock&) = delete;
    ManualClock& operator=(const ManualClock&) = delete;

    void Set(AtomClk::time_point time) noexcept { m_now.store(time.time_since_epoch().count()); }
    void Advance(AtomClk::duration step) noexcept { m_now.fetch_add(step.count()); }

private:
    std::atomic<AtomClk::rep> m_now;
};

namespace detail {

// The form of a time point on the wire: 8 bytes, the nanosecond count, big-endian, at any alignment.
// Level is the version of the form; 0 is the only one.
template <int Level>
class TransportTimepoint {
    static_assert(Level == 0, "there is one transport form");

public:
    constexpr TransportTimepoint() noexcept = default;
    constexpr TransportTimepoint(AtomClk::time_point time) noexcept { Store(time); }
    constexpr TransportTimepoint& operator=(AtomClk::time_point time) noexcept {
        Store(time);
        return *this;
    }

    constexpr operator AtomClk::time_point() const noexcept {
        std::uint64_t count = 0;
        for (std::byte byte : m_bytes) count = (count << 8U) | std::to_integer<std::uint64_t>(byte);
        return AtomClk::time_point{AtomClk::duration{static_cast<AtomClk::rep>(count)}};
    }

private:
    constexpr void Store(AtomClk::time_point time) noexcept {
        auto count = static_cast<std::uint64_t>(time.time_since_epoch().count());
        for (std::size_t i = m_bytes.size(); i-- > 0; count >>= 8U)
            m_bytes[i] = static_cast<std::byte>(count);
    }

    std::array<std::byte, 8> m_bytes{};
};

static_assert(sizeof(TransportTimepoint<0>) == 8 && alignof(TransportTimepoint<0>) == 1);

}  // namespace detail
}  // namespace atomclk
