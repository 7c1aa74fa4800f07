#include "agent/Store/ObjectWriter.h"

namespace Agent {

ObjectWriter::ObjectWriter(StoreSession& session) : m_session(session)
{
    m_small.reserve(SmallLimit);
}

ObjectWriter::~ObjectWriter()
{
    DropFile();
}

void ObjectWriter::Begin()
{
    DropFile();
    m_hash.Begin();
    m_small.clear();
    m_size = 0;
}

void ObjectWriter::Append(const void* data, std::size_t size)
{
    m_hash.Add(data, size);
    m_size += size;
    if (!m_file && m_size <= SmallLimit) {
        const auto* bytes = static_cast<const unsigned char*>(data);
        m_small.insert(m_small.end(), bytes, bytes + size);
        return;
    }
    StoreError::Guard([&] {
        if (!m_file) {
            StartFile();
            m_compressor.Append(m_small.data(), m_small.size());
        }
        m_compressor.Append(data, size);
    });
}

Address ObjectWriter::Finish()
{
    return StoreError::Guard([&] { return Keep(m_hash.End()); });
}

Address ObjectWriter::Keep(const Address& address)
{
    if (m_session.Has(address)) {
        DropFile();
        return address;
    }
    if (m_file) {
        m_compressor.EndFrame();
    } else {
        StartFile();
        m_compressor.WriteFrame(m_small.data(), m_small.size());
    }
    m_session.AddObject(address, *m_file, m_compressor.GetWritten());
    m_file.reset();
    return address;
}

void ObjectWriter::StartFile()
{
    m_file = m_session.CreateTemporary();
    m_compressor.Begin(m_file->handle);
}

void ObjectWriter::DropFile() noexcept
{
    if (m_file)
        m_session.Remove(*m_file);
    m_file.reset();
}

} // namespace Agent
