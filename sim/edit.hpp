// The batch edit: every operation applied to a copy of the document, which
// replaces the real one as one undo step only when all of them succeed.
#pragma once

#include <string>

#include "session.hpp"

namespace tondrel::sim {

// Validates, applies and commits; answers what changed. Throws SimError and
// leaves the session untouched when any operation fails.
json applyEdit(Session& session, const json& request);

// Applies ops that are already known to be well formed, as one undo step. A failure's
// message starts with `context` when one is given ("cannot import a.wav"), else with
// the op's place in the batch ("ops[2] (clip.gain)").
json applyOperations(Session& session, const json& ops, const std::string& label,
                     const std::string& context = "");

}  // namespace tondrel::sim
