#pragma once

// What is kept of a vector that is too long to be kept whole: the sum of its values, each with a weight of
// its own. Equal vectors have equal digests, to the bit. The digest of a difference is the difference of the
// digests, but for rounding.

#include <span>

namespace vosk::rig {

struct Digest {
    double sum = 0.0;
    double size = 0.0;  // the same sum of the magnitudes

    friend bool operator==(const Digest&, const Digest&) = default;
};

Digest DigestOf(std::span<const float> values);

// Whether `difference` is the digest of `minuend` less `subtrahend`, subtracted value by value in single
// precision.
bool IsDifference(const Digest& difference, const Digest& minuend, const Digest& subtrahend);

}  // namespace vosk::rig
