// Writing many rule files at once, with one flush for all of them.
//
// Replacing files one by one with a flush each costs a file-system commit
// per rule; a rule set of thousands of rules then takes tens of seconds. The
// batch keeps the same guarantee, every rule file is at every moment (also
// after a crash) either its old or its new complete content, with one flush:
//   1. each rule's content goes to its own temporary file in the batch's
//      staging directory /opt/korvex/etc/aec/.rules-batch.<pid>/ (outside
//      the rules directory, on its file system), not flushed;
//   2. one syncfs makes all of them durable;
//   3. each temporary is renamed over its rule file;
//   4. the rules directory is flushed once, making the renames durable.
// A rename only ever happens after the data it exposes is on disk. A batch
// of a process that was killed leaves its staging directory behind; the
// next batch removes those of processes that no longer exist.
#pragma once

#include <vector>

#include "aec_rule.h"

namespace aec {

// Replaces the file of every rule in `rules`, in order.
// Failure: boost::property_tree::json_parser_error "write error" with the
// path of the rule that failed (the first rule's when the common flush
// fails). No temporary is left behind, nor the staging directory. A failure
// before step 3 changes no rule file; a failed rename leaves the rules before
// it replaced and the others untouched. A rule whose name cannot be a file
// name fails the batch before anything is written.
void SaveRuleFiles(const std::vector<const AecRule*>& rules);

// Removes the staging directories of batches whose process no longer exists
// (a batch does it itself before it writes). Never fails: what cannot be
// removed stays for the next sweep.
void RemoveStaleRuleBatches();

}  // namespace aec
