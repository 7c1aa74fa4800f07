// The log channels. A channel's number also stands in every error, so that an error belongs to a channel.
#pragma once

namespace Krt {

/// The channels, each with a number that never changes.
struct MessageType
{
    /// A channel.
    enum Value : unsigned int
    {
        Runtime = 15, ///< the runtime layer's own failures
        Volume = 20,
        General = 510, ///< what a user of the agent reads: the only one of level INFO
        FileStat = 0x2000000,
        FileIo = 0x2000003,
        FileInfo = 0x2000004,
        FileClose = 0x2000011,
        SelectionBuild = 0x200002B,
        SelectionQuery = 0x200002C
    };
};

} // namespace Krt
