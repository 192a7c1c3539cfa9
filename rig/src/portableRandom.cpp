#include "portableRandom.hpp"

#include <cmath>
#include <numbers>

namespace vosk::rig {
namespace {

// exp of a number from -32 to 0: a short series of its 1024th part, and ten squares.
double ExpOfNegative(double value) {
    const double part = value / 1024.0;
    double sum = 1.0;
    double term = 1.0;
    for (int order = 1; order <= 8; ++order) {
        term *= part / order;
        sum += term;
    }
    for (int square = 0; square < 10; ++square) sum *= sum;
    return sum;
}

}  // namespace

double PortableLog(double value) {
    int exponent = 0;
    double mantissa = std::frexp(value, &exponent);  // from 1/2 to 1
    if (mantissa < std::numbers::sqrt2 / 2.0) {
        mantissa *= 2.0;
        --exponent;
    }
    // Twice the inverse hyperbolic tangent, whose argument is 0.172 at most.
    const double root = (mantissa - 1.0) / (mantissa + 1.0);
    const double square = root * root;
    double sum = 0.0;
    for (int order = 23; order >= 1; order -= 2) sum = sum * square + 1.0 / order;
    return 2.0 * root * sum + exponent * std::numbers::ln2;
}

double PortableNormalShare(double value) {
    constexpr double FAR = 7.5;  // the share beyond is 3e-14
    if (value > FAR) return 1.0;
    if (value < -FAR) return 0.0;
    // 1/2 + density * (z + z^3/3 + z^5/(3*5) + ...): all terms of one sign, so that no digit is lost.
    double term = value;
    double sum = value;
    for (int odd = 3; std::abs(term) > 1e-17 * std::abs(sum); odd += 2) {
        term *= value * value / odd;
        sum += term;
    }
    const double density = ExpOfNegative(-0.5 * value * value) / std::sqrt(2.0 * std::numbers::pi);
    return 0.5 + density * sum;
}

double PortableRandom::Normal() {
    if (m_has_spare) {
        m_has_spare = false;
        return m_spare;
    }
    // Marsaglia's polar method: a point of the unit disc gives two numbers.
    for (;;) {
        const double x = Uniform(-1.0, 1.0);
        const double y = Uniform(-1.0, 1.0);
        const double square = x * x + y * y;
        if (square >= 1.0 || square == 0.0) continue;
        const double scale = std::sqrt(-2.0 * PortableLog(square) / square);
        m_spare = y * scale;
        m_has_spare = true;
        return x * scale;
    }
}

}  // namespace vosk::rig
