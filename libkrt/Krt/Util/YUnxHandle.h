#pragma once

#include "Krt/Export.h"
#include "Krt/Util/SystemCall.h"

#include <utility>

namespace Krt::Util {

/// A file descriptor and whether it is owned; the destructor closes an owned one. Movable. Descriptor 0
/// means empty: all functions of this layer that open files move a real descriptor 0 to 2 up.
class KRT_API YUnxHandle
{
public:
    /// An empty handle.
    YUnxHandle() noexcept = default;
    /// A handle of `descriptor`, closed by this object if `owned`.
    YUnxHandle(int descriptor, bool owned) noexcept : m_descriptor(descriptor), m_owned(owned) {}
    /// Moves the descriptor; `other` is empty afterwards.
    YUnxHandle(YUnxHandle&& other) noexcept
        : m_descriptor(std::exchange(other.m_descriptor, 0)), m_owned(std::exchange(other.m_owned, true))
    {}
    /// Closes an owned descriptor, then moves that of `other`, which is empty afterwards.
    YUnxHandle& operator=(YUnxHandle&& other) noexcept;
    ~YUnxHandle() { Close(); }

    int Get() const noexcept { return m_descriptor; }           ///< 0 if empty
    bool IsEmpty() const noexcept { return m_descriptor == 0; } ///< true if there is no descriptor
    bool IsOwned() const noexcept { return m_owned; }           ///< true if this object closes the descriptor
    /// Closes an owned descriptor, retrying on EINTR; ignores other failures. The handle is empty and
    /// owning afterwards.
    void Close() noexcept;
    /// Returns the descriptor, which the caller owns from now on.
    int Release() noexcept { return std::exchange(m_descriptor, 0); }

private:
    int m_descriptor = 0;
    bool m_owned = true;
};

/// Returns an owning handle of the descriptor that an open call returned, moved up if it is 0 to 2. After a
/// failure, also that of the move, the descriptor is closed and the handle is empty.
KRT_API OsResult<YUnxHandle> OwnAboveStandardStreams(OsResult<int> opened) noexcept;

} // namespace Krt::Util
