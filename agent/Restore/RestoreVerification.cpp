#include "agent/Restore/RestoreVerification.h"

#include "agent/Access/TreeWalk.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"
#include "Krt/Util/YUnxHandle.h"

#include <cerrno>
#include <functional>
#include <optional>
#include <sys/stat.h>

namespace Agent {

using Krt::ErrorCode;
using Krt::YString;
using Krt::File::YDirectory;
using Repo::BlobType;
using Repo::Node;
using Repo::NodeType;

namespace {

// Returns true if the file has the content of the node. Calls `onRead` with the bytes that were read.
bool HasContent(const Repo::Index& index, const Krt::Util::YUnxHandle& file, const Node& node,
                const std::function<void(std::uint64_t bytes)>& onRead)
{
    const struct stat status = Krt::File::Stat(file);
    if (!S_ISREG(status.st_mode) || static_cast<std::uint64_t>(status.st_size) != node.size || !node.content)
        return false;
    Repo::Bytes part;
    std::uint64_t offset = 0;
    for (const Repo::Id& id : *node.content) {
        RaiseIfInterrupted();
        const auto found = index.Find({BlobType::Data, id});
        part.resize(found ? found->blob.plainLength : 0);
        if (!found || Krt::File::Read(file, offset, part.size(), part.data()) != part.size() ||
            Repo::Id::Of(part) != id)
            return false;
        offset += part.size();
        onRead(offset);
    }
    return true;
}

// Returns nothing if the mode of the node does not allow the owner, an ordinary user, to read the file.
std::optional<Krt::Util::YUnxHandle> OpenUnlessDenied(const YDirectory& parent, const YString& name,
                                                      const Node& node)
{
    try {
        return parent.OpenFile(name);
    } catch (const Krt::Exception::YError& error) {
        if (error.GetOsError() != EACCES || (node.mode & S_IRUSR) != 0)
            throw;
        return std::nullopt;
    }
}

void VerifyFile(RestoreState& state, const std::string& path, const Node& node)
{
    try {
        const TargetLocation location = LocationOf(path);
        const YDirectory& parent = state.maker->GetTree().ExistingParentOf(location);
        const auto file = OpenUnlessDenied(parent, location.back(), node);
        if (!file) {
            state.progress.CountUnverified();
            state.report.Note(YString(path + ": Not verified: its mode does not allow the user to read it"));
            return;
        }
        const auto onRead = [&](std::uint64_t bytes) {
            state.progress.ShowVerification(path, bytes);
        };
        KRT_RAISE_UNLESS(HasContent(state.repository.GetIndex(), *file, node, onRead),
                         ErrorCode::InvalidState, "Verified, and its content is not that of the snapshot");
        state.progress.CountVerified(node.size);
    } catch (const Krt::Exception::YError& error) {
        RaiseIfInterrupted();
        state.report.EntryFailed(YString(std::string_view(path)), ReasonOf(error));
    }
}

} // namespace

void VerifyRestored(RestoreState& state, const Repo::Id& tree)
{
    state.report.RestartProgress();
    WalkTree(
        state.repository, tree, "",
        [&](const std::string& path, Node& node) {
            const Selection selection = state.settings.Select(path, node.type == NodeType::Directory);
            if (selection.isSelected && node.type == NodeType::File && !state.unverified.contains(path))
                VerifyFile(state, path, node);
            return selection.mayHaveSelected ? Step::Into : Step::Past;
        },
        [](const std::string&, const Krt::Exception::YError&) {});
    state.maker->GetTree().Finish();
}

} // namespace Agent
