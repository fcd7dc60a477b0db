#include "app/Cli.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cmath>
#include <optional>
#include <cstdio>
#include <sstream>

#include "app/AppError.h"
#include "app/DemoScene.h"
#include "app/Farm.h"
#include "app/Frames.h"
#include "app/Json.h"
#include "app/Metadata.h"
#include "app/Render.h"
#include "app/Sequence.h"
#include "node/Panel.h"

namespace vorelapp {

namespace {

const std::string kProgram = "vorel";

std::string clock(double seconds) {
  const long s = long(std::lround(std::max(0.0, seconds)));
  char buf[32];
  if (s >= 3600)
    std::snprintf(buf, sizeof buf, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
  else
    std::snprintf(buf, sizeof buf, "%ld:%02ld", s / 60, s % 60);
  return buf;
}

std::string seconds(double s) {
  char buf[32];
  std::snprintf(buf, sizeof buf, s < 10 ? "%.2f s" : "%.1f s", s);
  return buf;
}

std::string join(const std::vector<std::string>& items) {
  std::string s;
  for (const std::string& i : items)
    s += (s.empty() ? "" : ", ") + i;
  return s;
}

const char* kRenderHelp = R"(Renders one tzVorel node over image files.

Inputs: INPUT is the node's input 0 (a flat image with a depth channel). With only a deep render,
leave INPUT out and give --deep: input 0 is then the deep image flattened. EXRs are read with
OpenEXR, other images with OpenImageIO (PNG, TIFF, JPEG, ...); a deep input is a deep EXR.

Output: .exr keeps input 0's channel names, its format as display window and the node's output
box as data window, and input 0's header: attributes, compression, line order and each
channel's pixel type (--compression, --half, --float override). It adds Software and
vorel/settings (every knob not at its default; --settings-from reads it back). .png, .jpg and
.tif write RGB(A) in sRGB for a quick look.

Shots: with --frames 1001-1100 (or 1001-1100x2, 1001,1005) every path may carry a frame
pattern: #### or @@@@ (one digit each), %04d. A knob may follow the frame:
--set focalPlane=@focus.chan (lines "frame value") or keys "focalPlane 1001:180 1100:200"
(linear between keys, held outside). --camera-file reads the host's .chan camera export:
column 1 frame, 8 focal length (mm), and if present 9 horizontal and 10 vertical aperture (mm),
11 focus distance, 12 f-stop; columns 2-7 (translate, rotate) are not used.
A failed frame does not stop the others (unless --stop-on-error); the failed frames are listed
at the end and the exit status is 1.

Knobs: --set KNOB=VALUE sets any knob (see 'vorel knobs'): numbers, true/false/on/off, an
entry's text or index ("outputType=Focus Matte"), a channel (depthChannel=depth.Z), a channel
set (vorelChannels=rgb), comma lists for arrays (kChrAbbOff=0.6,1,1). Values are stored as the
panel stores them. --preset FILE reads "name value" lines. Later settings win.

Exit status: 0 done, 1 the render (or a frame of a shot) failed, 2 a bad command line, file,
knob or value.)";

// What the command line gathers before anything runs.
struct CommandLine {
  CLI::App app{"vorel: renders the tzVorel lens-defocus node over image files", "vorel"};
  CLI::App* render = nullptr;
  CLI::App* knobs = nullptr;
  CLI::App* demo = nullptr;

