#pragma once

/// @file
/// Lets a std::unique_ptr own a handle of a C library.

namespace Krt::Memory {

/// Deleter that calls a function, as in std::unique_ptr<DIR, Freer<&closedir>>. The function's result is
/// ignored.
template <auto Free>
struct Freer
{
    /// Frees the object.
    template <class T>
    void operator()(T* object) const
    {
        Free(object);
    }
};

} // namespace Krt::Memory
