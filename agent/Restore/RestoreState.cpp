#include "agent/Restore/RestoreState.h"

#include <algorithm>

namespace Agent {

using Krt::File::YDirectory;

namespace {

const YDirectory* RootOf(const RestoreState& state)
{
    if (state.maker)
        return &state.maker->GetTree().GetRoot();
    return state.dryTarget ? &*state.dryTarget : nullptr;
}

} // namespace

RestoreState::RestoreState(const Repo::Repository& source, std::optional<YDirectory> target,
                           RestoreSettings wanted, Report& observer)
    : repository(source), settings(std::move(wanted)), report(observer),
      maker(settings.isDryRun ? nullptr : std::make_unique<EntryMaker>(std::move(target.value()), report)),
      dryTarget(maker ? std::nullopt : std::move(target)), existing(RootOf(*this)),
      progress(settings, report),
      cleaner(
          settings, [this](const std::string& path) { progress.CountDeleted(path); }, report)
{}

TargetLocation LocationOf(std::string_view path)
{
    TargetLocation location;
    for (std::size_t begin = 1; begin < path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        location.emplace_back(path.substr(begin, end - begin));
        begin = end + 1;
    }
    return location;
}

} // namespace Agent
