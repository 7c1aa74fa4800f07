// How blobs are saved in packs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace Agent::Repo {

/// How much time compression takes.
enum class Compression
{
    Auto, ///< little; data that does not shrink is stored as it is
    Off,  ///< none: data is stored as it is. Trees are compressed, as the format recommends
    Max   ///< much
};

/// A pack with this many blobs is full, whatever its size.
constexpr std::size_t PackBlobLimit = 50000;

/// How blobs are saved.
struct SaveOptions
{
    Compression compression = Compression::Auto;
    std::uint32_t packSize = 16 << 20; ///< bytes after which a pack is full
    unsigned int writers = 2;          ///< threads that write packs, at least 1
    /// Also saves blobs that the index has, since their packs are to be removed.
    bool isRepacking = false;
    /// Called about 10 times a second while Save or Finish waits, by the thread that waits. Several threads
    /// may call it at once. It may use GetSaved. What it raises ends the saver.
    std::function<void()> onWait = [] {
    };
};

} // namespace Agent::Repo
