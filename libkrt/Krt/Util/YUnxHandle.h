// A file descriptor and whether it is owned. Descriptor 0 means none; every opener of this layer moves a real
// descriptor 0 to 2 up. Movable; an owned descriptor is closed by the destructor.
#pragma once

#include "Krt/Export.h"
#include "Krt/Util/SystemCall.h"

#include <utility>

namespace Krt::Util {

class KRT_API YUnxHandle
{
public:
    /// Empty and owning, or holding the descriptor.
    YUnxHandle() noexcept = default;
    YUnxHandle(int descriptor, bool owned) noexcept : m_descriptor(descriptor), m_owned(owned) {}
    YUnxHandle(YUnxHandle&& other) noexcept
        : m_descriptor(std::exchange(other.m_descriptor, 0)), m_owned(std::exchange(other.m_owned, true))
    {}
    YUnxHandle& operator=(YUnxHandle&& other) noexcept;
    ~YUnxHandle() { Close(); }

    /// The descriptor, 0 for none; whether there is none; whether closing is this object's business.
    int Get() const noexcept { return m_descriptor; }
    bool IsEmpty() const noexcept { return m_descriptor == 0; }
    bool IsOwned() const noexcept { return m_owned; }
    /// Closes an owned descriptor, repeating on EINTR; another failure is ignored. Empty and owning
    /// afterwards.
    void Close() noexcept;
    /// Gives the descriptor up to the caller.
    int Release() noexcept { return std::exchange(m_descriptor, 0); }

private:
    int m_descriptor = 0;
    bool m_owned = true;
};

/// Owns what an open call returned, moved above the standard streams if it is one of theirs. After a failure,
/// be it that of the move, nothing is left open and the handle is empty.
KRT_API OsResult<YUnxHandle> OwnAboveStandardStreams(OsResult<int> opened) noexcept;

} // namespace Krt::Util
