#pragma once

// Whether a text may go to the YAML parser. That takes control character 4 for the end of the text, and
// replaces bad bytes, both without a word.

#include <optional>
#include <string_view>

namespace oru::configng::detail {

// Offset of the first byte that is no UTF-8, or a control character other than tab and line ends.
std::optional<std::size_t> FindBadText(std::string_view text);

}  // namespace oru::configng::detail
