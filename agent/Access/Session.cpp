#include "agent/Access/Session.h"

#include "agent/Access/Password.h"
#include "agent/Access/SnapshotChoice.h"
#include "agent/Access/TextFile.h"
#include "agent/Access/Workers.h"
#include "agent/Http/Address.h"
#include "agent/Remote/Location.h"
#include "agent/Repository/LocalBackend.h"
#include "agent/Repository/Look.h"
#include "agent/Repository/Unix/SecretPages.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Syncer.h"
#include "agent/Run/Text.h"
#include "agent/Run/UsageError.h"

#include "Krt/Profile/YProfile.h"

#include <algorithm>
#include <cerrno>

namespace Agent {

using Krt::YString;
using Repo::RepositoryError;

namespace {

constexpr int AttemptsOnTerminal = 3;
constexpr std::size_t ShortDigits = 8; // of an id
constexpr std::string_view OtherSchemes[] = {"sftp:", "rclone:", "b2:", "azure:", "gs:", "swift:"};

bool IsReadOnly(const Krt::Exception::YError& error)
{
    const int number = error.GetOsError();
    return number == EROFS || number == EACCES || number == EPERM;
}

std::optional<Repo::Secret> ReadIfPresent(const std::string& path)
{
    try {
        return ReadTextFile(path);
    } catch (const Krt::Exception::YError& error) {
        if (error.GetOsError() != ENOENT)
            throw;
        return std::nullopt;
    }
}

std::string WaitText(std::chrono::seconds time)
{
    const auto seconds = static_cast<unsigned long long>(time.count());
    return seconds % 60 == 0 ? CountText(seconds / 60, "minute", "minutes")
                             : CountText(seconds, "second", "seconds");
}

bool HasKeys(Repo::IBackend& backend)
{
    bool hasKeys = false;
    backend.List(Repo::FileKind::Key, [&hasKeys](const Repo::Id&, std::uint64_t) { hasKeys = true; });
    return hasKeys;
}

Remote::SecretSources SourcesOfSecrets(const RepositoryOptions& options)
{
    const auto find = [&](const char* name) {
        const auto names = {"REST_USERNAME", "REST_PASSWORD"};
        return FromEnvironment(options, names, name).value_or("");
    };
    Remote::SecretSources sources;
    sources.environment = FindVariable;
    sources.readFile = ReadIfPresent;
    sources.credentialsFile =
        Krt::Profile::OpenSystem()->Get<YString>("configuration", "s3CredentialsFile", YString()).Bytes();
    sources.restUser = find("REST_USERNAME");
    std::string password = find("REST_PASSWORD");
    sources.restPassword = Repo::Secret(Repo::AsBytes(password));
    Repo::Wipe({reinterpret_cast<unsigned char*>(password.data()), password.size()});
    return sources;
}

std::shared_ptr<Repo::IBackend> RemoteBackendOf(const std::string& location, const RepositoryOptions& options,
                                                Report& report)
{
    Remote::SecretSources secrets = SourcesOfSecrets(options);
    if (Remote::SendsPasswordOpenly(location, secrets))
        report.Note(
            "Warning: others on the network can read the user and the password of the server, since its "
            "address has http: and not https:");
    Remote::RemoteOptions remote = options.remote;
    if (remote.anchorFile.empty() && remote.pins.empty()) {
        remote.anchorFile = FromEnvironment({"CACERT"}, "CACERT").value_or("");
        remote.anchorSource = FindVariable("KBAGENT_CACERT") != nullptr ? "KBAGENT_CACERT" : "RESTIC_CACERT";
    }
    return Remote::MakeRemoteBackend(location, remote, std::move(secrets));
}

} // namespace

std::shared_ptr<Repo::IBackend> BackendOf(const RepositoryOptions& options, Report& report)
{
    const std::string location = FindLocation(options);
    if (Remote::IsRemote(location)) {
        if (Http::WithoutCredentials(options.location) != options.location)
            report.Note("Warning: other users can read the password in the arguments of this process; "
                        "--repository-file and KBAGENT_REST_PASSWORD keep it from them");
        return RemoteBackendOf(location, options, report);
    }
    for (const std::string_view scheme : OtherSchemes)
        KRT_RAISE_UNLESS(!location.starts_with(scheme), Krt::ErrorCode::NotSupported,
                         "Repositories at an address that begins with " << YString(scheme)
                                                                        << " are not supported");
    const auto syncer = std::make_shared<Syncer>();
    return std::make_shared<Repo::LocalBackend>(
        YString(*DirectoryOf(location)),
        [syncer](const Krt::Util::YUnxHandle& handle) { syncer->Sync(handle); });
}

std::string HintOf(const RepositoryError& snapshotError)
{
    return snapshotError.GetFailure() != Repo::Failure::Damaged
               ? ""
               : "; 'kbagent recover' makes another snapshot of its directories, then "
                 "'kbagent repair snapshots --forget' with its ID removes the file";
}

void ReportFailure(Report& report, const Repo::FileName& file, const RepositoryError& error,
                   const std::string& meaning)
{
    std::string reason = ReasonOf(error).Bytes();
    if (const std::string prefix = file.Prefix().Bytes(); reason.starts_with(prefix))
        reason.erase(0, prefix.size());
    if (file.kind == Repo::FileKind::Snapshot)
        reason += HintOf(error);
    report.RepositoryFailed(YString(file.Path()), YString(meaning + reason));
}

Session::Session(const RepositoryOptions& options, Report& report, Access access, OldFormat oldFormat,
                 Settling settling)
    : m_options(options), m_report(report)
{
    const bool isWriting = access != Access::Read && access != Access::DryRun;
    if (isWriting && m_options.isUnlocked)
        throw UsageError("A command that writes to the repository needs a lock");
    if (m_options.isJson)
        m_report.UseJson();
    if (m_options.isQuiet)
        m_report.BeQuiet();
    Repo::HideProcess();
    Repo::SetLook(RaiseIfInterrupted);
    std::shared_ptr<Repo::IBackend> backend = BackendOf(m_options, m_report);
    if (dynamic_cast<Repo::LocalBackend*>(backend.get()) == nullptr)
        backend = m_cache = std::make_shared<Remote::CachedBackend>(std::move(backend));
    m_backend = std::make_shared<WatchedBackend>(std::move(backend));
    m_report.NoteLocation(m_backend->Describe());
    Open();
    UseCache();
    KRT_RAISE_UNLESS(access == Access::Read || oldFormat == OldFormat::Accepted ||
                         m_repository->GetConfig().version >= 2,
                     Krt::ErrorCode::NotSupported,
                     "The repository has version 1 of the format, which is read but not written; 'kbagent "
                     "migrate upgrade_repo_v2' changes it to version 2");
    if (access == Access::Append)
        m_backend->RequirePlace(Repo::FileKind::Snapshot);
    if (!m_options.isUnlocked)
        LockFor(access, settling);
    if (m_options.isVerbose)
        m_report.Note(YString(std::string_view(
            "repository " + m_repository->GetConfig().id.ToHex().substr(0, ShortDigits) + " (version " +
            std::to_string(m_repository->GetConfig().version) + ") was opened with the key " +
            m_repository->GetKeyId().ToHex().substr(0, ShortDigits))));
}

// A cache that can't be used costs only time.
void Session::UseCache()
{
    const std::string directory = FindCacheDirectory(m_options);
    if (!m_cache || directory.empty())
        return;
    try {
        m_cache->UseDirectory(Remote::CacheDirectory(directory, m_repository->GetConfig().id));
    } catch (const Krt::Exception::YError& error) {
        m_report.Note("Warning: the repository is used without a cache: " + ReasonOf(error));
    }
}

void Session::LoadIndex(Settling settling)
{
    const auto report = [this](const Repo::FileName& file, const RepositoryError& error) {
        Settle();
        ReportFailure(m_report, file, error);
    };
    m_repository->LoadIndex(report, WorkerCount(), RaiseIfInterrupted);
    if (settling == Settling::AtOnce)
        Settle();
}

void Session::Settle()
{
    if (m_lock)
        m_lock->Settle();
}

unsigned int Session::TransferCount(unsigned int local) const
{
    constexpr unsigned int Remote = 5; // each waits for responses more than it works
    return IsRemote() ? std::max(local, Remote) : local;
}

void Session::SettleIfDue()
{
    if (m_lock)
        m_lock->SettleIfDue();
}

void Session::FindLostPacks()
{
    const std::vector<Repo::FileName> lost = m_repository->FindLostPacks();
    if (lost.empty())
        return;
    Settle();
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
            const bool isWrong = error.GetFailure() == Repo::Failure::WrongPassword && HasKeys(*m_backend);
            const bool mayTryAgain = isWrong && terminal && attempt < AttemptsOnTerminal;
            if (error.GetFailure() == Repo::Failure::Damaged ||
                (error.GetFailure() == Repo::Failure::WrongPassword && !isWrong))
                m_report.Note(
                    "hint: a copy of the repository may have its configuration and key files as they "
                    "were, which can be copied back");
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

void Session::LockFor(Access access, Settling settling)
{
    if (access == Access::Recovery) {
        RequireNoLock(*m_repository);
        return;
    }
    LockSettings settings;
    settings.isExclusive = access == Access::Exclusive;
    settings.patience = m_options.retryLock;
    settings.onWait = [this](const LockedError& error) {
        if (!m_options.isQuiet)
            m_report.Note(YString("Waiting for at most " + WaitText(m_options.retryLock) + ": ") +
                          ReasonOf(error));
    };
    settings.settlesLater = settling == Settling::Later;
    settings.onLost = [backend = m_backend] {
        backend->ReportLostLock();
    };
    settings.onLeft = [this](const Krt::Exception::YError& error) {
        m_report.EntryFailed("locks",
                             "The lock of the repository can't be removed, so 'kbagent unlock' has to: " +
                                 ReasonOf(error));
    };
    try {
        m_lock.emplace(*m_repository, std::move(settings));
        m_backend->SetWriteGuard([this] { m_lock->RequireFresh(); }, [this] { return m_lock->HasExpired(); });
    } catch (const RepositoryError& error) {
        const bool isReading = access == Access::Read || access == Access::DryRun;
        if (isReading && m_options.mayBeUnlocked && IsFull(error))
            throw RepositoryError(error.GetFailure(), error,
                                  "The repository can't be locked, but --no-lock reads it without a lock: ");
        if (m_options.mayRecoverSpace && access == Access::Exclusive && IsFull(error))
            throw RepositoryError(error.GetFailure(), error,
                                  "The repository can't be locked, but --recover-no-free-space removes "
                                  "without a lock: ");
        if (!isReading || !IsReadOnly(error))
            throw;
        m_report.Note("The repository can't be written, so it is read without a lock: " + ReasonOf(error));
    }
}

} // namespace Agent
