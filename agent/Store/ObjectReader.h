// ObjectReader: gives a content back, block by block, in constant memory, and checks it against its address.
// What it gives is proved only when the whole content has been read: write it to a temporary file, and drop
// that if Next raises.
#pragma once

#include "agent/Store/Store.h"
#include "agent/Store/ZstdReader.h"

#include <span>

namespace Agent {

class ObjectReader
{
public:
    /// The store outlives the reader.
    explicit ObjectReader(const Store& store);

    /// Starts to read a content of `size` bytes. Raises the operating system's error, ENOENT for an object
    /// that the store does not have.
    void Open(const Address& address, unsigned long long size);
    /// The next block of at most 128 KiB, valid until the next call. Empty at the end, and only when size and
    /// digest proved right; raises InvalidState, naming the object and the offset, as soon as they can't be.
    std::span<const unsigned char> Next();

private:
    const Store& m_store;
    Krt::Util::YUnxHandle m_file;
    Krt::YString m_name; // for messages
    ZstdReader m_reader;
    Sha256 m_hash;
    Address m_address;
    unsigned long long m_size = 0;
    unsigned long long m_read = 0;
};

} // namespace Agent
