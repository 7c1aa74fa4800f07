// WorkObserver: how a command learns of the progress of long work on a repository.
#pragma once

#include <cstdint>
#include <string>

namespace Agent {

/// Receives how work on a repository proceeds, on the thread that runs it.
class IWorkObserver
{
public:
    virtual ~IWorkObserver() = default;
    /// A part of the work begins.
    virtual void OnStage(const std::string& text) = 0;
    /// Reports what the user should know, such as a file that can't be read. The text may contain bytes that
    /// are not printable.
    virtual void OnNote(const std::string& text) = 0;
    /// How many items of the current part are done. `total` is 0 if it is not known. `unit` is a literal for
    /// what the items are, as in "packs".
    virtual void OnProgress(std::uint64_t done, std::uint64_t total, const char* unit) = 0;
};

} // namespace Agent
