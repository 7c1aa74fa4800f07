// SparseWriter: writes a new file from its start and leaves holes for long runs of zeros.
#pragma once

#include "Krt/Util/YUnxHandle.h"

#include <span>

namespace Agent {

class SparseWriter
{
public:
    /// The file is new and empty, and outlives the writer.
    explicit SparseWriter(const Krt::Util::YUnxHandle& file) : m_file(file) {}

    /// Writes at the end. Raises the operating system's error, as Finish does.
    void Append(std::span<const unsigned char> data);
    /// Gives the file its full size, which a hole at the end needs.
    void Finish();
    unsigned long long GetSize() const { return m_size; }

private:
    void Write(std::span<const unsigned char> data, unsigned long long offset) const;

    const Krt::Util::YUnxHandle& m_file;
    unsigned long long m_size = 0;
    unsigned long long m_written = 0; // end of the last piece that was written
};

} // namespace Agent
