#include "agent/Restore/TargetTree.h"

#include "agent/Restore/Durable.h"
#include "agent/Run/Text.h"

#include "Krt/Environment/Process.h"
#include "Krt/Exception/Raise.h"
#include "Krt/File/Unix/Status.h"
#include "Krt/File/YEntry.h"

#include <algorithm>

namespace Agent {

using Krt::ErrorCode;
using Krt::YString;
using Krt::File::FileId;
using Krt::File::YDirectory;

namespace {

constexpr unsigned int PrivateMode = 0700;
constexpr std::size_t MaximumOpen = 64; // directories, each perhaps with a staging directory

// Another user may have replaced the directory since its status was read.
void CheckIs(const YDirectory& opened, const struct stat& seen, const YString& name)
{
    KRT_RAISE_UNLESS(FileId(opened.Stat()) == FileId(seen), ErrorCode::InvalidState,
                     "The directory was replaced during the restore: " << name);
}

} // namespace

TargetTree::TargetTree(YDirectory root, YString staging, RefusalReport report)
    : m_root(std::move(root)), m_device(m_root.Stat().st_dev), m_stagingName(std::move(staging)),
      m_report(std::move(report))
{}

// If a directory cannot be finished because memory is exhausted, those above it are finished all the same.
TargetTree::~TargetTree()
{
    for (;;) {
        try {
            Finish();
            return;
        } catch (...) {
            if (m_entered.empty())
                return;
            m_entered.pop_back();
            while (!m_entered.empty() && !m_entered.back().directory)
                m_entered.pop_back();
            m_closed = std::min(m_closed, m_entered.size());
        }
    }
}

const YDirectory& TargetTree::ParentOf(const TargetLocation& location)
{
    return Descend(location, location.size() - 1);
}

const YDirectory& TargetTree::ExistingParentOf(const TargetLocation& location)
{
    return Descend(location, location.size() - 1, false);
}

const Staging& TargetTree::StagingFor(const TargetLocation& location)
{
    const YDirectory& parent = ParentOf(location);
    std::optional<Staging>& staging = m_entered.empty() ? m_staging : m_entered.back().staging;
    if (!staging)
        staging = Staging::Create(parent, m_stagingName);
    return *staging;
}

void TargetTree::MakeDirectory(const TargetLocation& location, Attributes attributes)
{
    Descend(location, location.size());
    m_entered.back().attributes = std::move(attributes);
}

void TargetTree::MakeHardLink(const TargetLocation& from, const TargetLocation& location, const YString& name)
{
    const YDirectory& parent = ParentOf(location);
    if (from.size() == 1) {
        parent.MakeHardLink(m_root, from.back(), name);
        return;
    }
    const YDirectory directory = m_root.OpenBelow(std::span(from).first(from.size() - 1));
    parent.MakeHardLink(directory, from.back(), name);
}

void TargetTree::Finish()
{
    while (!m_entered.empty())
        Leave();
    std::vector<YString> refused;
    RemoveStaging(m_root, m_staging, refused);
    if (!refused.empty())
        m_report({}, false, refused);
}

void TargetTree::Sync() const
{
    SyncFileSystem(m_root.GetHandle());
    for (const auto& [device, directory] : m_mounted)
        SyncFileSystem(directory.GetHandle());
}

const YDirectory& TargetTree::Descend(const TargetLocation& location, std::size_t depth, bool mayCreate)
{
    std::size_t common = 0;
    while (common < depth && common < m_entered.size() && m_entered[common].name == location[common])
        ++common;
    while (m_entered.size() > common)
        Leave();
    while (m_entered.size() < depth) {
        m_entered.push_back(OpenOrMake(Top(), location[m_entered.size()], mayCreate));
        if (m_entered.size() - m_closed > MaximumOpen)
            CloseOutermost();
    }
    return Top();
}

void TargetTree::CloseOutermost()
{
    EnteredDirectory& entered = m_entered[m_closed];
    entered.closed = FileId(entered.directory->Stat());
    RemoveStaging(*entered.directory, entered.staging, entered.refused);
    entered.directory.reset();
    ++m_closed;
}

// Opens the innermost directories that are closed, half as many as may be open.
void TargetTree::OpenClosed()
{
    const std::size_t end = m_closed;
    std::size_t depth = end - std::min(end, MaximumOpen / 2);
    YDirectory opened = m_root.OpenBelow(LocationAt(depth + 1));
    std::vector<YDirectory> all;
    for (;; opened = all.back().OpenDirectory(m_entered[depth].name)) {
        KRT_RAISE_UNLESS(FileId(opened.Stat()) == m_entered[depth].closed, ErrorCode::InvalidState,
                         "The directory was replaced during the restore: " << m_entered[depth].name);
        all.push_back(std::move(opened));
        if (++depth == end)
            break;
    }
    m_closed = end - all.size();
    for (std::size_t i = 0; i < all.size(); ++i)
        m_entered[m_closed + i].directory = std::move(all[i]);
}

// Directories that can't be opened again keep the attributes that they have.
void TargetTree::ForgetClosed(const YString& reason)
{
    for (std::size_t depth = m_closed; depth > 0; --depth) {
        std::vector<YString> refused = std::move(m_entered[depth - 1].refused);
        refused.push_back(YString("mode and times not restored: ") + reason);
        m_report(LocationAt(depth), m_entered[depth - 1].attributes.has_value(), refused);
    }
    m_entered.clear();
    m_closed = 0;
}

// The location of the directory at this depth, which is 1 in the root.
TargetLocation TargetTree::LocationAt(std::size_t depth) const
{
    TargetLocation location;
    std::transform(m_entered.begin(), m_entered.begin() + static_cast<std::ptrdiff_t>(depth),
                   std::back_inserter(location), [](const EnteredDirectory& each) { return each.name; });
    return location;
}

const YDirectory& TargetTree::Top() const
{
    return m_entered.empty() ? m_root : *m_entered.back().directory;
}

TargetTree::EnteredDirectory TargetTree::OpenOrMake(const YDirectory& parent, const YString& name,
                                                    bool mayCreate)
{
    struct stat status
    {};
    const bool isNew = !parent.StatIfPresent(name, status);
    bool isWidened = false;
    if (isNew) {
        KRT_RAISE_UNLESS(mayCreate, ErrorCode::NotFound, "The directory does not exist: " << name);
        parent.MakeDirectory(name, PrivateMode);
    } else if (S_ISLNK(status.st_mode)) {
        KRT_RAISE(ErrorCode::InvalidState, "There is a symlink instead of a directory: " << name);
    } else if (!S_ISDIR(status.st_mode)) {
        KRT_RAISE(ErrorCode::InvalidState, "There is an entry that is not a directory: " << name);
    } else if ((status.st_mode & PrivateMode) != PrivateMode && !Krt::Environment::IsRoot()) {
        const YDirectory closed = parent.OpenDirectoryToSearch(name);
        CheckIs(closed, status, name);
        closed.SetMode(status.st_mode | PrivateMode);
        isWidened = true;
    }
    YDirectory directory = parent.OpenDirectory(name);
    if (!isNew)
        CheckIs(directory, status, name);
    if (!isNew && status.st_dev != m_device && !m_mounted.contains(status.st_dev))
        m_mounted.emplace(status.st_dev, parent.OpenDirectory(name));
    return {name, std::move(directory), isNew, isWidened, status, std::nullopt, std::nullopt, {}, {}};
}

void TargetTree::RestoreStatus(const EnteredDirectory& entered)
{
    const Krt::Util::YUnxHandle& handle = entered.directory->GetHandle();
    if (entered.isNew) {
        Krt::File::RemoveAccessLists(handle);
        Krt::File::YEntry(handle).SetMode(PrivateMode);
        return;
    }
    if (entered.isWidened)
        Krt::File::YEntry(handle).SetMode(entered.before.st_mode);
    // If no entry was created in it, it may belong to another user, and only its owner can set its times.
    const struct stat now = entered.directory->Stat();
    const timespec& write = Krt::File::WriteTime(entered.before);
    if (!IsSame(Krt::File::WriteTime(now), write))
        Krt::File::YEntry(handle).SetTimes(Krt::File::AccessTime(entered.before), write);
}

// A user who can write to the directory may have moved it away.
void TargetTree::RemoveStaging(const YDirectory& directory, std::optional<Staging>& staging,
                               std::vector<YString>& refused) const
{
    if (!staging)
        return;
    try {
        directory.RemoveDirectory(m_stagingName);
    } catch (const Krt::Exception::YError& error) {
        refused.push_back(YString("temporary directory not removed: ") + ReasonOf(error));
    }
    staging.reset();
}

void TargetTree::Leave()
{
    EnteredDirectory& entered = m_entered.back();
    // The way to the parent directory leads through no directory that has its attributes already.
    std::optional<YString> lost;
    if (m_closed != 0 && m_closed + 1 == m_entered.size()) {
        try {
            OpenClosed();
        } catch (const Krt::Exception::YError& error) {
            lost = ReasonOf(error);
        }
    }
    std::vector<YString> refused = std::move(entered.refused);
    RemoveStaging(*entered.directory, entered.staging, refused);
    if (entered.attributes) {
        Apply(*entered.attributes, entered.directory->GetHandle(), refused);
    } else {
        try {
            RestoreStatus(entered);
        } catch (const Krt::Exception::YError& error) {
            refused.push_back(YString("mode and times not restored: ") + ReasonOf(error));
        }
    }
    if (!refused.empty())
        m_report(LocationAt(m_entered.size()), entered.attributes.has_value(), refused);
    if (lost)
        ForgetClosed(*lost);
    else
        m_entered.pop_back();
}

} // namespace Agent
