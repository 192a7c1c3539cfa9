#pragma once

// Zernike polynomials over the unit disc, in the order of Noll's numbering and of rms 1: the shapes in which
// the rig thinks of wavefronts. For set-up.

#include <cstdint>
#include <vector>

namespace vosk::rig {

struct ZernikeIndex {
    unsigned radial;
    unsigned azimuthal;
    bool sine;
};

// From tip on: by radial order, then by azimuthal order.
std::vector<ZernikeIndex> ZernikeOrder(std::uint32_t modes);

double Zernike(const ZernikeIndex& index, double radius, double angle);

}  // namespace vosk::rig
