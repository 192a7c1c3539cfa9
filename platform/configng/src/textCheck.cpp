#include "textCheck.hpp"

#include <cstdint>

namespace oru::configng::detail {

namespace {

bool IsPlain(std::uint8_t byte) {
    return (byte >= 0x20 && byte < 0x7f) || byte == '\t' || byte == '\n' || byte == '\r';
}

// Length of the sequence that starts the text, 0 if there is no valid one.
std::size_t SequenceLength(std::string_view text) {
    const auto byte = [text](std::size_t i) {
        return i < text.size() ? static_cast<std::uint8_t>(text[i]) : std::uint8_t{0};
    };
    const auto is_continued = [&byte](std::size_t i) { return (byte(i) & 0xc0U) == 0x80; };
    const std::uint8_t first = byte(0);
    if (IsPlain(first)) return 1;
    if (first >= 0xc2 && first <= 0xdf) return is_continued(1) ? 2 : 0;
    if (first >= 0xe0 && first <= 0xef) {
        const bool is_overlong = first == 0xe0 && byte(1) < 0xa0;
        const bool is_surrogate = first == 0xed && byte(1) >= 0xa0;
        return is_continued(1) && is_continued(2) && !is_overlong && !is_surrogate ? 3 : 0;
    }
    if (first >= 0xf0 && first <= 0xf4) {
        const bool is_overlong = first == 0xf0 && byte(1) < 0x90;
        const bool is_beyond = first == 0xf4 && byte(1) >= 0x90;
        return is_continued(1) && is_continued(2) && is_continued(3) && !is_overlong && !is_beyond ? 4 : 0;
    }
    return 0;
}

}  // namespace

std::optional<std::size_t> FindBadText(std::string_view text) {
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = SequenceLength(text.substr(at));
        if (length == 0) return at;
        at += length;
    }
    return std::nullopt;
}

}  // namespace oru::configng::detail
