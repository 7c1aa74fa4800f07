#pragma once

#include "Backup/Export.h"

#include "Krt/File/YPath.h"
#include "Krt/JSON/YValue.h"

#include <vector>

namespace Backup {

/// The name of an item of a backup job: a list of typed components, the root first and the leaf last. A job
/// may contain items that are not files. The components of the two file system classes form a file path. An
/// empty job path is valid. A plain value without a lock.
class BACKUP_API YJobPath
{
public:
    static constexpr unsigned int ClassUnknown = 0;                 ///< parsed from display text
    static constexpr unsigned int ClassFileSystemContainer = 0x602; ///< a directory or a volume
    static constexpr unsigned int ClassFileSystemFile = 0x603;      ///< anything else that has a path

    /// One component. Classes other than those above are accepted and kept unchanged.
    class BACKUP_API Component
    {
    public:
        /// All numbers are 0 and both names empty.
        Component() = default;
        /// Stores the arguments unchanged.
        Component(const YString& name, const YString& displayName, unsigned int classId,
                  unsigned short subclassId);
        /// Returns true if the component is of one of the two file system classes.
        bool IsFileSystem() const { return (m_classId & ~1u) == ClassFileSystemContainer; }

        unsigned int m_classId = 0;      ///< kind of the item
        unsigned short m_subclassId = 0; ///< finer kind within the class
        YString m_name;                  ///< identifies the item within its parent
        YString m_displayName;           ///< text for users; may be empty, is not compared
    };

    YJobPath() = default;
    /// Parses display text; see ParseDisplayPath.
    YJobPath(const YString& displayPath);
    /// A path of one component.
    YJobPath(const Component& component);
    /// A part of `other`; see Copy.
    YJobPath(const YJobPath& other, unsigned long start, unsigned long count);
    YJobPath(const YJobPath&) = default;
    YJobPath(YJobPath&& other) noexcept = default;
    YJobPath& operator=(const YJobPath&) = default;
    /// Moves the components of `other`, which is empty afterwards.
    YJobPath& operator=(YJobPath&& other) noexcept;

    /// Returns `base` followed by the path's volume, if it has one, and the path's components. All are
    /// containers; only the last one is a file if `isDirectory` is false. Display names are empty.
    static YJobPath FromFilePath(YJobPath base, Krt::File::YPath path, bool isDirectory);
    /// Replaces the content by a component of ClassUnknown for each non-empty piece between "/".
    void ParseDisplayPath(const YString& text);
    /// Returns the names (not the display names), joined by "/".
    YString GetDisplayPath() const;
    /// Converts to the text of GetDisplayPath.
    operator YString() const { return GetDisplayPath(); }
    /// Returns the file path that the file system components form; it begins with "/". Raises
    /// InvalidArgument if there is no such component, or if a component of another class follows the first
    /// of them.
    Krt::File::YPath GetFilesystemPortion() const;

    /// The number of components; 0 for an empty path.
    unsigned long GetComponentCount() const { return m_components.size(); }
    /// Returns the component at `index`, valid until the next change. Raises InvalidArgument if `index` is
    /// not below the count.
    const Component& GetComponent(unsigned long index) const;
    /// Returns the first component. Raises EmptyJobPath on an empty path.
    const Component& GetRoot() const;
    /// Returns the last component. Raises EmptyJobPath on an empty path.
    const Component& GetLeaf() const;
    /// Returns the index of the first component of class `classId` at or after `start`, or the component
    /// count if there is no such component.
    unsigned long Find(unsigned long start, unsigned long classId) const;
    /// Returns the JSON form: an object with the array "components". Its elements have "class_id",
    /// "subclass_id", "name" and, unless it is empty, "display_name".
    Krt::JSON::YObject ToJSON() const;
    /// Passes the members of the JSON form to a class of Krt/JSON/Members.h.
    template <class Members>
    static void Describe(Members& members, const YJobPath& path);
    /// Raises InvalidArgument if `index` is not below the count.
    void ValidateRange(unsigned long index) const;

    /// Removes the last component; has no effect on an empty path.
    void RemoveLeaf();
    /// Appends a copy of `component`.
    void AppendComponent(const Component& component);
    /// Appends `component`, which is moved from.
    void AppendComponent(Component&& component) { m_components.push_back(std::move(component)); }
    /// Allocates memory for `count` components in total.
    void Reserve(unsigned long count) { m_components.reserve(count); }
    /// Appends a copy of `component`.
    YJobPath& operator+=(const Component& component);
    /// Appends all components of `other`.
    void Append(const YJobPath& other);
    /// Replaces the content by the components of `other` from index `start`: `count` of them, or fewer if
    /// `other` ends earlier.
    void Copy(const YJobPath& other, unsigned long start, unsigned long count);
    /// Moves the components of `other`, which is empty afterwards.
    void Move(YJobPath&& other) noexcept;

    /// Returns true if `parent` is a prefix of this path. Each path is within itself, and all paths are
    /// within the empty one.
    bool IsWithin(const YJobPath& parent) const;
    /// Compares classes, subclasses and names.
    bool operator==(const YJobPath& other) const;
    /// Orders by class, subclass and bytes of the name, component by component; a prefix is less than the
    /// longer path.
    bool operator<(const YJobPath& other) const;

private:
    std::vector<Component> m_components;
};

} // namespace Backup

namespace Krt::JSON {

/// Reads a job path from the form that YJobPath::ToJSON returns.
template <>
BACKUP_API Backup::YJobPath YValue::Convert<Backup::YJobPath>() const;
/// Reads one component from an element of "components".
template <>
BACKUP_API Backup::YJobPath::Component YValue::Convert<Backup::YJobPath::Component>() const;
/// The value that YJobPath::ToJSON returns.
template <>
BACKUP_API boost::shared_ptr<YValue> YValue::Create<Backup::YJobPath>(Backup::YJobPath path);
/// An element of "components".
template <>
BACKUP_API boost::shared_ptr<YValue>
YValue::Create<Backup::YJobPath::Component>(Backup::YJobPath::Component component);

} // namespace Krt::JSON
