#include "agent/Repository/Polynomial.h"

#include "agent/Repository/Sealing.h"

#include <array>
#include <bit>
#include <utility>

namespace Agent::Repo {

namespace {

Polynomial CommonDivisor(Polynomial a, Polynomial b)
{
    while (b != 0)
        a = std::exchange(b, Modulo(a, b));
    return a;
}

} // namespace

int DegreeOf(Polynomial polynomial)
{
    return static_cast<int>(std::bit_width(polynomial)) - 1;
}

Polynomial Modulo(Polynomial dividend, Polynomial divisor)
{
    const int degree = DegreeOf(divisor);
    for (int excess = DegreeOf(dividend) - degree; excess >= 0; excess = DegreeOf(dividend) - degree)
        dividend ^= divisor << excess;
    return dividend;
}

Polynomial MultiplyModulo(Polynomial a, Polynomial b, Polynomial divisor)
{
    Polynomial product = 0;
    a = Modulo(a, divisor);
    for (; b != 0; b >>= 1) {
        if ((b & 1) != 0)
            product ^= a;
        a = Modulo(a << 1, divisor);
    }
    return product;
}

// By Rabin and Ben-Or: a factor of degree i divides x^(2^i) - x.
bool IsIrreducible(Polynomial polynomial)
{
    constexpr Polynomial X = 2;
    const int degree = DegreeOf(polynomial);
    if (degree < 2 || degree > 62)
        return false;
    Polynomial power = X;
    for (int i = 1; i <= degree / 2; ++i) {
        power = MultiplyModulo(power, power, polynomial);
        if (CommonDivisor(polynomial, power ^ X) != 1)
            return false;
    }
    return true;
}

Polynomial RandomPolynomial()
{
    for (;;) {
        std::array<unsigned char, sizeof(Polynomial)> bytes;
        FillRandom(bytes);
        const Polynomial candidate =
            (std::bit_cast<Polynomial>(bytes) & ((Polynomial(1) << ChunkerDegree) - 1)) |
            Polynomial(1) << ChunkerDegree | 1;
        if (IsIrreducible(candidate))
            return candidate;
    }
}

} // namespace Agent::Repo
