#include "agent/Store/ZstdWriter.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"

#include <zstd.h>

namespace Agent {

namespace {

constexpr int Level = 3;

std::size_t Checked(std::size_t result)
{
    if (ZSTD_isError(result))
        KRT_RAISE(Krt::ErrorCode::InvalidState, "Failed to compress: " << ZSTD_getErrorName(result));
    return result;
}

} // namespace

void ZstdWriter::Free::operator()(ZSTD_CCtx_s* context) const
{
    ZSTD_freeCCtx(context);
}

ZstdWriter::ZstdWriter() : m_context(ZSTD_createCCtx()), m_output(ZSTD_CStreamOutSize())
{
    KRT_RAISE_UNLESS(m_context != nullptr, Krt::ErrorCode::OutOfMemory, "No memory to compress");
    Checked(ZSTD_CCtx_setParameter(m_context.get(), ZSTD_c_compressionLevel, Level));
}

ZstdWriter::~ZstdWriter() = default;

void ZstdWriter::Begin(const Krt::Util::YUnxHandle& file)
{
    Checked(ZSTD_CCtx_reset(m_context.get(), ZSTD_reset_session_only));
    m_file = &file;
    m_written = 0;
}

void ZstdWriter::Append(const void* data, std::size_t size)
{
    Compress(data, size, false);
}

void ZstdWriter::EndFrame()
{
    Compress(nullptr, 0, true);
}

void ZstdWriter::Compress(const void* data, std::size_t size, bool endFrame)
{
    ZSTD_inBuffer input{data, size, 0};
    std::size_t unwritten;
    do {
        ZSTD_outBuffer output{m_output.data(), m_output.size(), 0};
        unwritten = Checked(
            ZSTD_compressStream2(m_context.get(), &output, &input, endFrame ? ZSTD_e_end : ZSTD_e_continue));
        Write(m_output.data(), output.pos);
    } while (endFrame ? unwritten != 0 : input.pos != input.size);
}

void ZstdWriter::WriteFrame(const void* data, std::size_t size)
{
    const std::size_t bound = ZSTD_compressBound(size);
    if (m_output.size() < bound)
        m_output.resize(bound);
    Write(m_output.data(),
          Checked(ZSTD_compress2(m_context.get(), m_output.data(), m_output.size(), data, size)));
}

void ZstdWriter::Write(const void* data, std::size_t size)
{
    if (size != 0)
        m_written += Krt::File::Write(*m_file, m_written, size, data);
}

} // namespace Agent
