#include "Backup/Core/YJobPath.h"

#include "Krt/Exception/Raise.h"
#include "Krt/JSON/Members.h"
#include "Krt/JSON/YValue.inl"
#include "Krt/KrtFoundation/boostapi.h"

#include <algorithm>
#include <tuple>

using Krt::File::YPath;
using Krt::JSON::ReadMembers;
using Krt::JSON::ValueMembers;
using Krt::JSON::YArray;
using Krt::JSON::YObject;
using Krt::JSON::YValue;

namespace Backup {

namespace {

auto Identity(const YJobPath::Component& component)
{
    return std::tie(component.m_classId, component.m_subclassId, component.m_name.Bytes());
}

bool IsSame(const YJobPath::Component& a, const YJobPath::Component& b)
{
    return Identity(a) == Identity(b);
}

YString JsonText(const YJobPath& path)
{
    return YValue::FromObject(path.ToJSON()).Stringify(true);
}

template <class Members, class Component>
void DescribeComponent(Members& members, Component& component)
{
    members.Number("class_id", component.m_classId);
    members.Number("subclass_id", component.m_subclassId);
    members.Text("name", component.m_name);
    members.OptionalText("display_name", component.m_displayName);
}

} // namespace

YJobPath::Component::Component(const YString& name, const YString& displayName, unsigned int classId,
                               unsigned short subclassId)
    : m_classId(classId), m_subclassId(subclassId), m_name(name), m_displayName(displayName)
{}

YJobPath::YJobPath(const YString& displayPath)
{
    ParseDisplayPath(displayPath);
}

YJobPath::YJobPath(const Component& component) : m_components(1, component) {}

YJobPath::YJobPath(const YJobPath& other, unsigned long start, unsigned long count)
{
    Copy(other, start, count);
}

YJobPath& YJobPath::operator=(YJobPath&& other) noexcept
{
    Move(std::move(other));
    return *this;
}

YJobPath YJobPath::FromFilePath(YJobPath base, YPath path, bool isDirectory)
{
    const YPath volume = path.GetVolume();
    if (!volume.IsEmpty()) {
        base.m_components.emplace_back(volume, YString(), ClassFileSystemContainer, 0);
        path = path.RemoveVolume();
    }
    const std::vector<YString>& names = path.PopulateComponents();
    base.m_components.reserve(base.m_components.size() + names.size());
    for (const YString& name : names) {
        const bool isFile = !isDirectory && &name == &names.back();
        base.m_components.emplace_back(name, YString(),
                                       isFile ? ClassFileSystemFile : ClassFileSystemContainer, 0);
    }
    return base;
}

void YJobPath::ParseDisplayPath(const YString& text)
{
    // Split first: the text may be part of this path.
    const std::vector<YString> fields = text.SectionVector("/", true, true);
    m_components.clear();
    for (const YString& field : fields)
        m_components.emplace_back(field, field, ClassUnknown, 0);
}

YString YJobPath::GetDisplayPath() const
{
    std::string text;
    for (const Component& component : m_components) {
        if (!text.empty())
            text += '/';
        text += component.m_name.Bytes();
    }
    return YString(std::string_view(text));
}

YPath YJobPath::GetFilesystemPortion() const
{
    YPath path("/");
    bool seen = false;
    for (unsigned long i = 0; i < m_components.size(); ++i) {
        if (m_components[i].IsFileSystem()) {
            path = path.Append(m_components[i].m_name);
            seen = true;
        } else {
            KRT_RAISE_UNLESS(!seen, ErrorCode::InvalidArgument,
                             "Job path is invalid, non-fs component found at index "
                                 << i << " after fs-component: " << JsonText(*this));
        }
    }
    KRT_RAISE_UNLESS(seen, ErrorCode::InvalidArgument,
                     "Job path does not contain any filesystem components: " << JsonText(*this));
    return path;
}

const YJobPath::Component& YJobPath::GetComponent(unsigned long index) const
{
    ValidateRange(index);
    return m_components[index];
}

const YJobPath::Component& YJobPath::GetRoot() const
{
    KRT_RAISE_UNLESS(!m_components.empty(), ErrorCode::EmptyJobPath, "Cannot GetRoot on empty YJobPath");
    return m_components.front();
}

const YJobPath::Component& YJobPath::GetLeaf() const
{
    KRT_RAISE_UNLESS(!m_components.empty(), ErrorCode::EmptyJobPath, "Cannot GetLeaf on empty YJobPath");
    return m_components.back();
}

YObject YJobPath::ToJSON() const
{
    YObject json;
    json.Reserve(1);
    ValueMembers members(json);
    Describe(members, *this);
    return json;
}

template <class Members>
void YJobPath::Describe(Members& members, const YJobPath& path)
{
    members.Objects("components", path.m_components, &DescribeComponent<Members, const Component>);
}

template BACKUP_API void YJobPath::Describe(ValueMembers& members, const YJobPath& path);
template BACKUP_API void YJobPath::Describe(Krt::JSON::TextMembers& members, const YJobPath& path);
template BACKUP_API void YJobPath::Describe(Krt::JSON::KeyMembers& members, const YJobPath& path);

unsigned long YJobPath::Find(unsigned long start, unsigned long classId) const
{
    for (unsigned long i = start; i < m_components.size(); ++i) {
        if (m_components[i].m_classId == classId)
            return i;
    }
    return m_components.size();
}

void YJobPath::ValidateRange(unsigned long index) const
{
    KRT_RAISE_UNLESS(index < m_components.size(), ErrorCode::InvalidArgument,
                     "Index " << index << " out of range of total components " << GetComponentCount());
}

void YJobPath::RemoveLeaf()
{
    if (!m_components.empty())
        m_components.pop_back();
}

void YJobPath::AppendComponent(const Component& component)
{
    m_components.push_back(component);
}

YJobPath& YJobPath::operator+=(const Component& component)
{
    AppendComponent(component);
    return *this;
}

void YJobPath::Append(const YJobPath& other)
{
    // By index and after reserving memory, so that a path can be appended to itself.
    const unsigned long count = other.m_components.size();
    m_components.reserve(m_components.size() + count);
    for (unsigned long i = 0; i < count; ++i)
        m_components.push_back(other.m_components[i]);
}

void YJobPath::Copy(const YJobPath& other, unsigned long start, unsigned long count)
{
    const std::vector<Component>& source = other.m_components;
    const unsigned long first = std::min<unsigned long>(start, source.size());
    const unsigned long last = first + std::min<unsigned long>(count, source.size() - first);
    m_components = std::vector<Component>(source.begin() + first, source.begin() + last);
}

void YJobPath::Move(YJobPath&& other) noexcept
{
    if (this != &other)
        m_components = std::move(other.m_components);
}

bool YJobPath::IsWithin(const YJobPath& parent) const
{
    return parent.m_components.size() <= m_components.size() &&
           std::equal(parent.m_components.begin(), parent.m_components.end(), m_components.begin(), IsSame);
}

bool YJobPath::operator==(const YJobPath& other) const
{
    return m_components.size() == other.m_components.size() && IsWithin(other);
}

bool YJobPath::operator<(const YJobPath& other) const
{
    return std::lexicographical_compare(
        m_components.begin(), m_components.end(), other.m_components.begin(), other.m_components.end(),
        [](const Component& a, const Component& b) { return Identity(a) < Identity(b); });
}

} // namespace Backup

namespace Krt::JSON {

using Backup::YJobPath;

template <>
YJobPath::Component YValue::Convert<YJobPath::Component>() const
{
    YJobPath::Component component;
    ReadMembers members(AsObject());
    Backup::DescribeComponent(members, component);
    return component;
}

template <>
YJobPath YValue::Convert<YJobPath>() const
{
    const YArray& components = AsObject().Get<YArray>("components", MessageType::Runtime);
    YJobPath path;
    path.Reserve(components.size());
    for (const boost::shared_ptr<YValue>& component : components)
        path.AppendComponent(component->Convert<YJobPath::Component>());
    return path;
}

template <>
boost::shared_ptr<YValue> YValue::Create<YJobPath::Component>(YJobPath::Component component)
{
    YObject json;
    ValueMembers members(json);
    Backup::DescribeComponent(members, std::as_const(component));
    return Create<YObject>(std::move(json));
}

template <>
boost::shared_ptr<YValue> YValue::Create<YJobPath>(YJobPath path)
{
    return Create<YObject>(path.ToJSON());
}

template const YJobPath& YValue::Get<YJobPath>() const;
template const YJobPath& YObject::Get<YJobPath>(Key, unsigned int) const;

} // namespace Krt::JSON
