#include "zernike.hpp"

#include <cmath>

namespace vosk::rig {
namespace {

// The radial part through the recurrence of the Jacobi polynomials P^(0, azimuthal), which stays exact to
// rounding at orders where the usual sum of factorials has lost every digit.
double ZernikeRadial(unsigned radial, unsigned azimuthal, double radius) {
    const double x = 2.0 * radius * radius - 1.0;
    const double b = azimuthal;
    double previous = 1.0;
    double current = 1.0 + (b + 2.0) * (x - 1.0) / 2.0;
    const unsigned degree = (radial - azimuthal) / 2;
    if (degree == 0) current = previous;
    for (unsigned step = 2; step <= degree; ++step) {
        const double n = step;
        const double c = 2.0 * n + b;
        const double next = ((c - 1.0) * (c * (c - 2.0) * x - b * b) * current -
                             2.0 * (n - 1.0) * (n + b - 1.0) * c * previous) /
                            (2.0 * n * (n + b) * (c - 2.0));
        previous = current;
        current = next;
    }
    return current * std::pow(radius, b);
}

}  // namespace

std::vector<ZernikeIndex> ZernikeOrder(std::uint32_t modes) {
    std::vector<ZernikeIndex> order;
    for (unsigned radial = 1; order.size() < modes; ++radial) {
        for (unsigned azimuthal = radial % 2; azimuthal <= radial; azimuthal += 2) {
            order.push_back({radial, azimuthal, false});
            if (azimuthal > 0) order.push_back({radial, azimuthal, true});
        }
    }
    order.resize(modes);
    return order;
}

double Zernike(const ZernikeIndex& index, double radius, double angle) {
    const double radial = ZernikeRadial(index.radial, index.azimuthal, radius);
    if (index.azimuthal == 0) return std::sqrt(index.radial + 1.0) * radial;
    const double turn = index.azimuthal * angle;
    return std::sqrt(2.0 * (index.radial + 1.0)) * radial * (index.sine ? std::sin(turn) : std::cos(turn));
}

}  // namespace vosk::rig
