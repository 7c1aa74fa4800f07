#include "agent/Walk/Roots.h"

#include "agent/Run/FileGuard.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"
#include "agent/Walk/JobCheck.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"
#include "Krt/File/YDirectory.h"
#include "Krt/JSON/YValue.h"
#include "Krt/Util/YUnxHandle.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
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

void Select(Backup::File::YSelectionManager& rules, const YPath& root)
{
    if (root != "/") {
        rules.Add(root.GetParent(), Krt::Match::ExactDescriptor(YPath::GetFileFromPath(root, "/"), true),
                  YSelectionDescriptor::NonRecursive, YSelectionDescriptor::Include, true);
    }
    rules.Add(root, Krt::Match::AnyDescriptor(), YSelectionDescriptor::Recursive,
              YSelectionDescriptor::Include, true);
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

// A walk only visits existing entries, so it cannot report a misspelt path below its start. Nor does it visit
// anything below a path that is not a directory. An exclude without entries is not a mistake: a job may leave
// out what exists at times.
void WarnOfPathsWithoutEntries(const Job& job, JobWarnings& warnings)
{
    YPath last;
    struct stat status = {};
    int error = 0;
    job.rules.VisitPathsAndDescriptors(
        YSelectionDescriptor::Include, YPath(),
        [&](const YPath& path, const YSelectionDescriptor& rule) {
            if (path != last) {
                error = Krt::Util::CallSystem([&] { return lstat(path.CStr(), &status); }).error;
                const bool isStart = job.roots.contains(path);
                if ((error == ENOENT || error == ENOTDIR) && !isStart)
                    warnings.Add("there is no " + path.Bytes() +
                                 ", so what is to be included there is not stored");
                else if (error == 0 && !isStart && LeadsThroughLink(job.roots, path))
                    warnings.Add(path.Bytes() +
                                 " is reached through a symlink, which is not followed, so what "
                                 "is to be included there is not stored");
                last = path;
            }
            if (error == 0 && !S_ISDIR(status.st_mode) && !rule.CoversAllNames())
                warnings.Add(path.Bytes() + " is not a directory, so it contains nothing that matches '" +
                             rule.GetDescriptor().GetPattern().Bytes() + "'");
            return false;
        },
        true);
}

std::string ReadJobFile(const std::string& jobFile)
{
    constexpr std::size_t MostMebibytes = 512;
    const EndingOnInterrupts ending; // a named pipe may never have a writer
    const auto file = Krt::Util::OpenHandle(jobFile.c_str(), O_RDONLY | O_NOCTTY);
    auto text = file ? Krt::File::ReadWholeFile(file.value, MostMebibytes << 20)
                     : Krt::Util::OsResult<std::string>{{}, file.error};
    KRT_RAISE_UNLESS(text.error != EFBIG, Krt::ErrorCode::InvalidArgument,
                     "The job file " << jobFile.c_str() << " is larger than " << MostMebibytes << " MiB");
    return KRT_OS_VALUE(std::move(text), "Can't read the job file " << jobFile.c_str());
}

void LoadRules(Backup::File::YSelectionManager& rules, JobWarnings& warnings, const std::string& jobFile,
               std::string* jobText)
{
    RequireOwnFile("The job file", jobFile);
    std::string text = ReadJobFile(jobFile);
    if (constexpr std::string_view ByteOrderMark = "\xEF\xBB\xBF"; text.starts_with(ByteOrderMark))
        text.erase(0, ByteOrderMark.size());
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

} // namespace

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
    if (!jobFile.empty()) {
        JobWarnings warnings(jobFile);
        LoadRules(job.rules, warnings, jobFile, jobText);
        job.roots = job.rules.GetIncludeTops(YPath());
        WarnOfPathsWithoutEntries(job, warnings);
        job.warnings = warnings.Finish();
        job.ruleTexts = RuleTextsOf(job.rules);
        KRT_RAISE_UNLESS(!job.roots.empty() || !paths.empty(), Krt::ErrorCode::InvalidArgument,
                         "The job file " << jobFile.c_str() << " includes nothing, and no PATH is named");
    }
    const std::set<YPath> tops = job.roots;
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
            if (std::find(job.paths.begin(), job.paths.end(), root.Bytes()) == job.paths.end())
                job.paths.push_back(root.Bytes());
            job.roots.insert(root);
        } catch (const Krt::Exception::YError& error) {
            if (!onFailure)
                throw;
            onFailure(path, error);
        }
    }
    for (const YPath& top : tops) {
        if (std::find(job.paths.begin(), job.paths.end(), top.Bytes()) == job.paths.end())
            job.paths.push_back(top.Bytes());
    }
    return job;
}

} // namespace Agent
