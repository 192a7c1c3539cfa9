#include "clock.hpp"

#include <cerrno>
#include <ctime>

namespace vosk::rig {

void SleepUntil(time_point time) {
    const auto count = time.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(count);
    const timespec until{seconds.count(), (count - seconds).count()};
    while (clock_nanosleep(CLOCK_TAI, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

double MicrosecondsOf(std::chrono::nanoseconds duration) {
    return std::chrono::duration<double, std::micro>(duration).count();
}

}  // namespace vosk::rig
