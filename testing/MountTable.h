// A table of mounts as text, in force for as long as the object lives: lines "source directory type options".
#pragma once

#include "testing/TemporaryDirectory.h"

#include "Krt/Volume/MountTable.h"

namespace Testing {

class MountTable
{
public:
    explicit MountTable(const std::string& text) : m_file(m_directory.Write("mounts", text))
    {
        Krt::Volume::SetMountTableForTesting(m_file.c_str());
    }
    ~MountTable() { Krt::Volume::SetMountTableForTesting(nullptr); }

private:
    TemporaryDirectory m_directory;
    std::string m_file;
};

} // namespace Testing
