// Compression by zstd, of whole blobs and files. Any thread may call any function. Contexts are kept for each
// thread.
#pragma once

#include "agent/Repository/Bytes.h"

#include <cstddef>
#include <memory>
#include <string>

struct ZSTD_DCtx_s;

namespace Agent::Repo {

/// Appends one frame with the content to `out`, without a checksum and with a window of 512 KiB at most. The
/// levels are those of zstd.
void Compress(ByteView content, Bytes& out, int level = 3);
/// Bytes that a frame with content of this size has at most.
std::size_t CompressBound(std::size_t size);
/// Compresses into memory of at least CompressBound bytes. Returns the frame, which is at its beginning.
ByteView CompressInto(ByteView content, std::span<unsigned char> room, int level);

/// Replaces the content of `out` with the `size` bytes that the frames contain. Raises Damaged if they are
/// not frames, are cut off, or contain more or fewer bytes. At most as much memory is taken as the frames can
/// fill.
void Decompress(ByteView frames, std::size_t size, Bytes& out);
/// Decompresses into `out`, whose size is that of the content. Raises Damaged as Decompress does.
void DecompressInto(ByteView frames, std::span<unsigned char> out);
/// Replaces the content of `out` with the content of the frames. Raises Damaged if they are not frames, are
/// cut off, or contain more than `limit` bytes.
void DecompressUpTo(ByteView frames, std::size_t limit, Bytes& out);
/// Replaces the text of `out`; see DecompressUpTo(ByteView, std::size_t, Bytes&). For a limit above 64 MiB
/// the text is measured first, so that it is in memory once.
void DecompressUpTo(ByteView frames, std::size_t limit, std::string& out);

/// Decompresses piece by piece. One thread at a time.
class Decompressor
{
public:
    /// The frames outlive this object.
    explicit Decompressor(ByteView frames);
    /// Writes the next bytes of the content to `out`, and returns how many they are; 0 at the end. Raises
    /// Damaged if the bytes are not frames or are cut off.
    std::size_t Read(std::span<unsigned char> out);

private:
    struct Free
    {
        void operator()(ZSTD_DCtx_s* context) const;
    };

    std::unique_ptr<ZSTD_DCtx_s, Free> m_context;
    ByteView m_rest;
    bool m_isInFrame = true;
};

} // namespace Agent::Repo
