#include "agent/Repository/Zstd.h"

#include "agent/Repository/Failure.h"
#include "agent/Repository/Look.h"

#include <zstd.h>
#include <zstd_errors.h>

#include <algorithm>
#include <memory>
#include <new>

namespace Agent::Repo {

namespace {

constexpr int WriteWindowLog = 19;            // 512 KiB
constexpr int ReadWindowLog = 25;             // 32 MiB, for frames above AtOnceLimit
constexpr std::size_t AtOnceLimit = 64 << 20; // bytes that are allocated because an index says so
constexpr std::size_t BlockLimit = 128 << 10; // the most bytes of a block, decompressed
constexpr std::size_t SmallestBlock = 4;      // compressed bytes of the shortest block that is not empty
constexpr std::size_t FirstRoom = 256 << 10;  // bytes

struct Free
{
    void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
    void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};

ZSTD_CCtx* CompressorOfThread()
{
    thread_local const std::unique_ptr<ZSTD_CCtx, Free> context(ZSTD_createCCtx());
    KRT_RAISE_UNLESS(context != nullptr, Krt::ErrorCode::OutOfMemory, "No memory to compress");
    return context.get();
}

ZSTD_DCtx* DecompressorOfThread()
{
    thread_local const std::unique_ptr<ZSTD_DCtx, Free> context(ZSTD_createDCtx());
    if (context == nullptr)
        throw std::bad_alloc();
    ZSTD_DCtx_reset(context.get(), ZSTD_reset_session_only);
    ZSTD_DCtx_setParameter(context.get(), ZSTD_d_windowLogMax, ReadWindowLog);
    return context.get();
}

[[noreturn]] void RaiseDamaged(const char* reason)
{
    REPOSITORY_RAISE(Failure::Damaged, "damaged: the compressed content " << reason);
}

// Raises if the result of a call is an error.
void CheckResult(std::size_t result)
{
    if (ZSTD_getErrorCode(result) == ZSTD_error_memory_allocation)
        throw std::bad_alloc();
    if (ZSTD_isError(result))
        RaiseDamaged(ZSTD_getErrorName(result));
}

// Decompresses into memory that grows with the content.
template <class Memory>
void DecompressInSteps(ByteView frames, std::size_t limit, std::size_t firstRoom, Memory& out)
{
    ZSTD_DCtx* const context = DecompressorOfThread();
    ZSTD_inBuffer input{frames.data(), frames.size(), 0};
    std::size_t used = 0;
    bool isInFrame = true;
    out.resize(std::min(limit, firstRoom));
    while (isInFrame || input.pos != input.size) {
        Look();
        unsigned char beyond = 0; // a byte above the limit
        const bool isFull = used == limit;
        if (!isFull && used == out.size())
            out.resize(std::min(limit, 2 * out.size()));
        ZSTD_outBuffer output{isFull ? &beyond : reinterpret_cast<unsigned char*>(out.data()),
                              isFull ? 1 : std::min(out.size(), used + LookStep), isFull ? 0 : used};
        const std::size_t before = output.pos;
        const std::size_t result = ZSTD_decompressStream(context, &output, &input);
        CheckResult(result);
        if (isFull && output.pos != 0)
            RaiseDamaged("is longer than it may be");
        isInFrame = result != 0;
        if (isInFrame && input.pos == input.size && output.pos == before)
            RaiseDamaged("is cut off");
        used += output.pos - before;
    }
    out.resize(used);
}

// Returns the length of the content of the frames. Raises if it is above the limit.
std::size_t CountBytes(ByteView frames, std::size_t limit)
{
    ZSTD_DCtx* const context = DecompressorOfThread();
    Bytes step(BlockLimit);
    ZSTD_inBuffer input{frames.data(), frames.size(), 0};
    std::size_t count = 0;
    for (bool isAtEnd = false; !isAtEnd && count <= limit;) {
        Look();
        ZSTD_outBuffer output{step.data(), step.size(), 0};
        const std::size_t result = ZSTD_decompressStream(context, &output, &input);
        CheckResult(result);
        count += output.pos;
        isAtEnd = input.pos == input.size && output.pos < output.size;
    }
    if (count > limit)
        RaiseDamaged("is longer than it may be");
    return count;
}

// Returns the bytes of the frame.
std::size_t CompressAt(ByteView content, std::span<unsigned char> out, int level)
{
    ZSTD_CCtx* const context = CompressorOfThread();
    ZSTD_CCtx_reset(context, ZSTD_reset_session_and_parameters);
    ZSTD_CCtx_setParameter(context, ZSTD_c_compressionLevel, level);
    ZSTD_CCtx_setParameter(context, ZSTD_c_windowLog, WriteWindowLog);
    const std::size_t size = ZSTD_compress2(context, out.data(), out.size(), content.data(), content.size());
    KRT_RAISE_UNLESS(!ZSTD_isError(size), Krt::ErrorCode::InvalidState,
                     "Failed to compress: " << ZSTD_getErrorName(size));
    return size;
}

} // namespace

void Compress(ByteView content, Bytes& out, int level)
{
    const std::size_t bound = CompressBound(content.size());
    // Memory that is not written costs nothing.
    const std::unique_ptr<unsigned char[]> room(new unsigned char[bound]);
    const ByteView frame = CompressInto(content, {room.get(), bound}, level);
    out.insert(out.end(), frame.begin(), frame.end());
}

std::size_t CompressBound(std::size_t size)
{
    return ZSTD_compressBound(size);
}

ByteView CompressInto(ByteView content, std::span<unsigned char> room, int level)
{
    return ByteView(room).first(CompressAt(content, room, level));
}

void Decompress(ByteView frames, std::size_t size, Bytes& out)
{
    if (frames.empty() || size / BlockLimit > frames.size() / SmallestBlock)
        RaiseDamaged("is shorter than it should be");
    if (size <= AtOnceLimit) {
        ResizeToReplace(out, size);
        DecompressInto(frames, out);
        return;
    }
    DecompressInSteps(frames, size, FirstRoom, out);
    if (out.size() != size)
        RaiseDamaged("is shorter than it should be");
}

void DecompressInto(ByteView frames, std::span<unsigned char> out)
{
    const std::size_t size =
        ZSTD_decompressDCtx(DecompressorOfThread(), out.data(), out.size(), frames.data(), frames.size());
    CheckResult(size);
    if (frames.empty() || size != out.size())
        RaiseDamaged("is shorter than it should be");
}

void DecompressUpTo(ByteView frames, std::size_t limit, Bytes& out)
{
    if (frames.empty())
        RaiseDamaged("is cut off");
    DecompressInSteps(frames, limit, FirstRoom, out);
}

void DecompressUpTo(ByteView frames, std::size_t limit, std::string& out)
{
    if (frames.empty())
        RaiseDamaged("is cut off");
    // Growing would take half as much again.
    const std::size_t room = limit > AtOnceLimit ? CountBytes(frames, limit) : FirstRoom;
    DecompressInSteps(frames, limit, std::max<std::size_t>(room, 1), out);
}

void Decompressor::Free::operator()(ZSTD_DCtx_s* context) const
{
    ZSTD_freeDCtx(context);
}

Decompressor::Decompressor(ByteView frames) : m_context(ZSTD_createDCtx()), m_rest(frames)
{
    if (m_context == nullptr)
        throw std::bad_alloc();
    ZSTD_DCtx_setParameter(m_context.get(), ZSTD_d_windowLogMax, ReadWindowLog);
}

std::size_t Decompressor::Read(std::span<unsigned char> out)
{
    ZSTD_outBuffer output{out.data(), out.size(), 0};
    while (output.pos < output.size && (m_isInFrame || !m_rest.empty())) {
        ZSTD_inBuffer input{m_rest.data(), m_rest.size(), 0};
        const std::size_t before = output.pos;
        const std::size_t result = ZSTD_decompressStream(m_context.get(), &output, &input);
        CheckResult(result);
        m_isInFrame = result != 0;
        m_rest = m_rest.subspan(input.pos);
        if (m_isInFrame && m_rest.empty() && output.pos == before)
            RaiseDamaged("is cut off");
    }
    return output.pos;
}

} // namespace Agent::Repo