  ShotOptions shot;
  std::string camera, settingsFrom, focusAt;
  std::vector<std::string> sets, presets;
  bool quiet = false, json = false, half = false, asFloat = false, timings = false;
  bool knobsJson = false;
  std::string demoDir;
  int demoWidth = 640, demoHeight = 360;
};

void addRenderInputs(CommandLine& c) {
  RenderOptions& options = c.shot.render;
  CLI::App* renderCmd = c.render;
  renderCmd->add_option("INPUT", options.input, "Input 0: flat image with depth")
      ->type_name("FILE");
  renderCmd
      ->add_option("-o,--output", options.outputs,
                   "Output file (.exr, .png, .jpg, .tif); repeat to write several")
      ->type_name("FILE")
      ->allow_extra_args(false)
      ->required();
  renderCmd->add_option("--deep", options.deep, "Deep EXR on input 3 (Deep Input)")->type_name("FILE");
  renderCmd->add_option("--kernel", options.kernel,
                        "Kernel image on input 1; sets kernelType=Input unless --set says otherwise")
      ->type_name("FILE");
  renderCmd->add_option("--mattes", options.mattes, "Matte image on input 4 (Mattes)")->type_name("FILE");
  renderCmd
      ->add_option("--camera", c.camera,
                   "Camera on input 2: focal=MM,haperture=MM,vaperture=MM,focus=DIST,fstop=N "
                   "(any of them; the rest as the knobs' defaults: 35, 22, 16, 100, 6); sets realWorldLens=on "
                   "unless --set says otherwise")
      ->type_name("KEY=VALUE,...");
  renderCmd->add_option("--set", c.sets, "Set a knob; repeatable")
      ->type_name("KNOB=VALUE")
      ->allow_extra_args(false);
  renderCmd->add_option("--preset", c.presets, "Read knob settings from a file; repeatable")
      ->type_name("FILE")
      ->allow_extra_args(false);
  renderCmd->add_option("--channels", options.channels,
                        "Channels to render, e.g. rgba or R,G,B,Z (default: all of input 0's)")
      ->type_name("LIST");
  renderCmd->add_option("--threads", options.threads,
                        "Threads (default: every core; at most 4 per core are used)");
  renderCmd->add_flag("-q,--quiet", c.quiet, "Print errors only");
  renderCmd->add_option("--layer", options.layer,
                        "Layer of INPUT to render: its Combined pass and its Depth.Z "
                        "(e.g. ViewLayer); the only one is picked by itself")
      ->type_name("NAME");
  renderCmd->add_option("--part", options.part, "Part of a multi-part INPUT, by name or index")
      ->type_name("NAME|INDEX");
  renderCmd->add_option("--bad-pixels", options.badPixels,
                        "NaN and infinite input values: keep (as the node defines them) or zero")
      ->type_name("keep|zero");
  renderCmd->add_option("--max-memory", options.maxMemory,
                        "Refuse images whose pixels need more (e.g. 8G); default: the memory "
                        "available")
      ->type_name("SIZE");
  renderCmd->add_option("--coc-out", options.cocOut,
                        "Also write the CoC each pixel was spread with (diameter in pixels, "
                        "channel Y) as an EXR, to drive other tools with the same blur")
      ->type_name("FILE");
  renderCmd->add_flag("--timings", c.timings,
                      "Also print where each frame's time went: read, open, rows, write "
                      "(with --json, in the record)");
}

void addRenderShotOptions(CommandLine& c) {
  CLI::App* r = c.render;
  r->add_option("--frames", c.shot.frames, "Frames to render: 1001-1100, 1001-1100x2, 1001,1005")
      ->type_name("RANGE");
  r->add_option("--camera-file", c.shot.cameraFile,
                "Camera track: the host's .chan export (frame, translate, rotate, focal, ...)")
      ->type_name("FILE");
  r->add_flag("--stop-on-error", c.shot.stopOnError, "Stop at the first frame that fails");
  r->add_flag("--skip-existing", c.shot.skipExisting,
              "Leave out frames whose outputs all exist (to resume a run)");
  r->add_flag("--json", c.json, "One JSON record per frame on standard output");
  r->add_option("--compression", c.shot.render.compression,
                "EXR compression (none, rle, zips, zip, piz, pxr24, b44, b44a, dwaa, dwab); "
                "default: the input's")
      ->check(CLI::IsMember({"none", "rle", "zips", "zip", "piz", "pxr24", "b44", "b44a", "dwaa",
                             "dwab"}));
  auto* half = r->add_flag("--half", c.half, "Write every EXR channel as half float");
  r->add_flag("--float", c.asFloat, "Write every EXR channel as 32-bit float")->excludes(half);
  r->add_option("--settings-from", c.settingsFrom,
                "Knobs and camera from a vorel EXR's header (later settings win)")
      ->type_name("FILE");
  r->add_flag("--camera-from-metadata", c.shot.render.cameraFromMetadata,
              "Camera from input 0's header (focal length, focus distance, f-stop, film back)");
  r->add_option("--focus-at", c.focusAt,
                "Focus on the depth at pixel X,Y (y up; median of the 5x5 around it)")
      ->type_name("X,Y");
}

void addCommands(CommandLine& c) {
  c.app.require_subcommand(1);
  c.app.set_help_all_flag("--help-all", "Help for every command");
  c.app.set_version_flag("--version", versionLine());
  c.app.footer("vorel farm submit ...: render a frame sequence on a Slurm cluster (see vorel farm --help)");
  c.render = c.app.add_subcommand("render", "Render image files through the node");
  c.render->footer(kRenderHelp);
  addRenderInputs(c);
  addRenderShotOptions(c);

  c.knobs = c.app.add_subcommand("knobs", "List every knob: name, label, kind, default, range, entries");
  c.knobs->add_flag("--json", c.knobsJson, "As a JSON array");

  c.demo = c.app.add_subcommand(
      "demo-scene", "Write a small demo scene: flat EXR with depth, deep EXR, kernel, preset");
  c.demo->add_option("DIR", c.demoDir, "Directory to write into (made if missing)")->required();
  c.demo->add_option("--width", c.demoWidth, "Width in pixels")->check(CLI::Range(16, 8192));
  c.demo->add_option("--height", c.demoHeight, "Height in pixels")->check(CLI::Range(16, 8192));
}

// CLI11's message on one line, as every failure is reported.
UsageError parseError(const CLI::ParseError& e, const std::string& hint) {
  std::string what = e.what();
  std::replace(what.begin(), what.end(), '\n', ' ');
  return UsageError(what + hint);
}

// Parses; a status to exit with when the command line ends the run (help, an unknown command).
// Throws UsageError for one that does not parse.
std::optional<int> parseCommandLine(CommandLine& c, int argc, const char* const* argv,
                                    std::ostream& out, std::ostream& err) {
  const std::string first = argc > 1 ? argv[1] : "";
  if (!first.empty() && first[0] != '-' && first != c.render->get_name() &&
      first != c.knobs->get_name() && first != c.demo->get_name()) {
    err << kProgram << ": unknown command '" << argv[1]
        << "' (commands: render, knobs, demo-scene, farm; see vorel --help)\n";
    return kExitUsage;
  }
  try {
    c.app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return c.app.exit(e, out, err);
  } catch (const CLI::CallForAllHelp& e) {
    return c.app.exit(e, out, err);
  } catch (const CLI::CallForVersion& e) {
    out << e.what() << "\n";
    return kExitOk;
  } catch (const CLI::ParseError& e) {
    throw parseError(e, " (see vorel --help)");
  }
  return std::nullopt;
}

// Settings in the order they were given, across --set and --preset, after those of
// --settings-from; the camera of --camera, or else of --settings-from.
void gatherRenderOptions(CommandLine& c) {
  RenderOptions& options = c.shot.render;
  std::string savedCamera;
  if (!c.settingsFrom.empty()) {
    SavedSettings saved = readSavedSettings(c.settingsFrom);
    options.settings = saved.settings;
    options.presetFiles.push_back(c.settingsFrom);
    savedCamera = saved.camera;
  }
  std::size_t nextSet = 0, nextPreset = 0;
  for (const CLI::Option* opt : c.render->parse_order()) {
    if (opt->get_name() == "--set" && nextSet < c.sets.size())
      options.settings.push_back(parseSetting(c.sets[nextSet++], "--set"));
    else if (opt->get_name() == "--preset" && nextPreset < c.presets.size()) {
      options.presetFiles.push_back(c.presets[nextPreset]);
      for (const KnobSetting& s : readPreset(c.presets[nextPreset++]))
        options.settings.push_back(s);
    }
  }
  const std::string camera = c.camera.empty() ? savedCamera : c.camera;
  if (!camera.empty()) {
    options.hasCamera = true;
    options.camera = parseCamera(camera);
  }
  options.pixelType = c.half ? PixelType::Half : c.asFloat ? PixelType::Float : PixelType::AsInput;
  if (!c.focusAt.empty()) {
    int x = 0, y = 0;
    char end = 0;
    if (std::sscanf(c.focusAt.c_str(), "%d,%d%c", &x, &y, &end) != 2)
      throw UsageError("--focus-at: expected X,Y in whole pixels, got '" + c.focusAt + "'");
    options.hasFocusAt = true;
    options.focusX = x;
    options.focusY = y;
  }
}

// The terminal's progress line: where the shot is, and what is left of it.
class ProgressLine {
public:
  explicit ProgressLine(std::ostream& err) : err_(err) {}
  ~ProgressLine() { clear(); }

