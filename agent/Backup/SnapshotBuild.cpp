#include "agent/Backup/SnapshotBuild.h"

#include "agent/Access/Workers.h"
#include "agent/Run/Interrupt.h"

#include <algorithm>

namespace Agent {

using Krt::YString;
using Krt::Thread::AnnotatedLock;
using Repo::BlobType;
using Repo::Id;

namespace {

constexpr std::chrono::milliseconds BetweenTicks{100};

} // namespace

// An error that the call raises ends the run. The caller would take it for the failure of an entry.
template <class Call>
void SnapshotBuild::EndRunOnError(const Call& call)
{
    try {
        call();
    } catch (...) {
        const AnnotatedLock lock(m_mutex);
        if (!m_failure)
            m_failure = std::current_exception();
        m_isFailed = true;
        throw;
    }
}

SnapshotBuild::SnapshotBuild(const Repo::Repository& repository, Repo::BlobSaver& saver, Report& report,
                             SnapshotBuildOptions options)
    : m_repository(repository), m_saver(saver), m_report(report), m_options(std::move(options)),
      m_lastTick(std::chrono::steady_clock::now()),
      m_context{.store = [this](Repo::ByteView text,
                                const std::optional<Id>& sound) { return StoreTree(text, sound); },
                .keep =
                    [this](const Id& tree, Repo::ByteView text) {
                        return StoreBlob({BlobType::Tree, tree}, text);
                    },
                .onFailed = [this](const std::string& path,
                                   const std::string& reason) { Post(path, reason, true); },
                .onStored = {},
                .directories = {}},
      m_root(std::make_shared<DirectoryBuild>(m_context, nullptr, "")),
      m_pool(
          repository.GetConfig().polynomial,
          [this](BlobType type, Repo::ByteView plaintext) {
              return StoreBlob({type, Id::Of(plaintext)}, plaintext);
          },
          PoolOptions{.threads = WorkerCount(), .readers = std::max(1u, m_options.readers), .onWait = [this] {
                          RaiseIfInterrupted();
                          ReportProgress();
                      }})
{
    if (ReportsStored())
        m_context.onStored = [this](StoredItem item) {
            PostStored(std::move(item));
        };
}

SnapshotBuild::~SnapshotBuild() = default;

std::shared_ptr<DirectoryBuild> SnapshotBuild::AddDirectory(const std::shared_ptr<DirectoryBuild>& above,
                                                            const std::string& name)
{
    auto directory = std::make_shared<DirectoryBuild>(m_context, above, name);
    above->Announce();
    return directory;
}

void SnapshotBuild::AddContent(FileToRead file)
{
    EndRunOnError([&] { m_pool.Add(std::move(file)); });
}

void SnapshotBuild::CountFile(Change change, std::uint64_t size)
{
    m_files.Add(change);
    m_fileBytes[static_cast<std::size_t>(change)] += size;
    m_bytes += size;
}

void SnapshotBuild::Tick()
{
    EndRunOnError([this] {
        ReportProgress();
        m_pool.RaiseFailure();
    });
}

void SnapshotBuild::RaiseFailure() const
{
    const AnnotatedLock lock(m_mutex);
    if (m_failure)
        std::rethrow_exception(m_failure);
}

std::optional<Id> SnapshotBuild::Finish()
{
    m_pool.Finish();
    ReportMessages();
    RaiseIfInterrupted();
    ReportLosses();
    return std::exchange(m_root, nullptr)->GetTree();
}

SnapshotCounts SnapshotBuild::GetCounts() const
{
    SnapshotCounts counts;
    counts.filesNew = m_files.isNew;
    counts.filesChanged = m_files.isChanged;
    counts.filesUnmodified = m_files.isUnmodified;
    counts.dirsNew = m_context.directories.isNew;
    counts.dirsChanged = m_context.directories.isChanged;
    counts.dirsUnmodified = m_context.directories.isUnmodified;
    counts.bytes = m_bytes;
    counts.bytesNew = m_fileBytes[static_cast<std::size_t>(Change::New)];
    counts.bytesChanged = m_fileBytes[static_cast<std::size_t>(Change::Modified)];
    counts.bytesUnmodified = m_fileBytes[static_cast<std::size_t>(Change::Unchanged)];
    const AnnotatedLock lock(m_mutex);
    counts.data = m_options.isDryRun ? m_drySaved[0] : m_saver.GetSaved(BlobType::Data);
    counts.trees = m_options.isDryRun ? m_drySaved[1] : m_saver.GetSaved(BlobType::Tree);
    return counts;
}

SnapshotCounts SnapshotBuild::GetProgress() const
{
    SnapshotCounts counts = GetCounts();
    counts.bytes = std::max(counts.bytes, m_unreadBytes + m_pool.GetReadBytes());
    return counts;
}

StoredBlob SnapshotBuild::StoreBlob(const Repo::BlobHandle& handle, Repo::ByteView plaintext)
{
    StoredBlob stored{handle.id};
    if (m_options.isDryRun) {
        stored = CountBlob(handle, plaintext.size());
    } else {
        EndRunOnError([&] { stored.packed = m_saver.Save(handle, plaintext); });
        stored.added = stored.packed == 0 ? 0 : plaintext.size();
    }
    if (stored.packed != 0 && m_repository.GetIndex().Has(handle))
        ++m_storedAgain;
    return stored;
}

// The snapshot depends on a tree that the repository has as on those that are stored, so each is read once.
// Contents are not, since that would take as long as `check --read-data`.
StoredBlob SnapshotBuild::StoreTree(Repo::ByteView text, const std::optional<Id>& sound)
{
    const Repo::BlobHandle handle{BlobType::Tree, Id::Of(text)};
    if (handle.id != sound) {
        EndRunOnError([&] {
            if (!m_repository.IsReadable(handle)) // then it is stored again
                RaiseIfInterrupted();
        });
    }
    return StoreBlob(handle, text);
}

// Counts a blob that a dry run would store.
StoredBlob SnapshotBuild::CountBlob(const Repo::BlobHandle& handle, std::size_t size)
{
    if (m_repository.HasBlob(handle))
        return {handle.id};
    const AnnotatedLock lock(m_mutex);
    if (!m_dry.insert(handle).second)
        return {handle.id};
    Repo::SavedBlobs& saved = m_drySaved[handle.type == BlobType::Tree ? 1 : 0];
    ++saved.blobs;
    saved.bytes += size;
    saved.stored += size;
    return {handle.id, size, size};
}

void SnapshotBuild::ReportProgress()
{
    const auto now = std::chrono::steady_clock::now();
    if (now - m_lastTick < BetweenTicks)
        return;
    m_lastTick = now;
    m_pool.Wake();
    ReportMessages();
    m_options.onTick();
}

void SnapshotBuild::Post(std::string path, std::string text, bool isFailure)
{
    const AnnotatedLock lock(m_mutex);
    m_messages.push_back({std::move(path), std::move(text), isFailure});
}

void SnapshotBuild::PostLoss(std::string path, std::string text)
{
    EndRunOnError(m_options.beforeLoss);
    m_hasLosses = true;
    Post(std::move(path), "Warning: " + std::move(text), false);
}

void SnapshotBuild::ReportLosses()
{
    if (!m_hasLosses && !m_isIndexLacking && m_storedAgain == 0)
        return;
    const std::string areStored = m_options.isDryRun ? " would be stored again" : " are stored again";
    std::string text;
    if (m_storedAgain != 0)
        text = "The repository has blobs that are damaged or missing; " + std::to_string(m_storedAgain) +
               " of them are needed by the snapshot and" + areStored;
    else if (!m_isIndexLacking)
        text = "The repository has blobs that are damaged or missing; the snapshot needs none of them";
    if (m_isIndexLacking)
        text += (text.empty() ? "" : ". ") +
                ("The index lacks blobs of the parent; those that the snapshot needs" + areStored);
    m_report.RepositoryFailed(
        m_repository.GetBackend().Describe(),
        YString(std::string_view(text + ". 'kbagent check' finds out what other snapshots have lost")));
}

void SnapshotBuild::PostStored(StoredItem item)
{
    const AnnotatedLock lock(m_mutex);
    m_stored.push_back(std::move(item));
}

void SnapshotBuild::ReportMessages()
{
    std::vector<Message> messages;
    std::vector<StoredItem> stored;
    {
        const AnnotatedLock lock(m_mutex);
        messages.swap(m_messages);
        stored.swap(m_stored);
    }
    for (const StoredItem& item : stored)
        m_options.onStored(item);
    for (const Message& message : messages) {
        const YString path(message.path.empty() ? "/" : message.path);
        if (message.isFailure)
            m_report.EntryFailed(path, YString(message.text));
        else
            m_report.Note(YString(path) + ": " + YString(message.text));
    }
}

} // namespace Agent
