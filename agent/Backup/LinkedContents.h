// LinkedContents: the contents of files with several names, so that each is read once. A file is remembered
// until all of its names have come. A file that changed meanwhile counts as another one: the inode may have
// been reused.
#pragma once

#include "agent/Backup/ContentPool.h"

#include "Krt/File/Unix/Status.h"
#include "Krt/Thread/ThreadSafety.h"

#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace Agent {

/// Names come on one thread; contents are completed by any.
class LinkedContents
{
public:
    using Completion = std::function<void(const StoredContent& content)>;

    /// Returns true if a file may have other names.
    static bool MayHave(const struct stat& status) { return status.st_nlink > 1; }
    /// Handles a name of a file. Returns a completion to be called with the content if the file is to be
    /// read, otherwise null. `onDone` is called once the content is known, at once or by another thread.
    Completion Join(const struct stat& status, Completion onDone);
    /// A name of the file needs no content.
    void Forget(const struct stat& status);

private:
    // What the names share.
    struct Content
    {
        Krt::Thread::AnnotatedMutex mutex;
        std::shared_ptr<const StoredContent> stored KRT_GUARDED_BY(mutex); // for all names but the first
        std::vector<Completion> waiting KRT_GUARDED_BY(mutex);
    };
    struct File
    {
        std::shared_ptr<Content> content;
        nlink_t namesToCome = 0;
        struct stat status = {};
    };

    std::map<Krt::File::FileId, File> m_files;
};

} // namespace Agent
