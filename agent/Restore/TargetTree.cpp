#include "agent/Restore/TargetTree.h"

#include "agent/Cli/Text.h"

#include "Krt/Environment/Host.h"
#include "Krt/Exception/Raise.h"
#include "Krt/File/Unix/StatTimes.h"

#include <algorithm>

namespace Agent {

using Krt::ErrorCode;
using Krt::YString;
using Krt::File::YDirectory;

namespace {

constexpr unsigned int PrivateMode = 0700;
constexpr unsigned int ModeWithoutRecord = 0755;

} // namespace

TargetTree::TargetTree(YDirectory root, RefusalReport report)
    : m_root(std::move(root)), m_report(std::move(report))
{}

TargetTree::~TargetTree()
{
    Finish();
}

const YDirectory& TargetTree::ParentOf(const Place& place)
{
    return Descend(place, place.size() - 1);
}

void TargetTree::MakeDirectory(const Place& place, Attributes attributes)
{
    Descend(place, place.size());
    m_levels.back().attributes = std::move(attributes);
}

void TargetTree::MakeHardLink(const Place& from, const Place& place, const YString& name)
{
    std::optional<YDirectory> opened;
    const YDirectory* directory = &m_root;
    for (std::size_t i = 0; i + 1 < from.size(); ++i) {
        YDirectory next = directory->OpenDirectory(from[i]);
        directory = &opened.emplace(std::move(next));
    }
    ParentOf(place).MakeHardLink(*directory, from.back(), name);
}

void TargetTree::Finish()
{
    while (!m_levels.empty())
        Leave();
}

const YDirectory& TargetTree::Descend(const Place& place, std::size_t depth)
{
    std::size_t common = 0;
    while (common < depth && common < m_levels.size() && m_levels[common].name == place[common])
        ++common;
    while (m_levels.size() > common)
        Leave();
    while (m_levels.size() < depth)
        m_levels.push_back(OpenLevel(Top(), place[m_levels.size()]));
    return Top();
}

const YDirectory& TargetTree::Top() const
{
    return m_levels.empty() ? m_root : m_levels.back().directory;
}

TargetTree::Level TargetTree::OpenLevel(const YDirectory& parent, const YString& name) const
{
    struct stat status
    {};
    const bool isNew = !parent.StatIfPresent(name, status);
    bool isWidened = false;
    if (isNew) {
        parent.MakeDirectory(name, PrivateMode);
    } else if (S_ISLNK(status.st_mode)) {
        KRT_RAISE(ErrorCode::InvalidState, "A symbolic link stands in the way: " << name);
    } else if (!S_ISDIR(status.st_mode)) {
        KRT_RAISE(ErrorCode::InvalidState, "Something that is no directory stands in the way: " << name);
    } else if ((status.st_mode & PrivateMode) != PrivateMode && !Krt::Environment::IsRoot()) {
        parent.SetMode(name, status.st_mode | PrivateMode);
        isWidened = true;
    }
    return {name, parent.OpenDirectory(name), isNew, isWidened, status, std::nullopt};
}

void TargetTree::GiveBack(const Level& level)
{
    const Krt::Util::YUnxHandle& handle = level.directory.GetHandle();
    if (level.isNew) {
        Krt::File::SetMode(handle, ModeWithoutRecord);
        return;
    }
    if (level.isWidened)
        Krt::File::SetMode(handle, level.before.st_mode);
    // One that nothing was made in may well be somebody else's, who alone can set its times.
    const struct stat now = level.directory.Stat();
    const timespec& write = Krt::File::WriteTime(level.before);
    if (Krt::File::WriteTime(now).tv_sec != write.tv_sec ||
        Krt::File::WriteTime(now).tv_nsec != write.tv_nsec)
        Krt::File::SetTimes(handle, Krt::File::AccessTime(level.before), write);
}

void TargetTree::Leave()
{
    const Level& level = m_levels.back();
    std::vector<YString> refused;
    if (level.attributes) {
        Apply(*level.attributes, level.directory.GetHandle(), refused);
    } else {
        try {
            GiveBack(level);
        } catch (const Krt::Exception::YError& error) {
            refused.push_back(YString("mode and times not given back: ") + ReasonOf(error));
        }
    }
    if (!refused.empty()) {
        Place place;
        std::transform(m_levels.begin(), m_levels.end(), std::back_inserter(place),
                       [](const Level& each) { return each.name; });
        m_report(place, refused);
    }
    m_levels.pop_back();
}

} // namespace Agent
