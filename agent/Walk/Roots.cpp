#include "agent/Walk/Roots.h"

#include "agent/Run/FileGuard.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Similar.h"
#include "agent/Run/Text.h"
#include "agent/Walk/JobCheck.h"
#include "agent/Walk/NameList.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"
#include "Krt/File/YDirectory.h"
#include "Krt/JSON/YValue.h"
#include "Krt/Util/YUnxHandle.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <iterator>
#include <memory>
#include <sys/stat.h>
#include <utility>

namespace Agent {

using Backup::File::YSelectionDescriptor;
using Krt::YString;
using Krt::File::YPath;
using Krt::JSON::YObject;
using Krt::JSON::YValue;

namespace {

std::string Resolve(const std::string& path)
{
    const std::unique_ptr<char, decltype(&std::free)> resolved(realpath(path.c_str(), nullptr), &std::free);
    if (resolved == nullptr)
        KRT_RAISE_OS(errno, "Can't resolve " << path.c_str());
    return resolved.get();
}

// All rules of a large job may contain the same mistake.
constexpr std::size_t MostWarnings = 20;

// The warnings about one job file, up to a limit.
class JobWarnings
{
public:
    explicit JobWarnings(const std::string& jobFile) : m_prefix("Warning: the job file " + jobFile + ": ") {}
    void Add(const std::string& text)
    {
        if (++m_count <= MostWarnings)
            m_texts.emplace_back(m_prefix + text);
    }
    std::vector<YString> Finish()
    {
        if (m_count > MostWarnings)
            m_texts.emplace_back(m_prefix + std::to_string(m_count - MostWarnings) + " further warnings");
        return std::move(m_texts);
    }

private:
    std::string m_prefix;
    std::vector<YString> m_texts;
    std::size_t m_count = 0;
};

// Raises the first error of the document.
void CheckRules(const YObject& document, JobWarnings& warnings)
{
    CheckJob(document, [&](const JobFinding& finding) {
        KRT_RAISE_UNLESS(!finding.isError, Krt::ErrorCode::InvalidArgument, finding.text.c_str());
        warnings.Add(finding.text);
    });
}

// Paths, none of which is at or below another one.
class TopPaths
{
public:
    // Does nothing if the path is covered. Otherwise removes those below it.
    void Add(const std::string& path)
    {
        if (Covers(path))
            return;
        auto next = m_paths.lower_bound(path);
        while (next != m_paths.end() && IsAtOrBelow(*next, path))
            next = m_paths.erase(next);
        m_paths.insert(next, path);
    }
    // Returns true if the path is at or below one of these. That one precedes it, since paths between the two
    // would be below it, too.
    bool Covers(const std::string& path) const
    {
        const auto after = m_paths.upper_bound(path);
        return after != m_paths.begin() && IsAtOrBelow(path, *std::prev(after));
    }
    std::size_t Size() const { return m_paths.size(); }
    std::vector<std::string> Get() const { return {m_paths.begin(), m_paths.end()}; }

    static bool IsAtOrBelow(const std::string& path, const std::string& top)
    {
        return path.starts_with(top) && (path.size() == top.size() || top == "/" || path[top.size()] == '/');
    }

private:
    // Orders each path directly before those below it.
    struct ByNames
    {
        bool operator()(const std::string& a, const std::string& b) const
        {
            return std::lexicographical_compare(
                a.begin(), a.end(), b.begin(), b.end(),
                [](unsigned char x, unsigned char y) { return x != y && (x == '/' || (x < y && y != '/')); });
        }
    };
    std::set<std::string, ByNames> m_paths;
};

// Finds out what a job selects, as paths that a snapshot records; see docs/job-format.md. The includes are
// added in the order of a walk through the rules, in which those of a directory precede those below it.
class JobPaths
{
public:
    explicit JobPaths(const std::set<YPath>& tops) : m_tops(tops) {}

