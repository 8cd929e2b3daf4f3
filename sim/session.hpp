// The simulated editor's whole state: the project document, its undo history,
// the transport and the selection. Every HTTP handler works on one Session
// under one lock, so nothing here is thread-safe by itself.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "document.hpp"

namespace tondrel::sim {

struct UndoStep {
  std::string label;
  json before;
};

class Session {
 public:
  explicit Session(int apiPort);

  const json& document() const { return document_; }
  // Replaces the document as one undo step.
  void commit(json next, const std::string& label);
  void undo();
  void redo();

  json state() const;

  // Transport and selection, as /v1/transport and /v1/select change them.
  void transport(const json& request);
  void select(const json& request);

  std::optional<std::string> file;  // the project file, once opened or saved
  json clipboard = json::array();   // what range.copy and range.cut left: tracks of clips
  double clipboardLength = 0;

  json selectedClips = json::array();
  std::optional<int> selectedTrack;
  std::optional<std::pair<double, double>> selectionRange;
  double zoomStart = 0, zoomEnd = 0;  // what select's fit asked to show; 0, 0: the whole project

  void load(json document, std::optional<std::string> path);  // a new project: history cleared
  void markSaved() { dirty_ = false; }
  double time() const;
  // A relative path is taken from the project file's folder, else from the working directory.
  std::string resolvedPath(const std::string& path) const;
  bool playing() const { return playing_; }
  std::optional<std::pair<double, double>> loopRange() const { return loop_; }

 private:
  using Clock = std::chrono::steady_clock;
  json document_;
  std::vector<UndoStep> undo_, redo_;
  void step(std::vector<UndoStep>& from, std::vector<UndoStep>& to, const char* nothing);
  bool dirty_ = false;
  long long changeCount_ = 0;
  int apiPort_;
  bool playing_ = false;
  double time_ = 0;  // where the playhead was when playing last started or stopped
  Clock::time_point since_ = Clock::now();
  std::optional<std::pair<double, double>> loop_;
};

}  // namespace tondrel::sim
