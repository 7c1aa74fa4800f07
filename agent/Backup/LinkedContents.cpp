#include "agent/Backup/LinkedContents.h"

namespace Agent {

using Krt::File::FileId;
using Krt::Thread::AnnotatedLock;

namespace {

bool IsSameTime(const timespec& a, const timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool IsSameFile(const struct stat& a, const struct stat& b)
{
    return a.st_size == b.st_size && IsSameTime(Krt::File::WriteTime(a), Krt::File::WriteTime(b)) &&
           IsSameTime(Krt::File::ChangeTime(a), Krt::File::ChangeTime(b));
}

} // namespace

LinkedContents::Completion LinkedContents::Join(const struct stat& status, Completion onDone)
{
    const auto found = m_files.find(FileId(status));
    if (found != m_files.end() && IsSameFile(found->second.status, status)) {
        const std::shared_ptr<Content> content = found->second.content;
        Forget(status);
        AnnotatedLock lock(content->mutex);
        const std::shared_ptr<const StoredContent> stored = content->stored;
        if (stored == nullptr) {
            content->waiting.push_back(std::move(onDone));
            return nullptr;
        }
        lock.Unlock();
        onDone(*stored);
        return nullptr;
    }
    const auto content = std::make_shared<Content>();
    {
        const AnnotatedLock lock(content->mutex);
        content->waiting.push_back(std::move(onDone));
    }
    m_files.insert_or_assign(FileId(status),
                             File{content, static_cast<nlink_t>(status.st_nlink - 1), status});
    return [content](const StoredContent& stored) {
        const auto others = std::make_shared<StoredContent>(stored);
        others->added = others->packed = 0; // they count for the first name
        AnnotatedLock lock(content->mutex);
        content->stored = others;
        const std::vector<Completion> waiting = std::exchange(content->waiting, {});
        lock.Unlock();
        for (const Completion& each : waiting)
            each(&each == &waiting.front() ? stored : *others);
    };
}

void LinkedContents::Forget(const struct stat& status)
{
    const auto found = m_files.find(FileId(status));
    if (found != m_files.end() && --found->second.namesToCome == 0)
        m_files.erase(found);
}

} // namespace Agent
