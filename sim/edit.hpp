// The batch edit: every operation applied to a copy of the document, which
// replaces the real one as one undo step only when all of them succeed.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "session.hpp"

namespace tondrel::sim {

// Validates, applies and commits; answers what changed. Throws SimError and
// leaves the session untouched when any operation fails.
json applyEdit(Session& session, const json& request);

}  // namespace tondrel::sim
