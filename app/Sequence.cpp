#include "app/Sequence.h"

#include <chrono>
#include <filesystem>

#include "app/AppError.h"
#include "app/Frames.h"

namespace fs = std::filesystem;

namespace vorelapp {

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

// Without --frames, a pattern in an output would be written literally, and one in an input
// names a file that is not there: both are a forgotten --frames.
void checkUnnumbered(const RenderOptions& o) {
  for (const std::string& output : o.outputs)
    if (hasFramePattern(output))
      throw UsageError("-o " + output + " has a frame pattern; give the frames with --frames");
  if (hasFramePattern(o.cocOut))
    throw UsageError("--coc-out " + o.cocOut + " has a frame pattern; give the frames with --frames");
  std::error_code ec;
  for (const std::string* in : {&o.input, &o.deep, &o.kernel, &o.mattes})
    if (!in->empty() && hasFramePattern(*in) && !fs::exists(*in, ec))
      throw UsageError(*in + " has a frame pattern; give the frames with --frames");
}

void checkNumbered(const RenderOptions& o, std::size_t frameCount) {
  if (frameCount < 2)
    return;
  for (const std::string& output : o.outputs)
    if (!hasFramePattern(output))
      throw UsageError("-o " + output + " has no frame pattern (####, %04d or @), so every " +
                       "frame would write over it");
  if (!o.cocOut.empty() && !hasFramePattern(o.cocOut))
    throw UsageError("--coc-out " + o.cocOut + " has no frame pattern (####, %04d or @), so " +
                     "every frame would write over it");
}

// The record's end: how long the shot has taken, and how long the frames not yet finished are
// likely to take at the pace of those rendered so far (skipped ones cost nothing).
struct Pace {
  Clock::time_point start = Clock::now();
  double renderSeconds = 0.0;
  std::size_t rendered = 0;

  double left(std::size_t remaining) const {
    return rendered ? renderSeconds / double(rendered) * double(remaining) : 0.0;
  }
};

FrameRecord renderFrame(Renderer& renderer, const Shot& shot, std::size_t index,
                        const ShotReport& report) {
  const std::size_t count = shot.frames.empty() ? 1 : shot.frames.size();
  FrameRecord record;
  record.numbered = !shot.frames.empty();
  record.frame = record.numbered ? shot.frames[index] : 0;
  try {
    const RenderOptions o = frameOptions(shot, record.frame);
    record.outputs = o.outputs;
    if (shot.options.skipExisting && !o.outputs.empty()) {
      std::error_code ec;
      bool all = true;
      for (const std::string& output : o.outputs)
        all = all && fs::exists(output, ec);
      all = all && (o.cocOut.empty() || fs::exists(o.cocOut, ec));
      if (all) {
        record.status = FrameRecord::Skipped;
        return record;
      }
    }
    RenderReport r;
    r.note = report.note;
    r.warning = [&](const std::string& s) {
      record.warnings.push_back(s);
      if (report.warning)
        report.warning(s);
    };
    if (report.rows)
      r.progress = [&](long done, long total, double seconds, double rowSeconds) {
        report.rows(index, count, done, total, seconds, rowSeconds);
      };
    record.summary = renderer.render(o, r);
  } catch (const std::exception& e) {
    if (!record.numbered)
      throw;
    record.status = FrameRecord::Failed;
    record.error = e.what();
    record.exitStatus = exitStatusOf(e);
  }
  return record;
}

}  // namespace

Shot planShot(const ShotOptions& options) {
  Shot shot;
  shot.options = options;
  const RenderOptions& o = options.render;
  if (!options.frames.empty())
    shot.frames = parseFrames(options.frames);
  if (shot.frames.empty())
    checkUnnumbered(o);
  else
    checkNumbered(o, shot.frames.size());
  for (const KnobSetting& s : o.settings) {
    shot.curves.push_back(settingCurve(s));
    if (shot.curves.back() && shot.frames.empty())
      throw UsageError(s.origin + ": " + s.name + " is animated; give the frames with --frames");
  }
  if (!options.cameraFile.empty()) {
    if (shot.frames.empty())
      throw UsageError("--camera-file follows the frame; give the frames with --frames");
    shot.camera.emplace(options.cameraFile);
  }
  return shot;
}

RenderOptions frameOptions(const Shot& shot, int frame) {
  RenderOptions o = shot.options.render;
  if (shot.frames.empty())
    return o;
  for (std::string* path : {&o.input, &o.deep, &o.kernel, &o.mattes})
    if (!path->empty())
      *path = framePath(*path, frame);
  for (std::string& output : o.outputs)
    output = framePath(output, frame);
  if (!o.cocOut.empty())
    o.cocOut = framePath(o.cocOut, frame);
  for (std::size_t i = 0; i < o.settings.size() && i < shot.curves.size(); ++i)
    if (shot.curves[i])
      o.settings[i].value = shot.curves[i]->textAt(frame);
  if (shot.camera) {
    o.camera = shot.camera->at(frame, o.camera);
    o.hasCamera = true;
  }
  return o;
}

ShotResult renderShot(const Shot& shot, const ShotReport& report) {
  const std::size_t count = shot.frames.empty() ? 1 : shot.frames.size();
  ShotResult result;
  Pace pace;
  // One node for the whole shot: what it keeps between frames is the point.
  Renderer renderer;
  for (std::size_t i = 0; i < count; ++i) {
    const auto frameStart = Clock::now();
    FrameRecord record = renderFrame(renderer, shot, i, report);
    if (record.status != FrameRecord::Skipped) {
      pace.renderSeconds += secondsSince(frameStart);
      ++pace.rendered;
    }
    if (record.status == FrameRecord::Failed)
      result.failed.push_back(record.frame);
    result.frames.push_back(std::move(record));
    if (report.frameDone)
      report.frameDone(result.frames.back(), i + 1, count, secondsSince(pace.start),
                       pace.left(count - i - 1));
    if (shot.options.stopOnError && !result.failed.empty())
      break;
  }
  result.seconds = secondsSince(pace.start);
  return result;
}

}  // namespace vorelapp
