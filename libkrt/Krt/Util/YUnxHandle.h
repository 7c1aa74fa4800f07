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

/// Calls open with O_CLOEXEC, retried on EINTR. The descriptor is moved above 2, to distinguish it from an
/// empty handle and from the standard streams. The handle is empty after a failure.
KRT_API OsResult<YUnxHandle> OpenHandle(const char* path, int flags, unsigned int mode = 0);

/// Closes the descriptor, owned or not, retrying on EINTR. Does nothing for an empty handle. Returns 0, or
/// the error number of a loss of written data that the file system reports only now. The handle is empty
/// afterwards.
KRT_API int TryCloseWritten(YUnxHandle& handle);
/// Calls TryCloseWritten and raises its error (channel General) with the text "Failed to write file".
KRT_API void CloseWritten(YUnxHandle& handle);

} // namespace Krt::Util
