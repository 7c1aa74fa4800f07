#include "agent/Store/ZstdReader.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"

#include <zstd.h>

namespace Agent {

namespace {

constexpr int WindowLogLimit = 23; // 8 MiB

} // namespace

void ZstdReader::Free::operator()(ZSTD_DCtx_s* context) const
{
    ZSTD_freeDCtx(context);
}

ZstdReader::ZstdReader()
    : m_context(ZSTD_createDCtx()), m_input(ZSTD_DStreamInSize()), m_output(ZSTD_DStreamOutSize())
{
    KRT_RAISE_UNLESS(m_context != nullptr, Krt::ErrorCode::OutOfMemory, "No memory to decompress");
    ZSTD_DCtx_setParameter(m_context.get(), ZSTD_d_windowLogMax, WindowLogLimit);
}

ZstdReader::~ZstdReader() = default;

void ZstdReader::Begin(const Krt::Util::YUnxHandle& file, const Krt::YString& name, unsigned long long offset)
{
    ZSTD_DCtx_reset(m_context.get(), ZSTD_reset_session_only);
    m_file = &file;
    m_name = name;
    m_offset = offset;
    m_begin = m_end = 0;
    m_inFrame = false;
    m_isAtEnd = false;
}

std::span<const unsigned char> ZstdReader::Next()
{
    ZSTD_outBuffer output{m_output.data(), m_output.size(), 0};
    while (output.pos != output.size) {
        if (m_begin == m_end && !Fill() && !m_inFrame)
            break;
        ZSTD_inBuffer input{m_input.data(), m_end, m_begin};
        const std::size_t before = output.pos;
        const std::size_t result = ZSTD_decompressStream(m_context.get(), &output, &input);
        if (ZSTD_isError(result))
            RaiseDamaged(ZSTD_getErrorName(result));
        // Without input the decompressor can still give what it holds back; when that is nothing, it waits in
        // vain.
        if (m_begin == m_end && output.pos == before)
            RaiseDamaged("the file is cut off");
        m_begin = input.pos;
        m_inFrame = result != 0;
    }
    return {m_output.data(), output.pos};
}

bool ZstdReader::Fill()
{
    m_begin = m_end = 0;
    if (m_isAtEnd)
        return false;
    try {
        m_end = Krt::File::Read(*m_file, m_offset, m_input.size(), m_input.data());
    } catch (const Krt::Exception::YError& error) {
        KRT_RAISE_OS(error.GetOsError(), m_name << ": " << error.GetMessage());
    }
    m_isAtEnd = m_end != m_input.size();
    m_offset += m_end;
    return m_end != 0;
}

void ZstdReader::RaiseDamaged(const char* reason) const
{
    const unsigned long long offset = m_offset - (m_end - m_begin);
    KRT_RAISE(Krt::ErrorCode::InvalidState, m_name << " is damaged at offset " << offset << ": " << reason);
}

} // namespace Agent
