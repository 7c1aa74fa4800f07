// JobText: a job and its review as text for people, and as JSON documents.
#pragma once

#include "agent/Job/JobReview.h"

#include <string>
#include <vector>

namespace Agent {

/// Returns a table of the rules, numbered from 1. `width` is that of TableText.
std::string JobTable(const std::vector<JobRule>& rules, unsigned int width);
/// Returns a document with the rules.
std::string JobJson(const std::vector<JobRule>& rules);

/// Returns a text such as "FILE:12: warning: includes[2]: the rule matches no name". Not made printable.
std::string FindingText(const ReviewFinding& finding, const std::string& jobFile);
/// Returns a document with the findings.
std::string ReviewJson(const JobReview& review, const std::string& jobFile);

} // namespace Agent
