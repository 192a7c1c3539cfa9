#include <vosk/common/timeString.hpp>

#include <ctime>

#include <fmt/format.h>

#include <cstdint>

namespace vosk::lumo {

std::string GetTimeString(atomclk::AtomClk::time_point time) {
    const std::int64_t ns = time.time_since_epoch().count();
    const std::int64_t s = ns / 1'000'000'000;
    const std::int64_t us = ns / 1'000 - s * 1'000'000;
    const time_t seconds = s;
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    return fmt::format("{:02}:{:02}:{:02}.{:06}", utc.tm_hour, utc.tm_min, utc.tm_sec, us);
}

std::string GetTimeString(std::chrono::nanoseconds duration) {
    return fmt::format("{} us", static_cast<std::int32_t>(duration.count() / 1'000));
}

}  // namespace vosk::lumo
