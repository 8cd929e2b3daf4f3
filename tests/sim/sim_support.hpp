// What the simulator's tests share: a scratch folder, a project with audio in it,
// and the message of a refusal.
#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "audio.hpp"
#include "edit.hpp"
#include "session.hpp"

namespace tondrel::sim::test {

// A fresh folder under the system's temporary one, removed with the object.
struct Scratch {
  std::filesystem::path dir;
  Scratch();
  ~Scratch();
  std::string file(const std::string& name) const { return (dir / name).string(); }
};

// tone.wav (4 s: 0.5 peak to 1.5 s, silence, 0.25 peak 2-3.5 s, silence) imported on
// track 0 at 0 s; answers the clip's id.
std::string importTone(Session& session, const Scratch& scratch);

inline json edit(Session& session, json ops, const std::string& label = "") {
  json request = {{"ops", std::move(ops)}};
  if (!label.empty()) request["label"] = label;
  return applyEdit(session, request);
}

// "" when f succeeds, else the message of the SimError it throws.
template <typename F>
std::string refusal(F&& f) {
  try {
    f();
    return "";
  } catch (const SimError& error) {
    return error.what();
  }
}

// JSON text with each placeholder character ('$') replaced by the id given for it.
json withIds(std::string text, const std::map<char, std::string>& ids);

}  // namespace tondrel::sim::test
