// ZstdWriter: compresses into a file, a frame after the other. Its context is kept, so that many small frames
// are cheap. One thread at a time.
#pragma once

#include "Krt/Util/YUnxHandle.h"

#include <memory>
#include <vector>

struct ZSTD_CCtx_s;

namespace Agent {

class ZstdWriter
{
public:
    ZstdWriter();
    ~ZstdWriter();
    ZstdWriter(const ZstdWriter&) = delete;
    ZstdWriter& operator=(const ZstdWriter&) = delete;

    /// Writes to this file from its begin; it outlives the last call. Drops an unfinished frame.
    void Begin(const Krt::Util::YUnxHandle& file);
    void Append(const void* data, std::size_t size);
    /// Ends the frame and writes all of it. What is appended next begins a frame of its own.
    void EndFrame();
    /// Writes one frame with this content at once; nothing was appended before.
    void WriteFrame(const void* data, std::size_t size);
    /// Writes bytes as they stand; nothing was appended before.
    void Write(const void* data, std::size_t size);
    /// Bytes written to the file since Begin.
    unsigned long long GetWritten() const { return m_written; }

private:
    void Compress(const void* data, std::size_t size, bool endFrame);

    struct Free
    {
        void operator()(ZSTD_CCtx_s* context) const;
    };
    std::unique_ptr<ZSTD_CCtx_s, Free> m_context;
    std::vector<unsigned char> m_output;
    const Krt::Util::YUnxHandle* m_file = nullptr;
    unsigned long long m_written = 0;
};

} // namespace Agent
