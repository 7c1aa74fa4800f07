// Compression by zstd, of whole blobs and files. Any thread may call any function. Contexts are kept for each
// thread.
#pragma once

#include "agent/Repository/Bytes.h"

#include <string>

namespace Agent::Repo {

/// Appends one frame with the content to `out`, without a checksum and with a window of 512 KiB at most. The
/// levels are those of zstd.
void Compress(ByteView content, Bytes& out, int level = 3);
/// Compresses into scratch memory, which is lengthened if it is too short, and never shortened, so
/// that it need not be filled with zeros again. Returns the frame, which is in it.
ByteView CompressInto(ByteView content, Bytes& scratch, int level);

/// Replaces the content of `out` with the `size` bytes that the frames contain. Raises Damaged if they are
/// not frames, are cut off, or contain more or fewer bytes. At most as much memory is taken as the frames can
/// fill.
void Decompress(ByteView frames, std::size_t size, Bytes& out);
/// Replaces the content of `out` with the content of the frames. Raises Damaged if they are not frames, are
/// cut off, or contain more than `limit` bytes.
void DecompressUpTo(ByteView frames, std::size_t limit, Bytes& out);
/// Replaces the text of `out`; see DecompressUpTo(ByteView, std::size_t, Bytes&). For a limit above 64 MiB
/// the text is measured first, so that it is in memory once.
void DecompressUpTo(ByteView frames, std::size_t limit, std::string& out);

} // namespace Agent::Repo
