// ObjectWriter: stores contents, each distinct one once. A small content is hashed before anything is
// written, so that a known one costs no file; a large one streams into a temporary file, in constant memory.
#pragma once

#include "agent/Store/StoreSession.h"
#include "agent/Store/ZstdWriter.h"

#include <optional>
#include <vector>

namespace Agent {

class ObjectWriter
{
public:
    /// The session outlives the writer.
    explicit ObjectWriter(StoreSession& session);
    ~ObjectWriter();

    /// Begins a content; one that was begun and not finished is dropped.
    void Begin();
    /// In order, in pieces of any size; best of 64 KiB and more. Raises StoreError, as does Finish.
    void Append(const void* data, std::size_t size);
    /// The content's address. It is part of the store when the session's snapshot is.
    Address Finish();
    /// Bytes appended since Begin.
    unsigned long long GetSize() const { return m_size; }

private:
    static constexpr std::size_t SmallLimit = 1 << 20;

    Address Keep(const Address& address);
    void StartFile();
    void DropFile() noexcept;

    StoreSession& m_session;
    Sha256 m_hash;
    ZstdWriter m_compressor;
    std::vector<unsigned char> m_small; // the content, while it is small
    std::optional<StoreSession::Temporary> m_file;
    unsigned long long m_size = 0;
};

} // namespace Agent