  void rows(std::size_t index, std::size_t count, long done, long total, double frameSeconds,
            double rowSeconds) {
    shown_ = done < total || index + 1 < count;
    const int width = 30;
    const double part = total > 0 ? double(done) / double(total) : 1.0;
    const int filled = int(width * (double(index) + part) / double(count));
    std::string bar(std::size_t(std::max(0, filled)), '#');
    bar.resize(width, '.');
    std::ostringstream line;
    line << "\r[" << bar << "] ";
    if (count > 1)
      line << "frame " << index + 1 << "/" << count << ", ";
    line << done << "/" << total << " rows  " << clock(elapsedBefore_ + frameSeconds) << " elapsed";
    if (done > 0 && done < total && rowSeconds > 0.3) {
      const double frameLeft = rowSeconds * double(total - done) / double(done);
      const double perFrame = framesTimed_ ? frameTime_ / framesTimed_ : frameSeconds + frameLeft;
      line << "  " << clock(frameLeft + perFrame * double(count - index - 1)) << " left";
    }
    err_ << line.str() << "\033[K" << std::flush;
  }

  void frameDone(const FrameRecord& r, double shotSeconds) {
    elapsedBefore_ = shotSeconds;
    if (r.status == FrameRecord::Done) {
      frameTime_ += r.summary.seconds;
      ++framesTimed_;
    }
  }

