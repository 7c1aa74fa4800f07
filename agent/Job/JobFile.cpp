#include "agent/Job/JobFile.h"

#include "agent/Run/FileGuard.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/TemporaryName.h"
#include "agent/Run/Text.h"
#include "agent/Walk/JobCheck.h"
#include "agent/Walk/Roots.h"
#include "agent/Walk/RuleText.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/YDirectory.h"
#include "Krt/JSON/YValue.h"

#include <sys/stat.h>

#include <cstdlib>
#include <memory>

namespace Agent {

using Backup::File::YSelectionDescriptor;
using Krt::YString;
using Krt::File::YDirectory;
using Krt::File::YPath;
using Krt::JSON::YObject;
using Krt::JSON::YValue;

namespace {

constexpr unsigned int NewMode = 0644;

// What the path leads to, or the path itself if there is nothing.
std::string TargetOf(const std::string& path)
{
    const std::unique_ptr<char, decltype(&std::free)> resolved(realpath(path.c_str(), nullptr), &std::free);
    return resolved == nullptr ? path : resolved.get();
}

void WriteDurably(const YDirectory& directory, const YString& name, const std::string& text,
                  unsigned int mode)
{
    const Krt::Util::YUnxHandle file = directory.CreateFile(name);
    Krt::File::Write(file, 0, text.size(), text.data());
    KRT_SYSCALL(fchmod(file.Get(), mode), "Can't set the mode of the new job file");
    if (const int error = Krt::File::TrySync(file))
        KRT_RAISE_OS(error, "Can't write the new job file");
}

} // namespace

RuleLines::RuleLines(std::string_view text)
{
    try {
        VisitRuleSources(text, [this](const RuleSource& rule) {
            (rule.array == "includes" ? m_includes : m_excludes).push_back(rule.line);
        });
    } catch (const Krt::Exception::YError&) {
        m_includes.clear();
        m_excludes.clear();
    }
}

std::size_t RuleLines::Of(std::string_view array, std::size_t index) const
{
    const std::vector<std::size_t>& lines = array == "includes" ? m_includes : m_excludes;
    return index < lines.size() ? lines[index] : 0;
}

std::vector<JobRule> RulesOf(const YObject& job, const RuleLines& lines)
{
    std::vector<JobRule> rules;
    for (const char* const array : {"includes", "excludes"}) {
        std::size_t index = 0;
        for (const auto& value : job.Find(array, Krt::MessageType::Runtime)->AsArray()) {
            const YObject& object = value->AsObject();
            YSelectionDescriptor rule;
            rule.FromJSON(object.Get<YObject>("descriptor", Krt::MessageType::Runtime));
            const YPath path(object.Get<YString>("path", Krt::MessageType::Runtime));
            rules.push_back({{path, rule}, array, index, lines.Of(array, index)});
            ++index;
        }
    }
    return rules;
}

std::vector<JobRule> LoadRules(const std::string& jobFile)
{
    const std::string text = ReadJobFile(jobFile);
    const EndingOnInterrupts ending; // the rules of a large job take some time
    try {
        const auto job = YValue::Parse(text, YValue::DuplicateKeys::Refuse);
        CheckJob(job->AsObject(), [](const JobFinding& finding) {
            KRT_RAISE_UNLESS(!finding.isError, Krt::ErrorCode::InvalidArgument, finding.text.c_str());
        });
        return RulesOf(job->AsObject(), RuleLines(text));
    } catch (const Krt::Exception::YError& error) {
        KRT_RAISE(Krt::ErrorCode::InvalidArgument,
                  "The job file " << jobFile.c_str() << " contains no usable rules: " << ReasonOf(error));
    }
}

bool HasRule(const Backup::File::YSelectionManager& rules, const Backup::File::YSelectionPathDescriptor& rule)
{
    const auto components = rule.GetPath().PopulateComponents();
    return rules.VisitPathsAndDescriptors(
        rule.GetSelectionType(), rule.GetPath(),
        [&](const YPath& path, const YSelectionDescriptor& kept) {
            return kept == rule && path.PopulateComponents() == components;
        },
        false);
}

void SaveJob(const std::string& jobFile, const Backup::File::YSelectionManager& rules, bool replaces)
{
    RequireOwnFile("The job file", jobFile);
    const std::string target = TargetOf(jobFile);
    const std::size_t slash = target.rfind('/');
    const std::string above = slash == target.npos ? "." : target.substr(0, slash + 1);
    const YString name(target.substr(slash + 1)); // also if there is no slash
    const YDirectory directory = YDirectory::OpenFollowing(YPath(YString(above)));
    struct stat status = {};
    const bool exists = directory.StatIfPresent(name, status);
    KRT_RAISE_UNLESS(!exists || (replaces && S_ISREG(status.st_mode)), Krt::ErrorCode::InvalidArgument,
                     "The file " << jobFile.c_str() << " exists"
                                 << (exists && S_ISREG(status.st_mode) ? "; --force replaces it"
                                                                       : " and is not a regular file"));
    const std::string text = YValue::FromObject(rules.ToJSON(YPath())).Stringify(false).Bytes() + "\n";
    const YString temporary = TemporaryName(".kbagent-job-");
    try {
        WriteDurably(directory, temporary, text, exists ? status.st_mode & 07777 : NewMode);
        directory.Rename(temporary, directory, name);
    } catch (...) {
        directory.RemoveFile(temporary);
        throw;
    }
    if (const int error = Krt::File::TrySync(directory.GetHandle()))
        KRT_RAISE_OS(error, "Can't write the directory of the job file");
}

} // namespace Agent
