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

/// The kinds of metadata. The comments are their words in JSON.
enum VAM_METADATA_TYPES : unsigned int
{
    VAM_WINDOWS_METADATA_TYPE = 0, ///< "win"
    VAM_UNIX_METADATA_TYPE = 1,    ///< "unix"
    VAM_ODS_METADATA_TYPE = 2      ///< "ods"
};

/// Maps a path of the local file system to the object's job path. The bool is true if the path is a
/// directory that can be descended into. Called only when an object is built from a live file or from a
/// legacy header.
using JobPathMapper = boost::function<Backup::YJobPath(Krt::File::YPath, bool)>;

/// The metadata of one object of a backup: everything except its contents. There are three kinds with one
/// class each: objects of Windows file systems, objects of Unix file systems, and ODS objects, which have
/// only a job path. This class provides the kind, the factories that choose the class, and renaming.
/// Objects are shared as boost::shared_ptr<YMetadataBase> and have no lock: one thread at a time. Reading
/// JSON fills caches inside the document, so a document also belongs to one thread.
class BACKUP_API YMetadataBase : public Krt::JSON::IJSON
{
public:
    /// An object of the kind `type`.
    explicit YMetadataBase(VAM_METADATA_TYPES type);
    /// Reads only the kind.
    explicit YMetadataBase(const Krt::JSON::YObject& json);

    // The order of the virtual operations is part of the binary interface.
    ~YMetadataBase() override;
    /// Returns the JSON form; each derived class appends its keys to those of this class.
    Krt::JSON::YObject ToJSON() const override;
    /// Reads the kind, whatever the class of the object. Raises InvalidArgument for a word that is not a
    /// kind.
    void FromJSON(const Krt::JSON::YObject& json) override;
    /// Replaces all paths of the object by `path`.
    virtual void SetFilePath(const YJobPath& path) = 0;
    /// Sets the path at `index`. Each class defines which indexes it accepts.
    virtual void SetFilePath(unsigned long index, const YJobPath& path) = 0;
    /// Returns the path at `index`. Each class defines which indexes it accepts.
    virtual YJobPath GetFilePath(unsigned long index) const = 0;
    /// The number of paths.
    virtual unsigned long GetFilePathCount() const = 0;
    /// Reads a document as FromJSON(json) does, but accepts a legacy header. `mapper` is called only for a
    /// legacy header; an empty one raises then.
    virtual void FromJSON(const Krt::JSON::YObject& json, JobPathMapper mapper);
    /// Returns `originalPath` with its first components, as many as `replaceSource` has, replaced by
    /// `replaceDestination`. Raises InvalidUse if `replaceSource` is longer than `originalPath`.
    virtual YJobPath GetSanitizedNewPath(const YJobPath& originalPath, const YJobPath& replaceSource,
                                         const YJobPath& replaceDestination) = 0;
    /// Appends the compact text of ToJSON to `out`. The derived classes write it without creating values.
    virtual void StringifyTo(std::string& out) const;

    /// Returns an object of the class that the document names. Raises the errors of the class's FromJSON.
    static boost::shared_ptr<YMetadataBase> ConstructFromJson(const Krt::JSON::YObject& json);
    /// Returns an object of the class that the document names, which may contain a legacy header. Raises
    /// the errors of the class's FromJSON.
    static boost::shared_ptr<YMetadataBase> ConstructFromJson(const Krt::JSON::YObject& json,
                                                              JobPathMapper mapper);
    /// Returns a YUnixFileMetadata of `file`; see its constructor.
    static boost::shared_ptr<YMetadataBase> ConstructFromFile(YFile& file, JobPathMapper mapper);

    /// Returns the keys of the JSON forms of all classes, including "legacy_metadata".
    static std::vector<Krt::JSON::MemberKey> ListKeys();

    /// The kind, which does not always match the class; see FromJSON.
    VAM_METADATA_TYPES GetMetadataType() const { return m_type; }
    /// This object as a YWinFileMetadata. Fails an assertion (InvalidUse) for another kind.
    YWinFileMetadata& AsWinFileMetadata();
    /// This object as a YUnixFileMetadata. Fails an assertion (InvalidUse) for another kind.
    YUnixFileMetadata& AsUnixFileMetadata();

    /// Moves the first path that is within `source` to below `destination`. Returns false if there is no
    /// such path. A file or directory that `source` names keeps its own name; any other item is replaced by
    /// `destination` as a whole. The object's other paths and the short names are dropped then. Raises
    /// InvalidUse if `source` is empty.
    bool RenamePath(const YJobPath& source, const YJobPath& destination);

protected:
    /// Appends the compact text of an object to `out`: the kind, then the members that `describe` adds.
    void WriteText(std::string& out, const std::function<void(Krt::JSON::TextMembers&)>& describe) const;

private:
    VAM_METADATA_TYPES m_type;
};

} // namespace Backup::File
