#pragma once

#include "Krt/String/YString.h"

#include <array>

namespace Krt::Type {

/// A universally unique identifier.
class KRT_API YUuid
{
public:
    /// The bytes in the order of the text.
    using Bytes = std::array<unsigned char, 16>;

    /// The identifier of these bytes, whatever their version and variant.
    explicit YUuid(const Bytes& bytes) : m_bytes(bytes) {}
    /// Returns an identifier of version 4 from the process's random generator, whose lock is held
    /// during the call. Raises the errors of GetRandomGenerator.
    static YUuid Random();

    /// The bytes. Valid as long as the identifier.
    const Bytes& GetBytes() const { return m_bytes; }
    /// Returns the usual text of 36 characters, with hyphens and lower-case digits. Raises InvalidState if
    /// it cannot be created.
    YString GetString() const;

private:
    Bytes m_bytes;
};

} // namespace Krt::Type
