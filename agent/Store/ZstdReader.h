// ZstdReader: decompresses a file block by block. Memory is bounded whatever the file says: a frame that asks
// for a window of more than 8 MiB is refused. One thread at a time.
#pragma once

#include "Krt/String/YString.h"
#include "Krt/Util/YUnxHandle.h"

#include <memory>
#include <span>
#include <vector>

struct ZSTD_DCtx_s;

namespace Agent {

class ZstdReader
{
public:
    ZstdReader();
    ~ZstdReader();
    ZstdReader(const ZstdReader&) = delete;
    ZstdReader& operator=(const ZstdReader&) = delete;

    /// Reads this file, which outlives the last call, from an offset on. Frames follow each other to its end.
    /// `name` is the file's name in the store, for messages.
    void Begin(const Krt::Util::YUnxHandle& file, const Krt::YString& name, unsigned long long offset = 0);
    /// The next bytes, 128 KiB unless the end comes first; valid until the next call; empty at the end of the
    /// file. Raises InvalidState, with name and offset, on what is no zstd data and on a frame that is cut
    /// off.
    std::span<const unsigned char> Next();

private:
    bool Fill();
    [[noreturn]] void RaiseDamaged(const char* reason) const;

    struct Free
    {
        void operator()(ZSTD_DCtx_s* context) const;
    };
    std::unique_ptr<ZSTD_DCtx_s, Free> m_context;
    std::vector<unsigned char> m_input;
    std::vector<unsigned char> m_output;
    const Krt::Util::YUnxHandle* m_file = nullptr;
    Krt::YString m_name;
    unsigned long long m_offset = 0; // in the file, of what is read next
    std::size_t m_begin = 0;         // of what is not yet decompressed, in m_input
    std::size_t m_end = 0;
    bool m_inFrame = false;
    bool m_isAtEnd = false; // of the file
};

} // namespace Agent
