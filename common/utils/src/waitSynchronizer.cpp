#include <vosk/common/waitSynchronizer.hpp>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <utility>

namespace vosk::common {

namespace {

using atomclk::AtomClk;
using SteadyClock = std::chrono::steady_clock;

// Longest time until a sleeping Wait sees a stop, or a notification that fell between its test and its sleep.
constexpr std::chrono::microseconds WAIT_SLICE{500};

// Longest single sleep towards a deadline: until a stop, or a clock that was set, is seen.
constexpr std::chrono::milliseconds MAX_SLEEP{10};

constexpr std::size_t RESERVED_FLAGS = 8;

template <class Done>
bool Spin(Done done, const int& running) {
    if (!IsRunning(running)) return false;
    while (!done()) {
        if (!IsRunning(running)) return false;
    }
    return IsRunning(running);
}

// Whether a wait for `time` is over. A clock that is set back during the wait ends it too: the time would
// come long after it was meant.
class TimeTest {
public:
    explicit TimeTest(AtomClk::time_point time) : m_time{time} {}

    bool IsOver(AtomClk::time_point now) {
        const auto before = std::exchange(m_last, now);
        return now >= m_time || atomclk::WasSetBack(before, now);
    }

private:
    const AtomClk::time_point m_time;
    AtomClk::time_point m_last = AtomClk::now();
};

// When to look again for `time`, which is later than `now`.
SteadyClock::time_point OnSteadyClock(AtomClk::time_point time, AtomClk::time_point now) {
    // Unsigned: between the ends of the clock's range lies more than its own count holds.
    const auto left = static_cast<std::uint64_t>(time.time_since_epoch().count()) -
                      static_cast<std::uint64_t>(now.time_since_epoch().count());
    constexpr auto LONGEST = static_cast<std::uint64_t>(AtomClk::duration{MAX_SLEEP}.count());
    return SteadyClock::now() + AtomClk::duration{static_cast<AtomClk::rep>(std::min(left, LONGEST))};
}

}  // namespace

WaitSynchronizer::WaitSynchronizer() {
    m_flags.reserve(RESERVED_FLAGS);
}

bool WaitSynchronizer::IsAnyFlagReady() {
    const std::lock_guard lock{m_flags_mutex};
    return std::any_of(m_flags.begin(), m_flags.end(), [](auto* flag) { return flag->IsDataReady(); });
}

bool WaitSynchronizer::IsAnyFlagNotReady() {
    const std::lock_guard lock{m_flags_mutex};
    return std::any_of(m_flags.begin(), m_flags.end(), [](auto* flag) { return !flag->IsDataReady(); });
}

bool WaitSynchronizer::SeesAnyFlag(bool ready) {
    const std::unique_lock lock{m_flags_mutex, std::try_to_lock};
    return lock && std::any_of(m_flags.begin(), m_flags.end(),
                               [ready](auto* flag) { return flag->IsDataReady() == ready; });
}

void WaitSynchronizer::RegisterFlag(WaitSynchronizerFlagBase& flag) {
    const std::lock_guard lock{m_flags_mutex};
    m_flags.push_back(&flag);
}

void WaitSynchronizer::UnregisterFlag(WaitSynchronizerFlagBase& flag) {
    const std::lock_guard lock{m_flags_mutex};
    std::erase(m_flags, &flag);
}

bool BusyWaitSynchronizer::Wait(const int& running) {
    return Spin([this] { return SeesAnyFlag(true); }, running);
}

bool BusyWaitSynchronizer::WaitUntil(const AtomClk::time_point& time, const int& running) {
    return Spin(
        [this, test = TimeTest{time}]() mutable { return SeesAnyFlag(true) || test.IsOver(AtomClk::now()); },
        running);
}

bool BusyWaitSynchronizer::WaitForNotReady(const int& running) {
    return Spin([this] { return SeesAnyFlag(false); }, running);
}

bool BusyWaitSynchronizer::WaitForNotReadyUntil(const AtomClk::time_point& time, const int& running) {
    return Spin(
        [this, test = TimeTest{time}]() mutable { return SeesAnyFlag(false) || test.IsOver(AtomClk::now()); },
        running);
}

bool CVSynchronizer::WaitFor(FlagTest done, const int& running) {
    std::unique_lock lock{m_cv_mutex};
    while (IsRunning(running) && !(this->*done)()) m_cv.wait_for(lock, WAIT_SLICE);
    return IsRunning(running);
}

bool CVSynchronizer::WaitForUntil(FlagTest done, const AtomClk::time_point& time, const int& running) {
    std::unique_lock lock{m_cv_mutex};
    TimeTest test{time};
    while (true) {
        if (!IsRunning(running)) return false;
        if ((this->*done)()) return IsRunning(running);
        const AtomClk::time_point now = AtomClk::now();
        if (test.IsOver(now)) return IsRunning(running);
        // Translated in each pass: the two clocks drift apart, and AtomClk may be set.
        m_cv.wait_until(lock, OnSteadyClock(time, now));
    }
}

bool CVSynchronizer::Wait(const int& running) {
    return WaitFor(&WaitSynchronizer::IsAnyFlagReady, running);
}

bool CVSynchronizer::WaitUntil(const AtomClk::time_point& time, const int& running) {
    return WaitForUntil(&WaitSynchronizer::IsAnyFlagReady, time, running);
}

bool CVSynchronizer::WaitForNotReady(const int& running) {
    return WaitFor(&WaitSynchronizer::IsAnyFlagNotReady, running);
}

bool CVSynchronizer::WaitForNotReadyUntil(const AtomClk::time_point& time, const int& running) {
    return WaitForUntil(&WaitSynchronizer::IsAnyFlagNotReady, time, running);
}

std::shared_ptr<WaitSynchronizer> MakeWaitSynchronizer(bool busy) {
    if (busy) return std::make_shared<BusyWaitSynchronizer>();
    return std::make_shared<CVSynchronizer>();
}

WaitSynchronizerFlagBase::WaitSynchronizerFlagBase(std::shared_ptr<WaitSynchronizer> synchronizer,
                                                   RegisterLater)
    : m_synchronizer{std::move(synchronizer)} {
    if (!m_synchronizer)
        throw std::invalid_argument{"WaitSynchronizerFlagBase: synchronizer cannot be nullptr"};
}

WaitSynchronizerFlagBase::WaitSynchronizerFlagBase(std::shared_ptr<WaitSynchronizer> synchronizer)
    : WaitSynchronizerFlagBase{std::move(synchronizer), RegisterLater{}} {
    Register();
}

WaitSynchronizerFlagBase::WaitSynchronizerFlagBase(bool busy)
    : WaitSynchronizerFlagBase{MakeWaitSynchronizer(busy)} {}

WaitSynchronizerFlagBase::~WaitSynchronizerFlagBase() {
    Unregister();
}

void WaitSynchronizerFlagBase::SetDataReady() {
    m_synchronizer->Notify();
}

void WaitSynchronizerFlagBase::ClearDataReady() {
    m_synchronizer->Notify();
}

void WaitSynchronizerFlagBase::ReplaceSynchronizer(std::shared_ptr<WaitSynchronizer> synchronizer) {
    if (!synchronizer)
        throw std::invalid_argument{"WaitSynchronizerFlagBase: synchronizer cannot be nullptr"};
    Unregister();
    m_synchronizer = std::move(synchronizer);
    Register();
}

WaitSynchronizerFlag::WaitSynchronizerFlag(std::shared_ptr<WaitSynchronizer> synchronizer)
    : WaitSynchronizerFlagBase{std::move(synchronizer), RegisterLater{}} {
    Register();
}

WaitSynchronizerFlag::WaitSynchronizerFlag(bool busy) : WaitSynchronizerFlag{MakeWaitSynchronizer(busy)} {}

WaitSynchronizerFlag::~WaitSynchronizerFlag() {
    Unregister();
}

void WaitSynchronizerFlag::SetDataReady() {
    m_data_ready.store(true);
    WaitSynchronizerFlagBase::SetDataReady();
}

void WaitSynchronizerFlag::ClearDataReady() {
    // A reader clears the flag before it looks at the data; were it to look first, a record written in
    // between would be neither read nor waited for.
    m_data_ready.store(false);
    WaitSynchronizerFlagBase::ClearDataReady();
}

}  // namespace vosk::common
