#include "agent/Store/ObjectReader.h"

#include "Krt/Exception/Raise.h"

namespace Agent {

ObjectReader::ObjectReader(const Store& store) : m_store(store) {}

void ObjectReader::Open(const Address& address, unsigned long long size)
{
    m_file = m_store.GetObjects().Open(address);
    m_address = address;
    m_name = Krt::YString(("Object " + address.ToHex()).c_str());
    m_reader.Begin(m_file, m_name);
    m_hash.Begin();
    m_size = size;
    m_read = 0;
}

std::span<const unsigned char> ObjectReader::Next()
{
    const std::span<const unsigned char> block = m_reader.Next();
    KRT_RAISE_UNLESS(block.size() <= m_size - m_read, Krt::ErrorCode::InvalidState,
                     m_name << " holds more than the " << m_size << " bytes of its content");
    m_read += block.size();
    m_hash.Add(block.data(), block.size());
    if (block.empty()) {
        KRT_RAISE_UNLESS(m_read == m_size, Krt::ErrorCode::InvalidState,
                         m_name << " ends after " << m_read << " of the " << m_size
                                << " bytes of its content");
        KRT_RAISE_UNLESS(m_hash.End() == m_address, Krt::ErrorCode::InvalidState,
                         m_name << " is damaged: its content does not have this address");
    }
    return block;
}

} // namespace Agent