  void clear() {
    if (shown_)
      err_ << "\r\033[K" << std::flush;
    shown_ = false;
  }

private:
  std::ostream& err_;
  bool shown_ = false;
  double elapsedBefore_ = 0.0, frameTime_ = 0.0;
  int framesTimed_ = 0;
};

std::string summaryText(const RenderSummary& s) {
  return std::to_string(s.width) + "x" + std::to_string(s.height) + ", " + s.outputType +
         (s.maxCoC >= 0 ? ", maxCoC " + std::to_string(s.maxCoC) : "") + ", " +
         seconds(s.seconds) + " on " + std::to_string(s.threads) +
         (s.threads == 1 ? " thread" : " threads");
}

// One line per frame of a shot; a render without frame numbers keeps its one "wrote" line.
std::string frameLine(const FrameRecord& r, std::size_t finished, std::size_t count,
                      double secondsLeft) {
  std::string head = r.numbered ? "frame " + std::to_string(r.frame) + " (" +
                                      std::to_string(finished) + "/" + std::to_string(count) + "): "
                                : "";
  std::string tail = r.numbered && finished < count ? "; " + clock(secondsLeft) + " left" : "";
  switch (r.status) {
    case FrameRecord::Done: return head + "wrote " + join(r.outputs) + ": " + summaryText(r.summary) + tail;
    case FrameRecord::Skipped: return head + "skipped, " + join(r.outputs) + " already there" + tail;
    default: return head + "failed: " + r.error + tail;
  }
}

// Asked for by --timings: on standard output, as data, whatever --quiet says.
std::string timingsLine(const FrameRecord& r) {
  const RenderSummary& s = r.summary;
  std::ostringstream line;
  if (r.numbered)
    line << "frame " << r.frame << ": ";
  line << "timings: read " << s.readSeconds << " s, open " << s.openSeconds << " s (scan "
       << s.scanSeconds << " s, bank " << s.bankSeconds << " s, tables " << s.tableSeconds
       << " s), rows " << s.rowSeconds << " s, write " << s.writeSeconds << " s";
  return line.str();
}

int shotEnd(const ShotResult& result, bool quiet, std::ostream& err) {
  if (result.frames.size() <= 1 && (result.frames.empty() || !result.frames[0].numbered))
    return kExitOk;
  std::size_t done = 0, skipped = 0;
  double renderSeconds = 0.0;
  for (const FrameRecord& r : result.frames) {
    done += r.status == FrameRecord::Done;
    skipped += r.status == FrameRecord::Skipped;
    if (r.status == FrameRecord::Done)
      renderSeconds += r.summary.seconds;
  }
  if (!quiet || !result.failed.empty()) {
    err << kProgram << ": " << result.frames.size() << " frames: " << done << " rendered";
    if (done)
      err << " (" << seconds(renderSeconds / double(done)) << " a frame)";
    err << ", " << skipped << " skipped, " << result.failed.size() << " failed, in "
        << seconds(result.seconds) << "\n";
  }
  if (result.failed.empty())
    return kExitOk;
  err << kProgram << ": failed frames: " << frameListText(result.failed) << "\n";
  return kExitRender;
}

int runRender(CommandLine& c, std::ostream& out, std::ostream& err, bool errIsTerminal) {
  gatherRenderOptions(c);
  const Shot shot = planShot(c.shot);
  ProgressLine bar(err);
  ShotReport report;
  report.warning = [&](const std::string& s) {
    bar.clear();
    err << kProgram << ": warning: " << s << "\n";
  };
  if (!c.quiet)
    report.note = [&](const std::string& s) {
      bar.clear();
      err << kProgram << ": " << s << "\n";
    };
  if (!c.quiet && errIsTerminal)
    report.rows = [&](std::size_t i, std::size_t n, long done, long total, double s, double rs) {
      bar.rows(i, n, done, total, s, rs);
    };
  report.frameDone = [&](const FrameRecord& r, std::size_t finished, std::size_t count,
                         double shotSeconds, double left) {
    bar.frameDone(r, shotSeconds);
    bar.clear();
    if (c.json)
      out << frameJson(r) << "\n" << std::flush;
    if (!c.quiet || r.status == FrameRecord::Failed)
      err << kProgram << ": " << frameLine(r, finished, count, left) << "\n";
    if (c.timings && !c.json && r.status == FrameRecord::Done)
      out << timingsLine(r) << "\n" << std::flush;
  };
  try {
    return shotEnd(renderShot(shot, report), c.quiet, err);
  } catch (const std::exception& e) {
    // A render without frame numbers fails as a whole; under --json it still gets its record.
    if (c.json) {
      FrameRecord failed;
      failed.outputs = c.shot.render.outputs;
      failed.status = FrameRecord::Failed;
      failed.error = e.what();
      out << frameJson(failed) << "\n" << std::flush;
    }
    throw;
  }
}

}  // namespace

std::string versionLine() {
  return std::string("vorel ") + VOREL_VERSION + " (tzVorel node " + vorel::versionText() + ")";
}

ShotOptions parseRenderArguments(const std::vector<std::string>& args) {
  CommandLine c;
  addCommands(c);
  std::vector<const char*> argv = {"vorel", "render"};
  for (const std::string& a : args)
    argv.push_back(a.c_str());
  try {
    c.app.parse(int(argv.size()), argv.data());
  } catch (const CLI::ParseError& e) {
    throw parseError(e, "");
  }
  gatherRenderOptions(c);
  return c.shot;
}

int vorelMain(int argc, const char* const* argv, std::ostream& out, std::ostream& err,
              bool errIsTerminal) {
  try {
    // The farm passes most of its arguments on to `vorel render`, so it parses its own.
    if (argc > 1 && std::string(argv[1]) == "farm")
      return farmMain(argc - 1, argv + 1, out, err);
    CommandLine c;
    addCommands(c);
    if (const auto status = parseCommandLine(c, argc, argv, out, err))
      return *status;
    if (c.knobs->parsed()) {
      auto node = makeNode();
      if (c.knobsJson)
        out << knobsJson(*node) << "\n";
      else
        printKnobList(*node, out);
      return kExitOk;
    }
    if (c.demo->parsed()) {
      const auto files = writeDemoScene(c.demoDir, c.demoWidth, c.demoHeight);
      err << kProgram << ": demo scene written:\n";
      for (const std::string& f : files)
        err << "  " << f << "\n";
      return kExitOk;
    }
    return runRender(c, out, err, errIsTerminal);
  } catch (const std::exception& e) {
    err << kProgram << ": " << e.what() << "\n";
    return exitStatusOf(e);
  }
}

}  // namespace vorelapp
