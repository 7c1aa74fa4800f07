#include "agent/Walk/EntryFilter.h"

#include "agent/Walk/NameList.h"

#include "Krt/Exception/YError.h"

namespace Agent {

using Krt::File::YDirectory;

namespace {

bool HasHeader(const YDirectory& directory, const DirectoryMark& mark)
{
    try {
        const Krt::Util::YUnxHandle file = directory.OpenFile(Krt::YString(mark.name));
        if (!S_ISREG(Krt::File::Stat(file).st_mode))
            return false;
        std::string header(mark.header.size(), '\0');
        const std::size_t size =
            Krt::File::Read(file, 0, header.size(), reinterpret_cast<unsigned char*>(header.data()));
        return size == header.size() && header == mark.header;
    } catch (const Krt::Exception::YError&) {
        return false;
    }
}

} // namespace

DirectoryMark CacheMark()
{
    return {"CACHEDIR.TAG", "Signature: 8a477f597d28d172789f06886806bc55"};
}

std::vector<std::string> EntryFilter::MarksIn(const YDirectory& directory, const NameList& names) const
{
    std::vector<std::string> valid;
    for (const DirectoryMark& mark : marks) {
        if (names.Contains(mark.name) && (mark.header.empty() || HasHeader(directory, mark)))
            valid.push_back(mark.name);
    }
    return valid;
}

} // namespace Agent
