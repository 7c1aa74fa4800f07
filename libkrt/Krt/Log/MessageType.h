#pragma once

/// @file
/// The log channels. Each error also has a channel.

namespace Krt {

/// The log channels, each with a number that never changes.
struct MessageType
{
    /// The number of a channel.
    enum Value : unsigned int
    {
        Runtime = 15, ///< failures of the runtime layer
        Volume = 20,
        General = 510, ///< messages for users of the agent: the only channel of level INFO
        FileStat = 0x2000000,
        FileIo = 0x2000003,
        FileInfo = 0x2000004,
        FileClose = 0x2000011,
        SelectionBuild = 0x200002B,
        SelectionQuery = 0x200002C
    };
};

} // namespace Krt
