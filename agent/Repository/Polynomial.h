// Polynomials over GF(2), by which content-defined chunking finds the cuts.
#pragma once

#include <cstdint>

namespace Agent::Repo {

/// Bit i is the coefficient of x^i.
using Polynomial = std::uint64_t;

/// Degree of the polynomials that repositories use.
constexpr int ChunkerDegree = 53;

/// The degree; -1 for 0.
int DegreeOf(Polynomial polynomial);
/// The rest of a division. `divisor` is not 0.
Polynomial Modulo(Polynomial dividend, Polynomial divisor);
/// The rest of the product of two polynomials. `divisor` is not 0, its degree at most 62.
Polynomial MultiplyModulo(Polynomial a, Polynomial b, Polynomial divisor);
/// Returns true if the polynomial has a degree of 2 to 62, and no factor but itself and 1.
bool IsIrreducible(Polynomial polynomial);
/// A random irreducible polynomial of the degree ChunkerDegree.
Polynomial RandomPolynomial();

} // namespace Agent::Repo
