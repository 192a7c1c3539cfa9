// Any text either is a duration, the same in both units up to rounding, or is refused.

#include <lumolib/utilities.hpp>

#include <cstdint>
#include <exception>
#include <stdexcept>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using std::chrono::microseconds;
    using std::chrono::milliseconds;
    const std::string text{reinterpret_cast<const char*>(data), size};
    try {
        const auto fine = vosk::lumo::ParseDuration<microseconds>(text);
        const auto coarse = vosk::lumo::ParseDuration<milliseconds>(text);
        if (coarse != std::chrono::ceil<milliseconds>(fine)) std::terminate();
    } catch (const std::invalid_argument&) {
        // Refused, as most texts.
    } catch (const std::out_of_range&) {
        // The same.
    }
    return 0;
}
