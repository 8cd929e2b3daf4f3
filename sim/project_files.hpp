// Files a session reads and writes as a whole: project files opened and saved,
// audio files opened as a project or imported into one.
#pragma once

#include <string>

#include "session.hpp"

namespace tondrel::sim {

// Opens a .tondrel or .json project, or an audio file as a new project with one track
// holding it; answers what /v1/open answers. A fresh undo history either way.
json openFile(Session& session, const std::string& path);

// Writes the document, indented, through path + ".saving" renamed over path.
void saveDocument(Session& session, const std::string& path);

// Adds an audio file as one undo step ({path, track?, at?}); answers as an edit does, plus the clip.
json importFile(Session& session, const json& body);

}  // namespace tondrel::sim
