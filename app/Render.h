#pragma once
// Runs one tzVorel node over image files as a host would: inputs from files, knobs by name, the
// call protocol (validate, request, open), then every row of the output box on several threads,
// straight into the output image, which is written atomically with input 0's header.
// One frame; Sequence.h renders shots of them.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/Knobs.h"
#include "app/Metadata.h"

namespace vorelapp {

struct CameraValues {
  // Whatever is not given is the node's own default for the knob the camera replaces, so a
  // camera with no values renders as realWorldLens on with default knobs: one film back
  // (22 x 16 mm, the film format "35mm") and one focus distance (100 scene units) everywhere.
  double focal = 35.0;      // mm, focalLength
  double haperture = 22.0;  // mm, apertureWidth
  double vaperture = 16.0;  // mm, apertureHeight
  double focus = 100.0;     // focalPlane, scene units (worldScale)
  double fstop = 6.0;       // fStop
};

// "focal=50,fstop=2.8,...": throws UsageError for an unknown key or a value that is not a
// positive number.
CameraValues parseCamera(const std::string& text);

struct RenderOptions {
  std::string input;   // input 0; may be empty when `deep` is given
  std::vector<std::string> outputs;  // one render, written to each
  std::string deep;    // input 3
  std::string kernel;  // input 1
  std::string mattes;  // input 4
  bool hasCamera = false;
  CameraValues camera; // input 2
  std::vector<KnobSetting> settings;  // in the order given; later ones win
  std::string channels;               // empty: all of input 0's
  unsigned threads = 0;               // 0: every core
  std::vector<std::string> presetFiles;  // read for settings; never to be written over

  // EXR outputs keep input 0's header; these override what it says.
  std::string compression;  // "" keeps the input's (zip for an input that is not an EXR)
  PixelType pixelType = PixelType::AsInput;
  // The lens from input 0's header; values it lacks come from --camera, else it is an error.
  bool cameraFromMetadata = false;
  // Focus on the depth at this pixel (host coordinates: y up from the format's bottom).
  bool hasFocusAt = false;
  int focusX = 0, focusY = 0;
  std::string layer;     // input 0's layer to render ("ViewLayer"); empty: the obvious one
  std::string part;      // input 0's part of a multi-part file, by name or index
  std::string badPixels = "keep";  // NaN and infinite input values: "keep" or "zero"
  std::string maxMemory;  // largest image to take on ("8G"); empty: the memory available
  // Where to write the CoC each pixel was spread with (an EXR, channel Y, in the output's
  // windows), for driving other tools with the same blur; empty: nowhere.
  std::string cocOut;
};

// Sets what reading the inputs obeys: the part of `input0`, the memory budget, bad pixels.
void applyInputOptions(const RenderOptions& options, const std::string& input0);

// Camera values as --camera takes them, for the header of what they made.
std::string cameraText(const CameraValues& camera);

// Where the renderer talks: notes and warnings, and progress while rows are made.
struct RenderReport {
  std::function<void(const std::string&)> note;     // informational, hidden by --quiet
  std::function<void(const std::string&)> warning;  // always shown
  // Rows done of total, seconds since the run began and since the first row; called from the
  // calling thread now and then while rows are made, and once when all are done.
  std::function<void(long done, long total, double seconds, double rowSeconds)> progress;
};

struct RenderSummary {
  int width = 0, height = 0;  // of the output box
  std::string outputType;
  int maxCoC = -1;  // -1 when the output type does not look for it
  double seconds = 0.0;
  unsigned threads = 0;
  // Of `seconds`: reading the files, building what the frame's rows read (master kernel, CoC
  // scan, kernel bank, source tables), making the rows and writing the files. Setting up and
  // validating the node between reading and opening is in none of them.
  double readSeconds = 0.0, openSeconds = 0.0, rowSeconds = 0.0, writeSeconds = 0.0;
  // Of openSeconds, as the node measured its stages: the CoC scan, the master kernel and bank,
  // and the source tables; 0 for an output type that has none of them. bankReused: nothing of
  // the kernels was resampled, an earlier frame's were taken.
  double scanSeconds = 0.0, bankSeconds = 0.0, tableSeconds = 0.0;
  bool bankReused = false;
};

// Renders with one node kept from one render to the next, so that what the node keeps between
// frames (its kernels, while their inputs stay the same) carries over a shot. Each render
// connects that render's images and sets its knobs on the kept node, which first takes back the
// knobs of a new one, so the result is what a new node would make. After a failure the next
// render starts with a new node.
class Renderer {
public:
  Renderer();
  ~Renderer();
  Renderer(const Renderer&) = delete;
  Renderer& operator=(const Renderer&) = delete;

  // Throws UsageError or RenderError; on any failure no output file is left behind.
  RenderSummary render(const RenderOptions& options, const RenderReport& report);

private:
  RenderSummary renderWithNode(const RenderOptions& options, const RenderReport& report);

  struct Kept;
  std::unique_ptr<Kept> kept_;
};

// One render with a node of its own.
RenderSummary render(const RenderOptions& options, const RenderReport& report);

// A fresh node with its knobs made, for listing them. Throws RenderError if the node is not
// linked in.
std::unique_ptr<DD::Image::Op> makeNode();

}  // namespace vorelapp