    // Returns true if there are too many paths already.
    bool Add(const YPath& place, const YSelectionDescriptor& rule)
    {
        if (place.Bytes() != m_place) {
            EndPlace();
            m_place = place.Bytes();
            if (m_top.empty() || !TopPaths::IsAtOrBelow(m_place, m_top)) {
                m_top = m_place;
                m_isReached = m_tops.contains(place);
            }
        }
        const Krt::Match::Descriptor& names = rule.GetDescriptor();
        const std::string& name = names.GetPattern().Bytes();
        if (rule.IsRecursive() || names.GetMatchType() != Krt::Match::MatchType::Exact ||
            !names.IsCaseSensitive() || name.empty() || name == "." || name == "..")
            m_isWhole = true;
        else if (m_entries.size() <= MostPaths)
            m_entries.insert(place.Append(YString(name)).Bytes());
        return m_paths.Size() > MostPaths;
    }
    // The starts of the walk, if there are too many paths.
    std::vector<std::string> Finish()
    {
        EndPlace();
        if (m_paths.Size() <= MostPaths)
            return m_paths.Get();
        std::vector<std::string> paths;
        for (const YPath& top : m_tops)
            paths.push_back(top.Bytes());
        return paths;
    }

private:
    static constexpr std::size_t MostPaths = 1000;

    void EndPlace()
    {
        if (m_isReached && m_isWhole)
            m_paths.Add(m_place);
        for (const std::string& entry : std::exchange(m_entries, {})) {
            if (m_isReached)
                m_paths.Add(entry);
        }
        m_isWhole = false;
    }

