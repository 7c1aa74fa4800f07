#include "agent/Restore/ExistingEntries.h"

#include "agent/Run/Interrupt.h"

#include "Krt/File/File.h"
#include "Krt/File/Unix/Status.h"
#include "Krt/Util/YUnxHandle.h"

#include <algorithm>
#include <span>

namespace Agent {

using Krt::File::FileId;
using Krt::File::YDirectory;
using Repo::BlobType;
using Repo::Id;

namespace {

bool IsEarlier(const timespec& a, const timespec& b)
{
    return std::pair(a.tv_sec, a.tv_nsec) < std::pair(b.tv_sec, b.tv_nsec);
}

} // namespace

const YDirectory* ExistingEntries::ParentOf(const TargetLocation& location)
{
    if (m_root == nullptr || location.size() == 1)
        return m_root;
    const auto directories = std::span(location).first(location.size() - 1);
    if (!m_isParentKnown ||
        !std::equal(directories.begin(), directories.end(), m_location.begin(), m_location.end())) {
        m_parent.reset();
        m_location.assign(directories.begin(), directories.end());
        m_isParentKnown = true;
        try {
            m_parent = m_root->OpenBelow(directories);
        } catch (const Krt::Exception::YError&) {
            // missing, not a directory, or not readable: the writer looks again
        }
    }
    return m_parent ? &*m_parent : nullptr;
}

bool IsKept(Overwrite overwrite, const struct stat& existing, const RestoreItem& item)
{
    return overwrite == Overwrite::Never ||
           (overwrite == Overwrite::IfNewer &&
            !IsEarlier(Krt::File::WriteTime(existing), item.recorded.attributes.write));
}

void ChooseAction(Overwrite overwrite, RestoreItem& item)
{
    using Action = RestoreItem::Action;
    const timespec& written = item.recorded.attributes.write;
    const timespec& existing = Krt::File::WriteTime(item.existing);
    item.action = IsKept(overwrite, item.existing, item) ? Action::Skip : Action::Update;
    if (item.action == Action::Update && overwrite == Overwrite::IfChanged &&
        S_ISREG(item.existing.st_mode) && item.recorded.type == S_IFREG &&
        static_cast<std::uint64_t>(item.existing.st_size) == item.recorded.size && IsSame(existing, written))
        item.action = Action::KeepUnchanged;
}

void CompareContent(const Repo::Index& index, const YDirectory& parent, RestoreItem& item)
{
    try {
        const Krt::Util::YUnxHandle file = parent.OpenFile(item.location.back());
        const struct stat status = Krt::File::Stat(file);
        if (FileId(status) != FileId(item.existing) || !S_ISREG(status.st_mode))
            return;
        Repo::Bytes buffer;
        std::uint64_t offset = 0;
        for (const Id& id : item.content) {
            RaiseIfInterrupted();
            const auto found = index.Find({BlobType::Data, id});
            if (!found) {
                item.isUpToDate.clear();
                return;
            }
            const std::uint64_t length = found->blob.plainLength;
            const bool fits = offset + length <= static_cast<std::uint64_t>(status.st_size);
            if (fits)
                buffer.resize(length);
            item.isUpToDate.push_back(fits &&
                                      Krt::File::Read(file, offset, length, buffer.data()) == length &&
                                      Id::Of(buffer) == id);
            offset += length;
        }
        if (offset == static_cast<std::uint64_t>(status.st_size) &&
            std::find(item.isUpToDate.begin(), item.isUpToDate.end(), false) == item.isUpToDate.end())
            item.action = RestoreItem::Action::KeepUnchanged;
    } catch (const Krt::Exception::YError&) {
        RaiseIfInterrupted();
        item.isUpToDate.clear(); // it can't be read, so all is loaded
    }
}

} // namespace Agent
