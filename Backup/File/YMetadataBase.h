// YMetadataBase: what a backup keeps about one object apart from its contents. Three kinds exist, one class
// each: objects of Windows file systems, of Unix file systems, and ODS objects, which are a job path alone.
// Here stand the kind, the factories that choose the class, and renaming. Objects are handed around as
// boost::shared_ptr<YMetadataBase> and have no lock: one thread uses one at a time, and reading JSON fills
// caches inside the document, so it too belongs to one thread.
#pragma once

#include "Backup/Core/YJobPath.h"
#include "Backup/Export.h"

#include "Krt/JSON/IJSON.h"
#include "Krt/JSON/YObject.h"

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

#include <functional>
#include <string>
#include <vector>

namespace Krt::JSON {
struct MemberKey;
class TextMembers;
} // namespace Krt::JSON

namespace Backup::File {

class YFile;
class YUnixFileMetadata;
class YWinFileMetadata;

/// The kinds of metadata, with their words in JSON.
enum VAM_METADATA_TYPES : unsigned int
{
    VAM_WINDOWS_METADATA_TYPE = 0, ///< "win"
    VAM_UNIX_METADATA_TYPE = 1,    ///< "unix"
    VAM_ODS_METADATA_TYPE = 2      ///< "ods"
};

/// Turns a path of the local file system into the job path under which the object is known in a job; the bool
/// says whether the path is a directory that can be descended into. Called only when an object is built from
/// a live file or from a legacy header.
using JobPathMapper = boost::function<Backup::YJobPath(Krt::File::YPath, bool)>;

class BACKUP_API YMetadataBase : public Krt::JSON::IJSON
{
public:
    /// An object of the kind.
    explicit YMetadataBase(VAM_METADATA_TYPES type);
    /// Reads the kind alone.
    explicit YMetadataBase(const Krt::JSON::YObject& json);

    // In the order of the table of virtual operations.
    ~YMetadataBase() override;
    /// The JSON form; each class adds its keys behind those of this one.
    Krt::JSON::YObject ToJSON() const override;
    /// Reads the kind, whatever the class of the object; a word that is no kind raises InvalidArgument.
    void FromJSON(const Krt::JSON::YObject& json) override;
    /// Replaces all paths of the object by this one.
    virtual void SetFilePath(const YJobPath& path) = 0;
    /// Sets or gives one of the paths; each class says what it makes of an index.
    virtual void SetFilePath(unsigned long index, const YJobPath& path) = 0;
    virtual YJobPath GetFilePath(unsigned long index) const = 0;
    virtual unsigned long GetFilePathCount() const = 0;
    /// The same as FromJSON above, and also takes documents that hold a legacy header. The mapper is called
    /// for those alone; an empty one raises then.
    virtual void FromJSON(const Krt::JSON::YObject& json, JobPathMapper mapper);
    /// Where a path goes when its first components, as many as `replaceSource` has, give way to
    /// `replaceDestination`. Raises InvalidUse if `replaceSource` is the longer one.
    virtual YJobPath GetSanitizedNewPath(const YJobPath& originalPath, const YJobPath& replaceSource,
                                         const YJobPath& replaceDestination) = 0;
    /// Appends the compact text of ToJSON to `out`. The classes of records write it without creating values.
    virtual void StringifyTo(std::string& out) const;

    /// An object of the class that the document names. Raises what the class's FromJSON raises.
    static boost::shared_ptr<YMetadataBase> ConstructFromJson(const Krt::JSON::YObject& json);
    static boost::shared_ptr<YMetadataBase> ConstructFromJson(const Krt::JSON::YObject& json,
                                                              JobPathMapper mapper);
    /// Always a YUnixFileMetadata.
    static boost::shared_ptr<YMetadataBase> ConstructFromFile(YFile& file, JobPathMapper mapper);

    /// The keys of the JSON forms of all classes, "legacy_metadata" included.
    static std::vector<Krt::JSON::MemberKey> ListKeys();

    /// The kind.
    VAM_METADATA_TYPES GetMetadataType() const { return m_type; }
    /// This object as the class of its kind; fails an assertion (InvalidUse) on any other.
    YWinFileMetadata& AsWinFileMetadata();
    YUnixFileMetadata& AsUnixFileMetadata();

    /// Moves the first path that lies within `source` to below `destination`, and returns whether there was
    /// one. A file or directory that `source` names keeps its own name; anything else gives way to
    /// `destination` as a whole. Other paths of the object, and short names, are dropped then. Raises
    /// InvalidUse if `source` is empty.
    bool RenamePath(const YJobPath& source, const YJobPath& destination);

protected:
    /// Appends the compact text of an object to `out`: the kind, then what `describe` adds.
    void WriteText(std::string& out, const std::function<void(Krt::JSON::TextMembers&)>& describe) const;

private:
    VAM_METADATA_TYPES m_type;
};

} // namespace Backup::File
