#include "agent/Access/Session.h"

#include "agent/Access/Password.h"
#include "agent/Access/SnapshotChoice.h"
#include "agent/Access/Workers.h"
#include "agent/Repository/LocalBackend.h"
#include "agent/Repository/Unix/SecretPages.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Syncer.h"
#include "agent/Run/Text.h"
#include "agent/Run/UsageError.h"

#include <cerrno>

namespace Agent {

using Krt::YString;
using Repo::RepositoryError;

namespace {

constexpr int AttemptsOnTerminal = 3;
constexpr std::size_t ShortDigits = 8; // of an id
constexpr std::string_view LocalScheme = "local:";
constexpr std::string_view OtherSchemes[] = {
    "sftp:", "rest:", "s3:", "rclone:", "b2:", "azure:", "gs:", "swift:"};

bool IsFull(const Krt::Exception::YError& error)
{
    return error.GetOsError() == ENOSPC || error.GetOsError() == EDQUOT;
}

bool IsReadOnly(const Krt::Exception::YError& error)
{
    const int number = error.GetOsError();
    return number == EROFS || number == EACCES || number == EPERM;
}

} // namespace

std::shared_ptr<Repo::IBackend> BackendOf(const std::string& location)
{
    for (const std::string_view scheme : OtherSchemes)
        KRT_RAISE_UNLESS(!location.starts_with(scheme), Krt::ErrorCode::NotSupported,
                         "Repositories at an address that begins with " << YString(scheme)
                                                                        << " are not supported");
    const std::string path =
        location.starts_with(LocalScheme) ? location.substr(LocalScheme.size()) : location;
    const auto syncer = std::make_shared<Syncer>();
    return std::make_shared<Repo::LocalBackend>(
        YString(std::string_view(path)),
        [syncer](const Krt::Util::YUnxHandle& handle) { syncer->Sync(handle); });
}

void ReportFailure(Report& report, const Repo::FileName& file, const RepositoryError& error)
{
    std::string reason = ReasonOf(error).Bytes();
    if (const std::string prefix = file.Prefix().Bytes(); reason.starts_with(prefix))
        reason.erase(0, prefix.size());
    report.RepositoryFailed(YString(file.Path()), YString(reason));
}

Session::Session(const RepositoryOptions& options, Report& report, Access access, OldFormat oldFormat)
    : m_options(options), m_report(report)
{
    const bool isWriting = access != Access::Read && access != Access::DryRun;
    if (isWriting && m_options.isUnlocked)
        throw UsageError("A command that writes to the repository needs a lock");
    if (m_options.isJson)
        m_report.UseJson();
    Repo::HideProcess();
    m_backend = std::make_shared<WatchedBackend>(BackendOf(FindLocation(m_options)));
    m_report.NoteLocation(m_backend->Describe());
    Open();
    KRT_RAISE_UNLESS(access == Access::Read || oldFormat == OldFormat::Accepted ||
                         m_repository->GetConfig().version >= 2,
                     Krt::ErrorCode::NotSupported,
                     "The repository has version 1 of the format, which is read but not written; 'kbagent "
                     "migrate upgrade_repo_v2' changes it to version 2");
    if (!m_options.isUnlocked)
        LockFor(access);
    if (m_options.isVerbose)
        m_report.Note(YString(std::string_view(
            "repository " + m_repository->GetConfig().id.ToHex().substr(0, ShortDigits) + " (version " +
            std::to_string(m_repository->GetConfig().version) + ") was opened with the key " +
            m_repository->GetKeyId().ToHex().substr(0, ShortDigits))));
}

void Session::LoadIndex()
{
    const auto report = [this](const Repo::FileName& file, const RepositoryError& error) {
        ReportFailure(m_report, file, error);
    };
    m_repository->LoadIndex(report, WorkerCount(), RaiseIfInterrupted);
}

void Session::FindLostPacks()
{
    const std::vector<Repo::FileName> lost = m_repository->FindLostPacks();
    if (!lost.empty())
        m_report.Note(YString(std::string_view(
            "Warning: packs that are missing or too short: " + std::to_string(lost.size()) + ", such as " +
            lost.front().Path() +
            "; what the snapshot needs of them is stored again. 'kbagent check' finds out more")));
}

void Session::Open()
{
    Repo::OpenOptions options;
    options.keyHint = LowerDigits(!m_options.keyHint.empty()
                                      ? m_options.keyHint
                                      : FromEnvironment(m_options, {"KEY_HINT"}, "KEY_HINT").value_or(""));
    options.onUnreadKey = [this](const Repo::FileName&, const RepositoryError& error) {
        m_report.Note("A key file can't be used: " + ReasonOf(error));
    };
    std::shared_ptr<const SilentTerminal> terminal; // what is typed before it is asked for is a password, too
    for (int attempt = 1; !m_repository; ++attempt) {
        const Password password = ReadPassword(m_options, m_report);
        if (!terminal)
            terminal = password.terminal;
        try {
            m_repository.emplace(Repo::Repository::Open(m_backend, password.text, options));
        } catch (const RepositoryError& error) {
            const bool mayTryAgain = error.GetFailure() == Repo::Failure::WrongPassword && terminal &&
                                     attempt < AttemptsOnTerminal;
            if (!mayTryAgain)
                throw;
            m_report.Note(ReasonOf(error));
        }
    }
    if (!m_repository->GetKeyId().ToHex().starts_with(options.keyHint))
        ReportUnknownHint(options.keyHint);
}

void Session::ReportUnknownHint(const std::string& hint)
{
    const auto begins = [&hint](const Repo::Id& id) {
        return id.ToHex().starts_with(hint);
    };
    const std::vector<Repo::Id> keys = m_repository->ListIds(Repo::FileKind::Key);
    if (std::none_of(keys.begin(), keys.end(), begins))
        m_report.Note(YString("Warning: there is no key '" + hint + "' to try first"));
}

void Session::LockFor(Access access)
{
    if (access == Access::Recovery) {
        RequireNoLock(*m_repository);
        return;
    }
    LockSettings settings;
    settings.isExclusive = access == Access::Exclusive;
    settings.patience = m_options.retryLock;
    settings.onLost = [backend = m_backend] {
        backend->ReportLostLock();
    };
    settings.onLeft = [this](const Krt::Exception::YError& error) {
        m_report.Note("The lock of the repository can't be removed, so 'kbagent unlock' has to: " +
                      ReasonOf(error));
    };
    try {
        m_lock.emplace(*m_repository, std::move(settings));
        m_backend->SetWriteGuard([this] { m_lock->RequireFresh(); });
    } catch (const RepositoryError& error) {
        if (access == Access::Read && m_options.mayBeUnlocked && IsFull(error))
            throw RepositoryError(error.GetFailure(), error,
                                  "The repository can't be locked, but --no-lock reads it without a lock: ");
        if ((access != Access::Read && access != Access::DryRun) || !IsReadOnly(error))
            throw;
        m_report.Note("The repository can't be written, so it is read without a lock: " + ReasonOf(error));
    }
}

} // namespace Agent
