// The log channels. A channel's number also stands in every error, so that an error belongs to a channel.
#pragma once

namespace Krt {

struct MessageType
{
    enum Value : unsigned int
    {
        Runtime = 15,
        Volume = 20,
        General = 510,
        FileStat = 0x2000000,
        FileIo = 0x2000003,
        FileInfo = 0x2000004,
        FileClose = 0x2000011,
        SelectionBuild = 0x200002B,
        SelectionQuery = 0x200002C
    };
};

} // namespace Krt
