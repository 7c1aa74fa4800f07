#include "Backup/File/YFileDescriptor.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"
#include "Krt/Log/YStream.h"
#include "Krt/Util/Numbers.h"

#include <tinyxml.h>

#include <algorithm>
#include <string_view>

namespace Backup::File {

using Krt::File::YPath;
using Krt::Match::Descriptor;
using Krt::Util::StringToNumber;

namespace {

constexpr char Separator[] = "/";

void SkipSeparators(std::string_view& text)
{
    text.remove_prefix(std::min(text.find_first_not_of(*Separator), text.size()));
}

// Returns true if the path is strictly below the directory. A run of separators counts as one.
bool IsBelow(std::string_view path, std::string_view directory)
{
    bool atSeparator = false;
    while (!directory.empty()) {
        if (path.empty() || path.front() != directory.front())
            return false;
        atSeparator = path.front() == *Separator;
        path.remove_prefix(1);
        directory.remove_prefix(1);
        if (atSeparator) {
            SkipSeparators(path);
            SkipSeparators(directory);
        }
    }
    if (path.starts_with(*Separator)) {
        atSeparator = true;
        SkipSeparators(path);
    }
    return atSeparator && !path.empty();
}

} // namespace

YFileDescriptor::YFileDescriptor(const YPath& path, bool report)
{
    Initialize(path, report);
}

YFileDescriptor::YFileDescriptor(const YPath& path, const Descriptor& descriptor, bool isRecursive,
                                 bool report)
{
    Initialize(path, descriptor, isRecursive, report);
}

YFileDescriptor::YFileDescriptor(const TiXmlElement* element)
{
    LoadFromXmlNode(element);
}

void YFileDescriptor::Initialize(const YPath& path, bool report)
{
    Initialize(path, Krt::Match::AnyDescriptor(), false, report);
}

void YFileDescriptor::Initialize(const YPath& path, const Descriptor& descriptor, bool isRecursive,
                                 bool report)
{
    if (&path != &m_path)
        m_path = path;
    m_descriptor = descriptor;
    // The result is not used, but callers can observe the access to the directory.
    static_cast<void>(Krt::File::DoesFileExist(m_path));
    if (m_descriptor.GetPattern() == "*.*")
        m_descriptor = Descriptor(m_descriptor.GetMatchType(), "*", m_descriptor.IsCaseSensitive());
    m_isRecursive = isRecursive;
    m_report = report;
}

void YFileDescriptor::LoadFromXmlNode(const TiXmlElement* element)
{
    m_path = YPath(element->Attribute("path"));
    m_loadedPath = m_path;
    m_descriptor = Krt::Match::GlobDescriptor(element->Attribute("fileSpec"), false);
    m_isRecursive = StringToNumber<bool>(element->Attribute("isRecursive"), false, false);
    m_report = StringToNumber<bool>(element->Attribute("report"), false, false);
    m_mountPath = YPath(element->Attribute("mountPath"));
    if (const char* const volumeGuid = element->Attribute("volumeGuid"))
        m_volumeGuid = volumeGuid;
    if (m_mountPath.IsEmpty() || m_volumeGuid.IsEmpty())
        Initialize(m_path, m_descriptor, m_isRecursive, m_report);
}

void YFileDescriptor::SaveToXmlNode(TiXmlElement* parent) const
{
    TiXmlElement element("Descriptor");
    element.SetAttribute("path", m_path.CStr());
    element.SetAttribute("fileSpec", m_descriptor.GetPattern().CStr());
    element.SetAttribute("caseSensitive", m_descriptor.IsCaseSensitive());
    element.SetAttribute("isRecursive", m_isRecursive);
    element.SetAttribute("volumeGuid", m_volumeGuid.CStr());
    element.SetAttribute("mountPath", m_mountPath.CStr());
    element.SetAttribute("report", m_report);
    parent->InsertEndChild(element);
}

bool YFileDescriptor::CheckMatch(const YPath& path) const
{
    return IsBelow(path.Bytes(), m_path.Bytes()) &&
           !Krt::Match::Check(YPath::GetFileFromPath(path, Separator), m_descriptor);
}

bool YFileDescriptor::operator==(const YFileDescriptor& other) const
{
    return m_path == other.m_path && m_descriptor == other.m_descriptor &&
           m_isRecursive == other.m_isRecursive;
}

YFileDescriptor::operator YPath() const
{
    if (m_path.IsEmpty())
        KRT_RAISE_AS("operator YPath", MessageType::General, ErrorCode::InvalidState);
    return m_path + m_descriptor.GetPattern();
}

YPath YFileDescriptor::FileName() const
{
    KRT_RAISE_UNLESS(!m_path.IsEmpty(), ErrorCode::InvalidState);
    return YPath::GetFileFromPath(m_path, Separator);
}

std::list<YString> SplitAbsolutePath(const YPath& path)
{
    std::list<YString> components;
    for (YPath current = path; !current.IsEmpty(); current = current.RemoveFile())
        components.push_front(current == Separator ? YString(Separator)
                                                   : YPath::GetFileFromPath(current, Separator));
    return components;
}

YPath MakeNativeTestPath(YString path)
{
    if (path.Bytes().starts_with("\\\\?\\"))
        path.TrimLeft(4);
    path.Replace("\\", Separator, 0, 0, true);
    return YPath(path).AddLeadingSep();
}

} // namespace Backup::File

Krt::YStream& operator<<(Krt::YStream& stream, const Backup::File::YFileDescriptor& descriptor)
{
    return stream << (descriptor.IsRecursive() ? "Recursive" : "Non-recursive")
                  << " descriptor: " << descriptor.GetPath();
}
