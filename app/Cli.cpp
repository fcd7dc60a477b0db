#include "app/Cli.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>
#include <sstream>

#include "app/AppError.h"
#include "app/DemoScene.h"
#include "app/Render.h"
#include "node/Panel.h"

namespace vorelapp {

namespace {

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
leave INPUT out and give --deep: input 0 is then the deep image flattened. Images are read with
OpenImageIO (EXR, PNG, TIFF, JPEG, ...); a deep input is a deep EXR.

Output: .exr keeps input 0's channel names, its format as display window and the node's output
box as data window, 32-bit float. .png, .jpg and .tif write RGB(A) in sRGB for a quick look.

Knobs: --set KNOB=VALUE sets any knob (see 'vorel knobs'): numbers, true/false/on/off, an
entry's text or index ("outputType=Focus Matte"), a channel (depthChannel=depth.Z), a channel
set (vorelChannels=rgb), comma lists for arrays (kChrAbbOff=0.6,1,1). Values are stored as the
panel stores them. --preset FILE reads "name value" lines. Later settings win.

Exit status: 0 done, 1 the render failed, 2 a bad command line, file, knob or value.)";

}  // namespace

std::string versionLine() {
  return std::string("vorel ") + VOREL_VERSION + " (tzVorel node " + vorel::versionText() + ")";
}

int vorelMain(int argc, const char* const* argv, std::ostream& out, std::ostream& err,
              bool errIsTerminal) {
  CLI::App app("vorel: renders the tzVorel lens-defocus node over image files", "vorel");
  app.require_subcommand(1);
  app.set_help_all_flag("--help-all", "Help for every command");
  app.set_version_flag("--version", versionLine());

  RenderOptions options;
  std::string camera;
  std::vector<std::string> sets, presets;
  bool quiet = false;
  CLI::App* renderCmd = app.add_subcommand("render", "Render image files through the node");
  renderCmd->footer(kRenderHelp);
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
      ->add_option("--camera", camera,
                   "Camera on input 2: focal=MM,haperture=MM,vaperture=MM,focus=DIST,fstop=N "
                   "(any of them; the rest as the knobs' defaults: 35, 22, 16, 100, 6); sets realWorldLens=on "
                   "unless --set says otherwise")
      ->type_name("KEY=VALUE,...");
  renderCmd->add_option("--set", sets, "Set a knob; repeatable")
      ->type_name("KNOB=VALUE")
      ->allow_extra_args(false);
  renderCmd->add_option("--preset", presets, "Read knob settings from a file; repeatable")
      ->type_name("FILE")
      ->allow_extra_args(false);
  renderCmd->add_option("--channels", options.channels,
                        "Channels to render, e.g. rgba or R,G,B,Z (default: all of input 0's)")
      ->type_name("LIST");
  renderCmd->add_option("--threads", options.threads,
                        "Threads (default: every core; at most 4 per core are used)");
  renderCmd->add_flag("-q,--quiet", quiet, "Print errors only");
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

  CLI::App* knobsCmd =
      app.add_subcommand("knobs", "List every knob: name, label, kind, default, range, entries");

  std::string demoDir;
  int demoWidth = 640, demoHeight = 360;
  CLI::App* demoCmd = app.add_subcommand(
      "demo-scene", "Write a small demo scene: flat EXR with depth, deep EXR, kernel, preset");
  demoCmd->add_option("DIR", demoDir, "Directory to write into (made if missing)")->required();
  demoCmd->add_option("--width", demoWidth, "Width in pixels")->check(CLI::Range(16, 8192));
  demoCmd->add_option("--height", demoHeight, "Height in pixels")->check(CLI::Range(16, 8192));

  const std::string program = "vorel";
  bool barShown = false;  // a progress bar is on the terminal's last line
  auto clearBar = [&]() {
    if (barShown)
      err << "\r\033[K";
    barShown = false;
  };
  const std::string first = argc > 1 ? argv[1] : "";
  if (!first.empty() && first[0] != '-' && first != renderCmd->get_name() &&
      first != knobsCmd->get_name() && first != demoCmd->get_name()) {
    err << program << ": unknown command '" << argv[1]
        << "' (commands: render, knobs, demo-scene; see vorel --help)\n";
    return kExitUsage;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e, out, err);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e, out, err);
  } catch (const CLI::CallForVersion& e) {
    out << e.what() << "\n";
    return kExitOk;
  } catch (const CLI::ParseError& e) {
    std::string what = e.what();
    for (char& c : what)
      if (c == '\n')
        c = ' ';
    err << program << ": " << what << " (see vorel --help)\n";
    return kExitUsage;
  }

  try {
    if (knobsCmd->parsed()) {
      auto node = makeNode();
      printKnobList(*node, out);
      return kExitOk;
    }
    if (demoCmd->parsed()) {
      const auto files = writeDemoScene(demoDir, demoWidth, demoHeight);
      err << program << ": demo scene written:\n";
      for (const std::string& f : files)
        err << "  " << f << "\n";
      return kExitOk;
    }

    // Settings keep the order they were given in, across --set and --preset.
    std::size_t nextSet = 0, nextPreset = 0;
    for (const CLI::Option* opt : renderCmd->parse_order()) {
      if (opt->get_name() == "--set" && nextSet < sets.size())
        options.settings.push_back(parseSetting(sets[nextSet++], "--set"));
      else if (opt->get_name() == "--preset" && nextPreset < presets.size())
      {
        options.presetFiles.push_back(presets[nextPreset]);
        for (const KnobSetting& s : readPreset(presets[nextPreset++]))
          options.settings.push_back(s);
      }
    }
    if (!camera.empty()) {
      options.hasCamera = true;
      options.camera = parseCamera(camera);
    }

    RenderReport report;
    report.warning = [&](const std::string& s) { err << program << ": warning: " << s << "\n"; };
    if (!quiet)
      report.note = [&](const std::string& s) { err << program << ": " << s << "\n"; };
    if (!quiet && errIsTerminal) {
      report.progress = [&](long done, long total, double elapsed, double rowSeconds) {
        barShown = done < total;
        const int width = 30;
        const int filled = total > 0 ? int(width * done / total) : width;
        std::string bar(std::size_t(filled), '#');
        bar.resize(width, '.');
        std::ostringstream line;
        line << "\r[" << bar << "] " << done << "/" << total << " rows  " << clock(elapsed)
             << " elapsed";
        if (done > 0 && done < total && rowSeconds > 0.3)
          line << "  " << clock(rowSeconds * double(total - done) / double(done)) << " left";
        err << line.str() << "\033[K" << std::flush;
        if (done >= total)
          err << "\r\033[K" << std::flush;
      };
    }

    const RenderSummary s = render(options, report);
    if (!quiet)
      err << program << ": wrote " << join(options.outputs) << ": " << s.width << "x" << s.height << ", "
          << s.outputType << (s.maxCoC >= 0 ? ", maxCoC " + std::to_string(s.maxCoC) : "")
          << ", " << seconds(s.seconds) << " on "
          << s.threads << (s.threads == 1 ? " thread" : " threads") << "\n";
    return kExitOk;
  } catch (const AppError& e) {
    clearBar();
    err << program << ": " << e.what() << "\n";
    return e.status();
  } catch (const std::exception& e) {
    clearBar();
    err << program << ": " << e.what() << "\n";
    return kExitRender;
  }
}

}  // namespace vorelapp
