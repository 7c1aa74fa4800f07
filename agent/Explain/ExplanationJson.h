// Explanations as JSON. docs/rules.md describes the documents.
#pragma once

#include "agent/Explain/PathExplanation.h"
#include "agent/Explain/RuleSources.h"

#include "Krt/JSON/YObject.h"

namespace Agent {

/// Returns the rule, as a job file has it, with its array, index and line in it.
Krt::JSON::YObject RuleObject(const Backup::File::YSelectionPathDescriptor& rule, RuleSources& sources);

/// Returns the class, the type and the source of a mount.
Krt::JSON::YObject MountObject(const MountFacts& mount);

/// Returns the word of an answer: include, exclude, go_on or stop.
const char* AnswerWord(Backup::File::YSelectionDescriptor::SelectionType answer);

Krt::JSON::YObject ExplanationObject(const PathExplanation& explanation, RuleSources& sources);

} // namespace Agent
