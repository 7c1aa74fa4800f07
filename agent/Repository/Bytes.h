// Runs of bytes, as files and blobs have them.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

namespace Agent::Repo {

/// Bytes that are owned.
using Bytes = std::vector<unsigned char>;
/// Bytes of another owner, which outlives the view.
using ByteView = std::span<const unsigned char>;

/// Gives `bytes` this size, for content that replaces what they are. If they have to grow, memory for the new
/// size alone is taken, and nothing is copied.
inline void ResizeToReplace(Bytes& bytes, std::size_t size)
{
    if (bytes.capacity() < size)
        Bytes().swap(bytes);
    bytes.resize(size);
}

/// The memory of the bytes, as text.
inline std::string_view AsText(ByteView bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// The memory of the text, as bytes.
inline ByteView AsBytes(std::string_view text)
{
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

} // namespace Agent::Repo
