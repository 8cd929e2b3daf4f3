// Checks a batch of edit operations against the operation table that also
// writes tondrel_edit's reference text, so the two can never disagree.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "catalogue.hpp"

namespace tondrel::sim {

// Throws SimError naming the op index, the op, the field and what was expected
// for the first operation that does not match its reference line.
void validateOps(const nlohmann::json& ops);

// The table entry for an op name, or nullptr.
const EditOperation* findOperation(std::string_view op);

}  // namespace tondrel::sim
