#include "agent/Backup/LinkedContents.h"

namespace Agent {

using Krt::File::FileId;

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
        std::unique_lock lock(content->mutex);
        if (!content->stored) {
            content->waiting.push_back(std::move(onDone));
            return nullptr;
        }
        lock.unlock();
        onDone(*content->stored);
        return nullptr;
    }
    const auto content = std::make_shared<Content>();
    content->waiting.push_back(std::move(onDone));
    m_files.insert_or_assign(FileId(status),
                             File{content, static_cast<nlink_t>(status.st_nlink - 1), status});
    return [content](const StoredContent& stored) {
        std::unique_lock lock(content->mutex);
        content->stored = stored;
        content->stored->added = content->stored->packed = 0; // they count for the first name
        const std::vector<Completion> waiting = std::exchange(content->waiting, {});
        lock.unlock();
        for (const Completion& each : waiting)
            each(&each == &waiting.front() ? stored : *content->stored);
    };
}

void LinkedContents::Forget(const struct stat& status)
{
    const auto found = m_files.find(FileId(status));
    if (found != m_files.end() && --found->second.namesToCome == 0)
        m_files.erase(found);
}

} // namespace Agent
