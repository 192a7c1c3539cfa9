#pragma once

// Guards what comes from outside: a value that is no number would spread through every product it enters.

#include <span>

namespace vosk::common::math {

// Whether no value is infinite or not a number. At the memory's speed.
bool AllFinite(std::span<const float> values) noexcept;

}  // namespace vosk::common::math
