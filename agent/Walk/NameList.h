// NameList: the names of one directory, sorted by their bytes. It is packed for the sake of large
// directories: a name occupies its bytes and 16 more.
#pragma once

#include "Krt/File/YDirectory.h"

#include <string>
#include <string_view>
#include <vector>

namespace Agent {

class NameList
{
public:
    /// Lists the directory. Raises the operating system's error.
    explicit NameList(const Krt::File::YDirectory& directory);

    std::size_t Size() const { return m_entries.size(); }
    /// Returns the name, which is valid as long as the list.
    std::string_view NameAt(std::size_t index) const { return Text(m_entries[index]); }
    bool Contains(std::string_view name) const;
    /// Returns a DT_ constant of <dirent.h>.
    unsigned char TypeAt(std::size_t index) const { return m_entries[index].type; }

private:
    struct Entry
    {
        unsigned long long offset;
        unsigned short length; // NAME_MAX is 255
        unsigned char type;
    };
    std::string_view Text(const Entry& entry) const
    {
        return std::string_view(m_bytes).substr(entry.offset, entry.length);
    }

    std::string m_bytes;
    std::vector<Entry> m_entries;
};

} // namespace Agent
