// A universally unique identifier.
#pragma once

#include "Krt/String/YString.h"

#include <array>

namespace Krt::Type {

class KRT_API YUuid
{
public:
    /// In the order of the text.
    using Bytes = std::array<unsigned char, 16>;

    /// Of these bytes, whatever they say of version and variant.
    explicit YUuid(const Bytes& bytes) : m_bytes(bytes) {}
    /// One of version 4 from the process's random generator, whose lock is held for the draw. Raises what
    /// seeding the generator raises.
    static YUuid Random();

    /// The bytes; live as long as the identifier.
    const Bytes& GetBytes() const { return m_bytes; }
    /// The 36 characters of its usual text, with hyphens and lower-case digits. Raises InvalidState if the
    /// text can't be made.
    YString GetString() const;

private:
    Bytes m_bytes;
};

} // namespace Krt::Type
