// Looks: long work of this folder looks now and then whether it is to end.
#pragma once

#include <atomic>
#include <cstddef>

namespace Agent::Repo {

/// Raises if the work is to end.
using LookCall = void (*)();

inline std::atomic<LookCall> g_look = nullptr;

/// Bytes that are read, decompressed or parsed between two looks, at most.
constexpr std::size_t LookStep = 8 << 20;

/// Sets what all threads of the process call from now on: for each file that is listed, and between parts of
/// large content. What it raises passes through, so it is not a RepositoryError.
inline void SetLook(LookCall look)
{
    g_look = look;
}

inline void Look()
{
    if (const LookCall look = g_look)
        look();
}

} // namespace Agent::Repo