    const std::set<YPath>& m_tops;
    TopPaths m_paths;
    std::string m_top;               // the topmost place at or above the current one
    bool m_isReached = false;        // a walk starts at m_top
    std::string m_place;             // the directory of the includes that come now
    bool m_isWhole = false;          // one of them is not merely for an entry of a known name
    std::set<std::string> m_entries; // the entries for which the others are
};

std::vector<std::string> SelectedPaths(const Job& job)
{
    JobPaths paths(job.roots);
    job.rules.VisitPathsAndDescriptors(
        YSelectionDescriptor::Include, YPath(),
        [&paths](const YPath& place, const YSelectionDescriptor& rule) { return paths.Add(place, rule); },
        true);
    return paths.Finish();
}

// Returns true if a directory between the start of the walk and `path` is a symlink, which a walk does not
// follow. The start itself may be reached through symlinks.
bool LeadsThroughLink(const std::set<YPath>& starts, const YPath& path)
{
    for (YPath directory = path; !starts.contains(directory) && directory != "/";) {
        directory = directory.GetParent();
        struct stat status = {};
        if (!starts.contains(directory) && lstat(directory.CStr(), &status) == 0 && S_ISLNK(status.st_mode))
            return true;
    }
    return false;
}

// Returns true if the rules select the symlink at the place of an include for all names. If none of them
// names it, a walk takes it for that include, and reports it itself.
bool IsLinkStored(const Backup::File::YSelectionManager& rules, const YPath& path, Visited visited)
{
    if (rules.GetPathSelectionType(path) == YSelectionDescriptor::Include)
        return true;
    bool isReported = false;
    return visited == Visited::All && !rules.PathMatchesExclude(path.PopulateComponents(), isReported);
}

void LoadRules(Backup::File::YSelectionManager& rules, JobWarnings& warnings, const std::string& jobFile,
               std::string* jobText)
{
    std::string text = ReadJobFile(jobFile);
    if (jobText != nullptr)
        *jobText = text;
    const EndingOnInterrupts ending; // the rules of a large job take some time
    try {
        // The text of a large job is freed before its rules are built.
        const auto job = YValue::Parse(std::exchange(text, {}), YValue::DuplicateKeys::Refuse);
        CheckRules(job->AsObject(), warnings);
        rules.FromJSON(job->AsObject());
    } catch (const Krt::Exception::YError& error) {
        KRT_RAISE(Krt::ErrorCode::InvalidArgument,
                  "The job file " << jobFile.c_str() << " contains no usable rules: " << ReasonOf(error));
    }
}

std::vector<std::string> RuleTextsOf(const Backup::File::YSelectionManager& rules)
{
    constexpr std::size_t MostRules = 10000;
    std::vector<std::string> texts;
    const bool isTooMany = rules.VisitPathsAndDescriptors(
        YPath(),
        [&texts](const YPath& path, const YSelectionDescriptor& rule) {
            YObject element;
            element.Set<YString>("path", path);
            element.Set<YObject>("descriptor", rule.ToJSON());
            const std::string json = YValue::FromObject(std::move(element)).Stringify(true).Bytes();
            texts.push_back((rule.IsInclude() ? "include " : "exclude ") + json);
            return texts.size() > MostRules;
        },
        true);
    if (isTooMany)
        texts.clear();
    return texts;
}

std::string HintFor(const YPath& path)
{
    const std::string similar = FindSimilarPath(path);
    return similar.empty() ? "" : "; did you mean " + similar + "?";
}

// The system names the path as it was typed, or only the last name on it.
YString ReasonWithoutPath(std::string path, const Krt::Exception::YError& error)
{
    std::string reason = ReasonOf(error).Bytes();
    std::size_t at = reason.find(": " + path + ": ");
    if (at == std::string::npos) {
        while (path.ends_with('/'))
            path.pop_back();
        path.erase(0, path.rfind('/') + 1); // all of it if there is no slash
        at = reason.find(": " + path + ": ");
    }
    if (at != std::string::npos)
        reason.erase(at, path.size() + 2);
    return YString(reason);
}

} // namespace

void Select(Backup::File::YSelectionManager& rules, const YPath& root)
{
    if (root != "/") {
        rules.Add(root.GetParent(), Krt::Match::ExactDescriptor(YPath::GetFileFromPath(root, "/"), true),
                  YSelectionDescriptor::NonRecursive, YSelectionDescriptor::Include, true);
    }
    rules.Add(root, Krt::Match::AnyDescriptor(), YSelectionDescriptor::Recursive,
              YSelectionDescriptor::Include, true);
}

std::string ReadJobFile(const std::string& jobFile)
{
    RequireOwnFile("The job file", jobFile);
    constexpr std::size_t MostMebibytes = 512;
    const EndingOnInterrupts ending; // a named pipe may never have a writer
    const auto file = Krt::Util::OpenHandle(jobFile.c_str(), O_RDONLY | O_NOCTTY);
    auto text = file ? Krt::File::ReadWholeFile(file.value, MostMebibytes << 20)
                     : Krt::Util::OsResult<std::string>{{}, file.error};
    KRT_RAISE_UNLESS(text.error != EFBIG, Krt::ErrorCode::InvalidArgument,
                     "The job file " << jobFile.c_str() << " is larger than " << MostMebibytes << " MiB");
    std::string document = KRT_OS_VALUE(std::move(text), "Can't read the job file " << jobFile.c_str());
    if (constexpr std::string_view ByteOrderMark = "\xEF\xBB\xBF"; document.starts_with(ByteOrderMark))
        document.erase(0, ByteOrderMark.size());
    return document;
}

std::string FindSimilarPath(const YPath& path)
{
    YPath above = path;
    YString name;
    struct stat status = {};
    do {
        if (above == "/" || above.IsEmpty())
            return "";
        name = YPath::GetFileFromPath(above, "/");
        above = above.GetParent();
    } while (lstat(above.CStr(), &status) != 0);
    try {
        const NameList names(Krt::File::YDirectory::OpenFollowing(above));
        for (std::size_t i = 0; i < names.Size(); ++i) {
            if (IsMisspelt(name.Bytes(), names.NameAt(i)))
                return above.Append(YString(names.NameAt(i))).Bytes();
        }
    } catch (const Krt::Exception::YError&) {
        return "";
    }
    return "";
}

// A walk only visits existing entries, so it cannot report a misspelt path below its start; it reports a
// start that does not exist. Nor does it visit anything below a path that is not a directory. An exclude
// without entries is not a mistake: a job may leave out what exists at times.
void VisitPathsWithoutEntries(const Job& job, Visited visited,
                              const std::function<void(const YPath& path, const std::string& text)>& visit)
{
    YPath last;
    struct stat status = {};
    int error = 0;
    bool isLink = false;
    job.rules.VisitPathsAndDescriptors(
        YSelectionDescriptor::Include, YPath(),
        [&](const YPath& path, const YSelectionDescriptor& rule) {
            if (path != last) {
                error = Krt::Util::CallSystem([&] { return lstat(path.CStr(), &status); }).error;
                isLink = false;
                const bool isStart = job.roots.contains(path);
                if ((error == ENOENT || error == ENOTDIR) && (!isStart || visited == Visited::All))
                    visit(path, "there is no " + path.Bytes() +
                                    ", so what is to be included there is not stored" + HintFor(path));
                else if (error == 0 && !isStart && LeadsThroughLink(job.roots, path))
                    visit(path, path.Bytes() +
                                    " is reached through a symlink, which is not followed, so what "
                                    "is to be included there is not stored");
                else
                    isLink = error == 0 && S_ISLNK(status.st_mode) && IsLinkStored(job.rules, path, visited);
                last = path;
            }
            if (isLink && rule.CoversAllNames()) {
                visit(path, path.Bytes() +
                                " is a link, which is stored itself; for what it leads to, the job must name "
                                "that path");
                isLink = false; // one text for all rules there
            }
            if (error == 0 && !S_ISDIR(status.st_mode) && !rule.CoversAllNames())
                visit(path, path.Bytes() + " is not a directory, so it contains nothing that matches '" +
                                rule.GetDescriptor().GetPattern().Bytes() + "'");
            return false;
        },
        true);
}

// The last component is kept even if it is a symlink.
YPath ResolveNamedPath(const std::string& named)
{
    std::string path = named;
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    const std::size_t slash = path.rfind('/');
    const std::string last = slash == std::string::npos ? path : path.substr(slash + 1);
    if (path.empty() || last.empty() || last == "." || last == ".." || path.size() < named.size())
        return YPath(Resolve(named).c_str());
    const std::string parent = Resolve(slash == std::string::npos ? "." : path.substr(0, slash + 1));
    return YPath(parent.c_str()).Append(YString(last.c_str()));
}

Job LoadJob(const std::string& jobFile, const std::vector<std::string>& paths, const PathFailure& onFailure,
            std::string* jobText)
{
    Job job;
    std::vector<std::string> jobPaths;
    if (!jobFile.empty()) {
        JobWarnings warnings(jobFile);
        LoadRules(job.rules, warnings, jobFile, jobText);
        job.roots = job.rules.GetIncludeTops(YPath());
        VisitPathsWithoutEntries(job, Visited::NotByWalk,
                                 [&](const YPath&, const std::string& text) { warnings.Add(text); });
        job.warnings = warnings.Finish();
        job.ruleTexts = RuleTextsOf(job.rules);
        jobPaths = SelectedPaths(job);
        KRT_RAISE_UNLESS(!job.roots.empty() || !paths.empty(), Krt::ErrorCode::InvalidArgument,
                         "The job file " << jobFile.c_str() << " includes nothing, and no PATH is named");
    }
    TopPaths named;
    for (const std::string& path : paths) {
        try {
            const YPath root = ResolveNamedPath(path);
            if (onFailure && root != "/") {
                const struct stat status = Krt::File::YDirectory::OpenToSearch(root.GetParent())
                                               .Stat(YPath::GetFileFromPath(root, "/"));
                if (S_ISLNK(status.st_mode))
                    job.warnings.push_back(YString("Warning: ") + root +
                                           " is a link, which is stored itself; with a slash at its end, it "
                                           "would name what it leads to");
            }
            Select(job.rules, root);
            if (job.named.insert(root).second)
                job.paths.push_back(root.Bytes());
            named.Add(root.Bytes());
            job.roots.insert(root);
        } catch (const Krt::Exception::YError& error) {
            if (!onFailure)
                throw;
            onFailure(path, ReasonWithoutPath(path, error));
        }
    }
    std::copy_if(jobPaths.begin(), jobPaths.end(), std::back_inserter(job.paths),
                 [&named](const std::string& path) { return !named.Covers(path); });
    return job;
}

} // namespace Agent
