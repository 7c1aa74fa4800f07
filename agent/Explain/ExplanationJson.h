// Explanations as JSON. docs/rules.md describes the documents.
#pragma once

#include "agent/Explain/PathExplanation.h"
#include "agent/Explain/RuleSources.h"

#include "Krt/JSON/YObject.h"

namespace Agent {

/// Returns the rule, as a job file has it, with its place in the job file.
Krt::JSON::YObject RuleObject(const Backup::File::YSelectionPathDescriptor& rule, RuleSources& sources);

/// Returns the word of an answer: include, exclude, go_on or stop.
const char* AnswerWord(Backup::File::YSelectionDescriptor::SelectionType answer);

Krt::JSON::YObject ExplanationObject(const PathExplanation& explanation, RuleSources& sources);

} // namespace Agent
