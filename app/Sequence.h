#pragma once
// Shots: one render per frame of a range, with file names, knobs and the camera following the
// frame. This is the library's entry for anything that renders: the command line, the Python
// module and the farm's tasks all go through planShot and renderShot (or frameOptions and
// render for one frame of their own choosing).

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "app/Animation.h"
#include "app/Render.h"

namespace vorelapp {

struct ShotOptions {
  // Every path may carry a frame pattern (see Frames.h); every setting's value may be
  // "@file.chan" or keyframes ("1001:180 1050:240").
  RenderOptions render;
  std::string frames;      // "1001-1100x2"; empty: one render, paths taken as written
  std::string cameraFile;  // a `.chan` camera track (see CameraTrack)
  bool stopOnError = false;   // otherwise a failed frame is recorded and the next one rendered
  bool skipExisting = false;  // a frame whose outputs all exist is not rendered again
};

// A shot checked and read: its frames, and the curves its settings and camera follow.
struct Shot {
  ShotOptions options;
  std::vector<int> frames;  // empty for one render without frame numbers
  std::vector<std::optional<Curve>> curves;  // per setting of options.render.settings
  std::optional<CameraTrack> camera;
};

// Throws UsageError for a range, pattern, keyframe or track that cannot be, before anything is
// rendered.
Shot planShot(const ShotOptions& options);

// The options of one frame: paths with the frame number, settings and camera at that frame.
RenderOptions frameOptions(const Shot& shot, int frame);

struct FrameRecord {
  enum Status { Done, Skipped, Failed };
  int frame = 0;
  bool numbered = false;  // false for a render without frame numbers
  std::vector<std::string> outputs;
  Status status = Done;
  std::string error;       // when it failed
  int exitStatus = 0;      // when it failed: 1 or 2, as AppError says
  RenderSummary summary;   // when it was done
  std::vector<std::string> warnings;
};

struct ShotReport {
  std::function<void(const std::string&)> note;     // informational
  std::function<void(const std::string&)> warning;  // also kept in the frame's record
  // Rows of the frame being rendered, with where that frame stands in the shot.
  std::function<void(std::size_t frameIndex, std::size_t frameCount, long rowsDone,
                     long rowsTotal, double frameSeconds, double rowSeconds)>
      rows;
  // After each frame: its record, frames finished so far (done, skipped or failed) of all, and
  // the seconds the shot has taken and, from the frames rendered so far, is likely still to take.
  std::function<void(const FrameRecord&, std::size_t finished, std::size_t count,
                     double seconds, double secondsLeft)>
      frameDone;
};

struct ShotResult {
  std::vector<FrameRecord> frames;
  std::vector<int> failed;  // frame numbers
  double seconds = 0.0;
};

// Renders every frame in order. A failed frame is recorded and the shot goes on, or with
// stopOnError ends there. One render without frame numbers throws its failure instead.
ShotResult renderShot(const Shot& shot, const ShotReport& report);

}  // namespace vorelapp
