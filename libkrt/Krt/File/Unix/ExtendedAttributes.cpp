#include "Krt/Exception/Raise.h"
#include "Krt/File/Unix/Arguments.h"
#include "Krt/File/Unix/Platform.h"
#include "Krt/File/YDirectory.h"
#include "Krt/File/YEntry.h"

#include <cstring>
#include <vector>

namespace Krt::File {

namespace {

[[noreturn, gnu::cold]] void RaiseAttributeError(int error, const char* function, const char* action,
                                                 const char* attribute, const char* name)
{
    KRT_RAISE_OS_AS(function, MessageType::General, error,
                    "Failed to " << action << attribute << " of: " << name);
}

// The answer of a call, whose length is unknown. Most answers fit into the buffer of the first call.
class Answer
{
public:
    /// Returns 0, or the call's error number. If the answer is longer, queries its size and repeats the call
    /// with some room to spare, until the answer fits.
    template <class Call>
    int Fetch(Call call)
    {
        m_data = m_first;
        auto size = Util::CallSystem([&] { return call(m_first, Room); });
        while (size.error == ERANGE) {
            size = Util::CallSystem([&] { return call(static_cast<char*>(nullptr), std::size_t{0}); });
            if (!size)
                break;
            m_grown.resize(static_cast<std::size_t>(size.value) + Room + 1);
            m_data = m_grown.data();
            size = Util::CallSystem([&] { return call(m_data, m_grown.size() - 1); });
        }
        if (!size)
            return size.error;
        m_size = static_cast<std::size_t>(size.value);
        m_data[m_size] = '\0';
        return 0;
    }

    const char* begin() const { return m_data; }
    const char* end() const { return m_data + m_size; }
    std::size_t Size() const { return m_size; }

private:
    static constexpr std::size_t Room = 4096;

    char m_first[Room + 1];
    std::vector<char> m_grown;
    char* m_data = m_first;
    std::size_t m_size = 0;
};

// Calls the visitor with each name.
template <class Visitor>
void ForEachName(const AttributeTarget& target, const char* name, const char* function, Visitor visitor)
{
    Answer names;
    if (const int error =
            names.Fetch([&](char* buffer, std::size_t size) { return target.List(buffer, size); }))
        RaiseAttributeError(error, function, "list extended attributes", "", name);
    for (const char* attribute = names.begin(); attribute < names.end();
         attribute += std::strlen(attribute) + 1)
        visitor(attribute);
}

std::list<YString> List(const AttributeTarget& target, const char* name, const char* function)
{
    std::list<YString> attributes;
    ForEachName(target, name, function, [&](const char* attribute) { attributes.emplace_back(attribute); });
    return attributes;
}

ExtendedAttributeMap GetMap(const AttributeTarget& target, const char* name, const char* function)
{
    ExtendedAttributeMap map;
    Answer value;
    ForEachName(target, name, function, [&](const char* attribute) {
        const int error =
            value.Fetch([&](char* buffer, std::size_t size) { return target.Get(attribute, buffer, size); });
        if (error == 0)
            map.try_emplace(YString(attribute), value.begin(), value.Size());
        // Passing on ENOTSUP would mean that the entry has no attributes at all, and the others would be
        // lost.
        else if (!AttributeTarget::IsMissing(error) && error != ENOTSUP)
            RaiseAttributeError(error, function, "get extended attribute ", attribute, name);
    });
    return map;
}

void Add(const AttributeTarget& target, const YString& attribute, const void* data, unsigned int size,
         unsigned int flags, const char* name, const char* function)
{
    const auto set = Util::CallSystem([&] { return target.Set(attribute.CStr(), data, size, flags); });
    if (!set)
        RaiseAttributeError(set.error, function, "set extended attribute ", attribute.CStr(), name);
}

} // namespace

AttributeTarget YEntry::Target(const char* function) const
{
    if (m_handle != nullptr)
        return AttributeTarget(DescriptorOf(*m_handle, function));
    if (m_directory == nullptr)
        return AttributeTarget(m_name->CStr());
    return AttributeTarget(m_directory->GetHandle().Get(), CheckEntryName(*m_name, function), function);
}

const char* YEntry::Describe() const
{
    return m_handle != nullptr ? "open file" : m_name->CStr();
}

std::list<YString> YEntry::ListExtendedAttributes() const
{
    return List(Target(__func__), Describe(), __func__);
}

ExtendedAttributeMap YEntry::GetExtendedAttributeMap() const
{
    return GetMap(Target(__func__), Describe(), __func__);
}

void YEntry::AddExtendedAttribute(const YString& attribute, const void* data, unsigned int size,
                                  unsigned int flags) const
{
    Add(Target(__func__), attribute, data, size, flags, Describe(), __func__);
}

std::list<YString> ListExtendedAttributes(const YPath& path)
{
    return YEntry(path).ListExtendedAttributes();
}

ExtendedAttributeMap GetExtendedAttributeMap(const YPath& path)
{
    return YEntry(path).GetExtendedAttributeMap();
}

void AddExtendedAttribute(const YPath& path, const YString& name, const void* data, unsigned int size,
                          unsigned int flags)
{
    YEntry(path).AddExtendedAttribute(name, data, size, flags);
}

} // namespace Krt::File
