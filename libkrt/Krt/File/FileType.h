#pragma once

/// @file
/// The type of a file in the mode word of its status (st_mode of POSIX). The values are fixed, since
/// records carry the word between systems.

namespace Krt::File {

constexpr unsigned int FileTypeMask = 0xF000;         ///< bits of the type
constexpr unsigned int FileTypeDirectory = 0x4000;    ///< S_IFDIR
constexpr unsigned int FileTypeRegular = 0x8000;      ///< S_IFREG
constexpr unsigned int FileTypeSymbolicLink = 0xA000; ///< S_IFLNK

} // namespace Krt::File
