// The picture of the session an agent gets from /v1/snapshot.png.
#pragma once

#include <string>

#include "session.hpp"

namespace tondrel::sim {

// A PNG of the timeline: ruler, tracks with their clips, waveforms and fades,
// MIDI notes, markers, loop, selection and playhead.
std::string snapshotPNG(const Session& session);

}  // namespace tondrel::sim
