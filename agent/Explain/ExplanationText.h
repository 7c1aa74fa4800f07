// Explanations as text for people.
#pragma once

#include "agent/Explain/PathExplanation.h"
#include "agent/Explain/RuleSources.h"

#include <string>

namespace Agent {

/// How text is written.
struct TextStyle
{
    bool isColoured = false;
    unsigned int width = 0; ///< lines of a job file are cut to it; 0 for no limit
};

/// The meaning of a colour.
enum class Tone
{
    Stored,
    Partly,
    Left,
    Quiet
};

/// Returns the text in the colour of the tone if the style has colours.
std::string Coloured(const std::string& text, Tone tone, const TextStyle& style);

/// Returns where a rule comes from: "FILE:LINE", or the start whose PATH added it.
std::string OriginOf(const Backup::File::YSelectionPathDescriptor& rule, RuleSources& sources);

/// Returns a phrase such as "a mount point of class network (nfs4, nas:/export)".
std::string MountPhrase(const std::optional<MountFacts>& mount);

/// Returns the lines that answer whether and why the path is in the backup. The first one is the answer.
std::string ExplanationText(const PathExplanation& explanation, RuleSources& sources, const TextStyle& style);

} // namespace Agent
