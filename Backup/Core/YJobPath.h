// YJobPath: names an item of a backup job. A job may hold things other than files, so a job path is a list of
// typed components, the root first and the leaf last; the components of the two file system classes form a
// file path. An empty job path is valid. A plain value without a lock.
#pragma once

#include "Backup/Export.h"

#include "Krt/File/YPath.h"
#include "Krt/JSON/YValue.h"

#include <vector>

namespace Backup {

class BACKUP_API YJobPath
{
public:
    static constexpr unsigned int ClassUnknown = 0;                 ///< parsed from display text
    static constexpr unsigned int ClassFileSystemContainer = 0x602; ///< a directory or a volume
    static constexpr unsigned int ClassFileSystemFile = 0x603;      ///< anything else that has a path

    /// One level. Other classes than those above may come from elsewhere and are kept as they are.
    class BACKUP_API Component
    {
    public:
        /// Numbers 0, names empty.
        Component() = default;
        /// Takes all four as they are.
        Component(const YString& name, const YString& displayName, unsigned int classId,
                  unsigned short subclassId);
        /// Whether it is of one of the two file system classes.
        bool IsFileSystem() const { return (m_classId & ~1u) == ClassFileSystemContainer; }

        unsigned int m_classId = 0;      ///< what kind of thing it is
        unsigned short m_subclassId = 0; ///< a finer kind within the class
        YString m_name;                  ///< by which it is known
        YString m_displayName;           ///< text for people; may be empty and plays no part in comparisons
    };

    YJobPath() = default;
    /// As ParseDisplayPath.
    YJobPath(const YString& displayPath);
    /// Of one component.
    YJobPath(const Component& component);
    /// As Copy.
    YJobPath(const YJobPath& other, unsigned long start, unsigned long count);
    YJobPath(const YJobPath&) = default;
    YJobPath(YJobPath&& other) noexcept = default;
    YJobPath& operator=(const YJobPath&) = default;
    YJobPath& operator=(YJobPath&& other) noexcept;

    /// `base`, then the path's volume if it has one, then its components. All are containers, save the last
    /// one when `isDirectory` is false. They get no display names.
    static YJobPath FromFilePath(YJobPath base, Krt::File::YPath path, bool isDirectory);
    /// Replaces the content by a component of unknown class for each piece between "/" that isn't empty.
    void ParseDisplayPath(const YString& text);
    /// The names, not the display names, joined by "/".
    YString GetDisplayPath() const;
    /// As GetDisplayPath.
    operator YString() const { return GetDisplayPath(); }
    /// The file path that the file system components give, which starts at "/". Raises InvalidArgument if
    /// there is no such component, or if another one stands behind the first of them.
    Krt::File::YPath GetFilesystemPortion() const;

    /// 0 for an empty path.
    unsigned long GetComponentCount() const { return m_components.size(); }
    /// Valid until the next change; raises InvalidArgument past the end.
    const Component& GetComponent(unsigned long index) const;
    /// Raise EmptyJobPath on an empty path.
    const Component& GetRoot() const;
    const Component& GetLeaf() const;
    /// Index of the first component of the class at or behind `start`; the count if there is none.
    unsigned long Find(unsigned long start, unsigned long classId) const;
    /// The JSON form, see below.
    Krt::JSON::YObject ToJSON() const;
    /// Gives the members of the JSON form to a class of Krt/JSON/Members.h.
    template <class Members>
    static void Describe(Members& members, const YJobPath& path);
    /// Raises InvalidArgument if the index isn't below the count.
    void ValidateRange(unsigned long index) const;

    /// No effect on an empty path.
    void RemoveLeaf();
    /// Adds a copy behind the leaf.
    void AppendComponent(const Component& component);
    /// Appends a component after the leaf, moving it in.
    void AppendComponent(Component&& component) { m_components.push_back(std::move(component)); }
    /// Makes room for so many components at once.
    void Reserve(unsigned long count) { m_components.reserve(count); }
    /// Adds a component behind the leaf, or all of the other path.
    YJobPath& operator+=(const Component& component);
    void Append(const YJobPath& other);
    /// Replaces the content by at most `count` components of `other` from `start` on; cut at its end.
    void Copy(const YJobPath& other, unsigned long start, unsigned long count);
    /// Takes over the other's components and leaves it empty.
    void Move(YJobPath&& other) noexcept;

    /// Whether `parent` is a prefix: each path is within itself, and all are within the empty one.
    bool IsWithin(const YJobPath& parent) const;
    /// Same classes, subclasses and names.
    bool operator==(const YJobPath& other) const;
    /// By class, subclass and bytes of the name, component by component; then the shorter first.
    bool operator<(const YJobPath& other) const;

private:
    std::vector<Component> m_components;
};

} // namespace Backup

namespace Krt::JSON {

// The JSON form: an object with the array "components", whose elements have "class_id", "subclass_id", "name"
// and, where it isn't empty, "display_name".
template <>
BACKUP_API Backup::YJobPath YValue::Convert<Backup::YJobPath>() const;
template <>
BACKUP_API Backup::YJobPath::Component YValue::Convert<Backup::YJobPath::Component>() const;
template <>
BACKUP_API boost::shared_ptr<YValue> YValue::Create<Backup::YJobPath>(Backup::YJobPath path);
template <>
BACKUP_API boost::shared_ptr<YValue>
YValue::Create<Backup::YJobPath::Component>(Backup::YJobPath::Component component);

} // namespace Krt::JSON
