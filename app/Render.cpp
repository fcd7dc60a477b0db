#include "app/Render.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>
#include <thread>

#include "DDImage/Host.h"
#include "DDImage/Row.h"
#include "DDImage/Thread.h"
#include "app/AppError.h"
#include "app/ImageFiles.h"
#include "app/InputChecks.h"
#include "app/OtherImages.h"
#include "app/RenderChecks.h"
#include "node/tzVorel.h"

namespace fs = std::filesystem;
using namespace DD::Image;

namespace vorelapp {

namespace {

// The node registers itself from a static object in its own object file; naming that object
// here makes the linker keep the file, static library or not.
const Op::Description& kNodeDescription = tzVorel::description;

std::string lower(std::string s) {
  for (char& c : s)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// An image on one of the node's inputs, and the file's name for each of its channels.
struct FlatSource {
  std::unique_ptr<host::FlatImage> op;
  std::vector<std::pair<Channel, std::string>> names;  // in the file's order
  std::string path;

  ChannelSet channels() const {
    ChannelSet set;
    for (const auto& n : names)
      set += n.first;
    return set;
  }
  std::string nameOf(Channel z) const {
    for (const auto& n : names)
      if (n.first == z)
        return n.second;
    return getName(z);
  }
  std::string listing() const {
    std::string s;
    for (const auto& n : names)
      s += (s.empty() ? "" : ", ") + n.second;
    return s.empty() ? "no channels" : s;
  }
};

Channel channelForName(const std::string& name, const std::string& path) {
  const Channel z = getChannel(name.c_str());
  if (z == Chan_Black)
    throw RenderError("cannot use channel '" + name + "' of " + path + ": too many channels");
  return z;
}

Format hostFormat(const Rect& f) {
  return Format(f.w(), f.h(), f.x, f.y, f.r, f.t);
}

// The host image for a file's windows and channels, its planes not yet filled. `hostNames`
// (one per channel) are the names its channels go by in the host, when not their own.
FlatSource hostImageFor(const FlatImage& header, const std::string& path,
                        const std::vector<std::string>& hostNames = {}) {
  FlatSource source;
  source.path = path;
  ChannelSet set;
  for (std::size_t i = 0; i < header.channels.size(); ++i) {
    const std::string& name = header.channels[i];
    const Channel z = channelForName(i < hostNames.size() ? hostNames[i] : name, path);
    if (set.contains(z))
      throw UsageError(path + ": two of its channels are both " + getName(z));
    set += z;
    source.names.emplace_back(z, name);
  }
  source.op = std::make_unique<host::FlatImage>(
      hostFormat(header.format), Box(header.box.x, header.box.y, header.box.r, header.box.t), set);
  return source;
}

// Reads a file straight into the host's image.
FlatSource loadFlat(const std::string& path, const RenderReport& report,
                    const std::string& layer = "") {
  const std::string parts = partsNote(path);
  if (!parts.empty() && report.warning)
    report.warning(parts);
  const FlatImage header = readFlatHeader(path);
  FlatSource source =
      hostImageFor(header, path, hostChannelNames(header.channels, layer, path, report.note));
  std::vector<float*> planes;
  for (const auto& n : source.names)
    planes.push_back(source.op->plane(n.first));
  BadPixelCount bad;
  readFlatPixels(path, planes, &bad);
  const std::string warning = badPixelWarning(path, bad);
  if (!warning.empty() && report.warning)
    report.warning(warning);
  return source;
}

// The deep image as the host's; its samples are moved there, not copied, when the host keeps its
// channels in the file's order.
std::unique_ptr<host::DeepImage> toHostDeep(DeepImage&& deep, const std::string& path) {
  const int zc = deep.channelIndex("Z"), zbc = deep.channelIndex("ZBack");
  std::vector<Channel> channels(deep.channels.size(), Chan_Black);
  ChannelSet set;
  for (std::size_t c = 0; c < deep.channels.size(); ++c) {
    if (int(c) == zc)
      channels[c] = Chan_DeepFront;
    else if (int(c) == zbc)
      channels[c] = Chan_DeepBack;
    else {
      channels[c] = channelForName(deep.channels[c], path);
      if (set.contains(channels[c]) || channels[c] == Chan_DeepFront || channels[c] == Chan_DeepBack)
        throw UsageError(path + ": two of its channels are both " + getName(channels[c]));
      set += channels[c];
    }
  }
  auto op = std::make_unique<host::DeepImage>(
      hostFormat(deep.format), Box(deep.box.x, deep.box.y, deep.box.r, deep.box.t), set);
  // Each file channel's place in a host sample (its channels in ascending order); without a
  // back depth, the front one is both.
  std::vector<std::size_t> slot(deep.channels.size());
  std::size_t nslots = 0, backSlot = 0;
  foreach (z, op->channels()) {
    for (std::size_t c = 0; c < deep.channels.size(); ++c)
      if (channels[c] == z)
        slot[c] = nslots;
    if (z == Chan_DeepBack)
      backSlot = nslots;
    ++nslots;
  }
  const std::size_t nch = deep.channels.size();
  bool sameOrder = nslots == nch;
  for (std::size_t c = 0; c < nch; ++c)
    sameOrder = sameOrder && slot[c] == c;
  if (!sameOrder) {
    std::vector<float> samples;
    host::zeroedPlane(samples, deep.offsets.back() * nslots);
    for (std::size_t s = 0; s < deep.offsets.back(); ++s) {
      const float* v = deep.samples.data() + s * nch;
      float* to = samples.data() + s * nslots;
      for (std::size_t c = 0; c < nch; ++c)
        to[slot[c]] = v[c];
      if (zbc < 0)
        to[backSlot] = v[zc];
    }
    deep.samples.swap(samples);
  }
  op->setSamples(std::move(deep.samples), std::move(deep.offsets));
  return op;
}

bool sameFile(const std::string& a, const std::string& b) {
  std::error_code ec;
  if (fs::exists(a, ec) && fs::exists(b, ec))
    return fs::equivalent(a, b, ec);
  return fs::weakly_canonical(a, ec) == fs::weakly_canonical(b, ec);
}

Channel channelKnob(const Op& op, const char* name) {
  const Knob* k = op.knob(name);
  return k && k->field() ? *static_cast<const Channel*>(k->field()) : Chan_Black;
}

int intKnob(const Op& op, const char* name) {
  const Knob* k = op.knob(name);
  return k ? int(k->get_value()) : 0;
}

// The channels to render: all of input 0's, or those named. Layer words take what input 0 has
// of them; a channel named on its own must be there.
ChannelSet renderChannels(const std::string& text, const ChannelSet& available,
                          const FlatSource& input0, const std::string& input0Name) {
  if (text.empty())
    return available;
  ChannelSet set;
  std::string word;
  auto take = [&](const std::string& w) {
    const std::string l = lower(w);
    if (l == "all" || l == "rgba" || l == "rgb" || l == "alpha" || l == "depth") {
      set += parseChannelSet(l) & available;
      return;
    }
    Channel z;
    try {
      z = parseChannel(w);
    } catch (const UsageError&) {
      throw UsageError("--channels: " + input0Name + " has no channel '" + w + "' (it has " +
                       input0.listing() + ")");
    }
    if (!available.contains(z))
      throw UsageError("--channels: " + input0Name + " has no channel '" + w + "' (it has " +
                       input0.listing() + ")");
    set += z;
  };
  for (char c : text + ",") {
    if (c == ',' || c == ' ') {
      if (!word.empty())
        take(word);
      word.clear();
    } else {
      word += c;
    }
  }
  if (set.empty())
    throw UsageError("--channels: none of '" + text + "' is in " + input0Name + " (it has " +
                     input0.listing() + ")");
  return set;
}

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

void tell(const RenderReport& report, const std::string& s) {
  if (report.note)
    report.note(s);
}

void warn(const RenderReport& report, const std::string& s) {
  if (report.warning)
    report.warning(s);
}

// What the options name, checked before anything is read: the outputs and their kinds, and which
// file is input 0 and which the deep input (a deep INPUT is taken as --deep).
struct Plan {
  std::vector<FileKind> kinds;  // of each output
  std::string input, deepPath;
};

Plan checkPlan(const RenderOptions& o) {
  Plan plan;
  if (o.outputs.empty())
    throw UsageError("no output file: give -o FILE");
  for (const std::string& output : o.outputs) {
    plan.kinds.push_back(fileKindFor(output));
    if (plan.kinds.back() == FileKind::Unknown)
      throw UsageError("cannot write " + output +
                       ": the output must be .exr, or .png, .jpg or .tif for a quick look");
    if (plan.kinds.back() == FileKind::Display)
      otherImages();  // its writer is found now, not after the render
  }
  plan.input = o.input;
  plan.deepPath = o.deep;
  if (plan.input.empty() && plan.deepPath.empty())
    throw UsageError("no input: give an INPUT image, or a deep image with --deep");
  if (!plan.input.empty() && isDeepFile(plan.input)) {
    if (!plan.deepPath.empty())
      throw UsageError(plan.input + " is a deep image; with --deep given, INPUT must be flat");
    plan.deepPath = plan.input;
    plan.input.clear();
  }
  if (!o.cocOut.empty() && fileKindFor(o.cocOut) != FileKind::Exr)
    throw UsageError("cannot write the CoC to " + o.cocOut + ": it must be an .exr");
  if (!o.cocOut.empty() && !plan.deepPath.empty())
    throw UsageError("--coc-out needs a flat input: a deep pixel has a CoC per sample");
  std::vector<std::string> reads = {plan.input, plan.deepPath, o.kernel, o.mattes};
  reads.insert(reads.end(), o.presetFiles.begin(), o.presetFiles.end());
  std::vector<std::string> writes = o.outputs;
  if (!o.cocOut.empty())
    writes.push_back(o.cocOut);
  for (std::size_t i = 0; i < writes.size(); ++i) {
    const std::string& output = writes[i];
    for (const std::string& in : reads)
      if (!in.empty() && sameFile(in, output))
        throw UsageError("the output " + output + " is also an input; choose another name");
    for (std::size_t j = 0; j < i; ++j)
      if (sameFile(writes[j], output))
        throw UsageError("the output " + output + " is given twice");
    std::error_code ec;
    if (fs::is_directory(output, ec))
      throw UsageError("the output " + output + " is a directory");
    // Found out now rather than after the render.
    const fs::path parent = fs::path(output).parent_path();
    if (!parent.empty() && !fs::is_directory(parent, ec))
      throw UsageError("cannot write " + output + ": no directory " + parent.string());
  }
  return plan;
}

// The images and camera on the node's inputs, and the header the outputs inherit.
struct Inputs {
  FlatSource input0, kernel, mattes;
  std::unique_ptr<host::DeepImage> deep;
  std::unique_ptr<host::Camera> camera;
  CameraValues cameraValues;
  std::string input0Name;
  ExrHeader header;  // of input 0's file, or of the deep file it was flattened from
};

void loadImages(const RenderOptions& o, const Plan& plan, const RenderReport& report,
                Inputs& in) {
  const std::string& input0Path = plan.input.empty() ? plan.deepPath : plan.input;
  applyInputOptions(o, input0Path);
  in.input0Name = plan.input;
  if (!plan.deepPath.empty()) {
    BadPixelCount bad;
    const unsigned threads = threadsToUse(o.threads, nullptr);
    DeepImage d = readDeepImage(plan.deepPath, &bad, threads);
    const std::string badPixels = badPixelWarning(plan.deepPath, bad);
    if (!badPixels.empty())
      warn(report, badPixels);
    if (plan.input.empty()) {
      in.input0 = hostImageFor(flattenedHeader(d), plan.deepPath);
      std::vector<float*> planes;
      for (const auto& n : in.input0.names)
        planes.push_back(in.input0.op->plane(n.first));
      flattenDeep(d, planes, threads);
      in.input0Name = plan.deepPath + " (flattened)";
    }
    in.deep = toHostDeep(std::move(d), plan.deepPath);
  }
  if (!plan.input.empty())
    in.input0 = loadFlat(plan.input, report, o.layer);
  if (!o.kernel.empty())
    in.kernel = loadFlat(o.kernel, report);
  if (!o.mattes.empty())
    in.mattes = loadFlat(o.mattes, report);
  in.header = readExrHeader(input0Path, chosenPartIndex(input0Path));
}

// --camera, or the lens input 0's header describes (with --camera filling in what it lacks).
void makeCamera(const RenderOptions& o, const RenderReport& report, Inputs& in) {
  if (!o.hasCamera && !o.cameraFromMetadata)
    return;
  CameraValues values = o.camera;
  if (o.cameraFromMetadata) {
    const HeaderCamera found = cameraFromHeader(in.header.attributes);
    std::string missing;
    for (const std::string& m : found.missing)
      missing += (missing.empty() ? "" : "; ") + m;
    if (!found.missing.empty() && !o.hasCamera)
      throw UsageError("--camera-from-metadata: " + in.input0Name + " has no " + missing +
                       "; give the rest with --camera");
    std::string taken;
    for (const std::string& t : found.taken)
      taken += (taken.empty() ? "" : ", ") + t;
    tell(report, "camera from " + in.input0Name + ": " + (taken.empty() ? "nothing" : taken) +
                     (missing.empty() ? "" : "; from --camera: " + missing));
    for (auto [value, into] : {std::pair{found.focal, &values.focal}, {found.haperture, &values.haperture},
                               {found.vaperture, &values.vaperture}, {found.focus, &values.focus},
                               {found.fstop, &values.fstop}})
      if (value)
        *into = *value;
  }
  in.cameraValues = values;
  in.camera = std::make_unique<host::Camera>();
  in.camera->setFocalLength(values.focal);
  in.camera->setFilmWidth(values.haperture);
  in.camera->setFilmHeight(values.vaperture);
  in.camera->setFocalPoint(values.focus);
  in.camera->setFstop(values.fstop);
}

void connectInputs(Iop& node, const RenderOptions& o, const Plan& plan, const Inputs& in) {
  auto connect = [&](int i, Op* source, const std::string& what) {
    if (source && !host::connect(node, i, source))
      throw RenderError("the node refused " + what + " on its input " + std::to_string(i));
  };
  connect(0, in.input0.op.get(), in.input0Name);
  connect(1, in.kernel.op.get(), o.kernel);
  connect(2, in.camera.get(), "the camera");
  connect(3, in.deep.get(), plan.deepPath);
  connect(4, in.mattes.op.get(), o.mattes);
}

// An image on the Kernel input is meant to be used, a camera to act as a real lens; the user's
// own settings come after and win.
void applyKnobs(Iop& node, const RenderOptions& o, const Inputs& in, const RenderReport& report) {
  std::vector<KnobSetting> settings;
  if (in.kernel.op)
    settings.push_back({"kernelType", "Input", "--kernel"});
  // A kernel image without alpha would spread alpha with nothing and leave it 0 everywhere: its
  // red channel shapes the alpha instead.
  if (in.kernel.op && in.kernel.channels().contains(Chan_Red) &&
      !in.kernel.channels().contains(Chan_Alpha))
    settings.push_back({"missingKernelChannel", "rgba.red", "--kernel"});
  if (in.camera)
    settings.push_back({"realWorldLens", "on", o.hasCamera ? "--camera" : "--camera-from-metadata"});
  settings.insert(settings.end(), o.settings.begin(), o.settings.end());
  std::vector<std::string> clampedKnobs;  // each clamp is told once
  for (const KnobSetting& s : settings) {
    const std::string clamped = applySetting(node, s);
    if (!clamped.empty() &&
        std::find(clampedKnobs.begin(), clampedKnobs.end(), s.name) == clampedKnobs.end()) {
      clampedKnobs.push_back(s.name);
      tell(report, clamped);
    }
    if (in.camera && (s.name == "focalPlane" || s.name == "focalLength" || s.name == "fStop" ||
                      s.name == "apertureWidth" || s.name == "apertureHeight"))
      warn(report, s.origin + ": " + s.name + " has no effect: the camera's value replaces it");
  }
  checkKnobValues(node, in.camera != nullptr);
}

// The median depth around a pixel, leaving out what holds no surface: depths that are not
// finite, not above 0 or at the far limit, and pixels with no alpha where there is alpha.
float focusDepth(const RenderOptions& o, const Iop& node, const Inputs& in) {
  const host::FlatImage& image = *in.input0.op;
  const Box& b = image.dataBox();
  const std::string where = std::to_string(o.focusX) + "," + std::to_string(o.focusY);
  if (o.focusX < b.x() || o.focusX >= b.r() || o.focusY < b.y() || o.focusY >= b.t())
    throw UsageError("--focus-at " + where + " lies outside " + in.input0Name + " (x " +
                     std::to_string(b.x()) + " to " + std::to_string(b.r() - 1) + ", y " +
                     std::to_string(b.y()) + " to " + std::to_string(b.t() - 1) + ")");
  const Channel depth = channelKnob(node, "depthChannel");
  if (!in.input0.channels().contains(depth))
    throw UsageError("--focus-at: " + in.input0Name + " has no depth channel " + getName(depth));
  const bool hasAlpha = in.input0.channels().contains(Chan_Alpha);
  const int reach = 2;  // a 5x5 neighbourhood
  std::vector<float> depths;
  for (int y = std::max(b.y(), o.focusY - reach); y <= std::min(b.t() - 1, o.focusY + reach); ++y)
    for (int x = std::max(b.x(), o.focusX - reach); x <= std::min(b.r() - 1, o.focusX + reach); ++x) {
      const float z = image.value(x, y, depth);
      if (std::isfinite(z) && z > 0.0f && z < 1e30f && !(hasAlpha && !(image.value(x, y, Chan_Alpha) > 0.0f)))
        depths.push_back(z);
    }
  if (depths.empty())
    throw UsageError("--focus-at " + where + ": no surface there (every depth in the 5x5 " +
                     "around it is empty or background)");
  std::sort(depths.begin(), depths.end());
  const std::size_t n = depths.size();
  return n % 2 ? depths[n / 2] : 0.5f * (depths[n / 2 - 1] + depths[n / 2]);
}

// --focus-at: the depth found becomes the focus distance of the camera, or the focal plane.
void focusAt(Iop& node, const RenderOptions& o, Inputs& in, const RenderReport& report) {
  if (!o.hasFocusAt)
    return;
  const float z = focusDepth(o, node, in);
  std::ostringstream text;
  text.precision(7);
  text << z;
  if (in.camera) {
    in.cameraValues.focus = z;
    in.camera->setFocalPoint(z);
    host::connect(node, 2, in.camera.get());  // invalidates what the node took from it
  } else {
    applySetting(node, {"focalPlane", text.str(), "--focus-at"});
  }
  tell(report, "focus at " + std::to_string(o.focusX) + "," + std::to_string(o.focusY) + ": " +
                   (in.camera ? "camera focus distance " : "focalPlane ") + text.str());
}

// Validation, and the checks that only make sense on a validated node.
struct Validated {
  ChannelSet channels;  // to render
  Box box;              // the output box
  int outputType = 0;
};

Validated validateNode(Iop& node, const RenderOptions& o, const Inputs& in,
                       const RenderReport& report) {
  node.validate(true);
  if (host::hasError(node))
    throw RenderError(host::errorText(node));

  Validated v;
  const ChannelSet available = node.channels();
  v.channels = renderChannels(o.channels, available, in.input0, in.input0Name);
  v.outputType = intKnob(node, "outputType");
  const Channel depth = channelKnob(node, "depthChannel");
  if (!in.deep && v.outputType != vorel::OutputFilterShape && depth != Chan_Black &&
      !available.contains(depth))
    throw UsageError(in.input0Name + " has no depth channel " + getName(depth) + " (it has " +
                     in.input0.listing() + "); name one with --set depthChannel=NAME");
  checkChannelsToBlur(node, available, in.input0Name, in.input0.listing());
  for (const char* knobName : {"bloomMatteChannel", "defocusMatteChannel",
                               "chromicAberrationMatteChannel"}) {
    const Channel z = channelKnob(node, knobName);
    if (z == Chan_Black)
      continue;
    if (!in.mattes.op)
      warn(report, std::string(knobName) + " has no effect without --mattes");
    else if (!in.mattes.channels().contains(z))
      throw UsageError(o.mattes + " has no channel " + getName(z) + " for " + knobName +
                       " (it has " + in.mattes.listing() + ")");
  }

  v.box = Box(node.x(), node.y(), node.r(), node.t());
  if (v.box.w() <= 0 || v.box.h() <= 0)
    throw RenderError("the output is empty: " + in.input0Name + " has no pixels");
  return v;
}

void openNode(Iop& node, const Validated& v, unsigned threads, const RenderReport& report) {
  Thread::numCPUs = threads;
  node.request(v.box, v.channels, 1);
  node.open();
  if (host::hasError(node))
    throw RenderError(host::errorText(node));
  for (const std::string& w : host::warnings(node))
    warn(report, w);
}

// Every row of the box into an image with input 0's names for the channels rendered, in the
// file's order. Rows go to `threads` workers; with a progress report this thread reports while
// the others work, then joins in.
struct Rendered {
  FlatImage image;
  std::vector<Channel> channels;  // the host's channel of each of the image's
};

Rendered runRows(Iop& node, const Validated& v, const FlatSource& input0, unsigned threads,
                 const RenderReport& report, Clock::time_point start) {
  const Box& box = v.box;
  Rendered rendered;
  FlatImage& out = rendered.image;
  std::vector<Channel>& outChannels = rendered.channels;
  out.format = {node.format().x(), node.format().y(), node.format().r(), node.format().t()};
  out.box = {box.x(), box.y(), box.r(), box.t()};
  for (const auto& n : input0.names)
    if (v.channels.contains(n.first)) {
      outChannels.push_back(n.first);
      out.channels.push_back(n.second);
    }
  out.allocate();

  auto take = [&](int y, const Row& row) {
    for (std::size_t c = 0; c < outChannels.size(); ++c)
      std::memcpy(out.row(int(c), y), row[outChannels[c]] + box.x(),
                  std::size_t(box.w()) * sizeof(float));
  };
  const auto rowsStart = Clock::now();
  auto tell = [&](long done) {
    report.progress(done, box.h(), secondsSince(start), secondsSince(rowsStart));
  };
  try {
    host::renderRows(node, box, v.channels, threads, take,
                     report.progress ? tell : std::function<void(long)>());
  } catch (const std::exception& e) {
    throw RenderError(std::string("rendering failed: ") + e.what());
  }
  return rendered;
}

// The EXR header: input 0's, told how to store pixels, with the knobs and camera that made it.
ExrHeader outputHeader(const Iop& node, const RenderOptions& o, const Inputs& in) {
  ExrHeader header = in.header;
  if (!o.compression.empty())
    header.compression = o.compression;
  header.pixelType = o.pixelType;
  addVorelAttributes(header, settingsText(node, *makeNode()),
                     in.camera ? cameraText(in.cameraValues) : "");
  return header;
}

// Every -o from one image: all replaced, or none.
void writeRendered(const RenderOptions& o, const Rendered& out, const ExrHeader& header) {
  auto index = [&](Channel z) {
    for (std::size_t c = 0; c < out.channels.size(); ++c)
      if (out.channels[c] == z)
        return int(c);
    return -1;
  };
  writeOutputs(o.outputs, out.image, index(Chan_Red), index(Chan_Green), index(Chan_Blue),
               index(Chan_Alpha), &header);
}

// The CoC the frame's table holds for each pixel of the output's box, in the output's windows:
// the diameter each pixel was spread with, after the defocus matte and the floor of 1. Pixels
// beyond the table are clamped to it as the engine clamps them.
FlatImage cocImage(const Iop& node, const FlatImage& like) {
  const auto* vorelNode = dynamic_cast<const tzVorel*>(&node);
  const auto frame = vorelNode ? vorelNode->frame() : nullptr;
  if (!frame || !frame->flatSources.ready)
    throw UsageError("--coc-out needs the Defocused Image or Lens Bloom output of a flat input");
  const vorel::FlatSourceTable& table = frame->flatSources;
  FlatImage coc;
  coc.format = like.format;
  coc.box = like.box;
  coc.channels = {"Y"};
  coc.allocate();
  for (int y = coc.box.y; y < coc.box.t; ++y) {
    const int fy = std::max(table.bottom, std::min(table.top, y));
    float* row = coc.row(0, y);
    for (int x = coc.box.x; x < coc.box.r; ++x) {
      const int sx = std::max(table.left, std::min(table.right - 1, x));
      row[x - coc.box.x] = table.coc[table.index(sx, fy)];
    }
  }
  return coc;
}

// What the summary says of the node and its output.
RenderSummary summaryOf(const Iop& node, const Validated& v) {
  RenderSummary summary;
  summary.width = v.box.w();
  summary.height = v.box.h();
  const Knob* typeKnob = node.knob("outputType");
  summary.outputType = typeKnob ? valueText(*typeKnob) : "";
  // The largest CoC is only looked for when the output is a defocus.
  const auto* vorelNode = dynamic_cast<const tzVorel*>(&node);
  if (vorelNode) {
    if (v.outputType == vorel::OutputDefocusedImage || v.outputType == vorel::OutputLensBloom)
      summary.maxCoC = vorelNode->frame()->maxCoC;
    const vorel::Frame::OpenTimes& times = vorelNode->frame()->openTimes;
    summary.scanSeconds = times.scan;
    summary.bankSeconds = times.bank;
    summary.tableSeconds = times.tables;
    summary.bankReused = times.bankReused;
  }
  return summary;
}


}  // namespace

CameraValues parseCamera(const std::string& text) {
  CameraValues camera;
  std::map<std::string, double*> keys = {{"focal", &camera.focal},
                                         {"haperture", &camera.haperture},
                                         {"vaperture", &camera.vaperture},
                                         {"focus", &camera.focus},
                                         {"fstop", &camera.fstop}};
  std::string item;
  for (char c : text + ",") {
    if (c != ',') {
      item += c;
      continue;
    }
    if (item.empty())
      continue;
    const auto eq = item.find('=');
    const std::string key = lower(item.substr(0, eq));
    auto it = keys.find(key);
    if (eq == std::string::npos || it == keys.end())
      throw UsageError("--camera: expected focal=, haperture=, vaperture=, focus= or fstop=, got '" +
                       item + "'");
    const std::string value = item.substr(eq + 1);
    char* end = nullptr;
    const double v = std::strtod(value.c_str(), &end);
    if (value.empty() || end != value.c_str() + value.size() || !std::isfinite(v) || v <= 0.0)
      throw UsageError("--camera: " + key + " must be a positive number, got '" + value + "'");
    *it->second = v;
    item.clear();
  }
  return camera;
}

std::unique_ptr<Op> makeNode() {
  std::unique_ptr<Op> node = host::create(kNodeDescription.name);
  if (!node || !dynamic_cast<Iop*>(node.get()))
    throw RenderError("the tzVorel node is not part of this build");
  return node;
}

std::string cameraText(const CameraValues& c) {
  std::ostringstream s;
  s.precision(9);
  s << "focal=" << c.focal << ",haperture=" << c.haperture << ",vaperture=" << c.vaperture
    << ",focus=" << c.focus << ",fstop=" << c.fstop;
  return s.str();
}

// The node and its inputs, kept from one render to the next; `like` is a new node, whose knobs the
// kept one takes back before each render.
struct Renderer::Kept {
  std::unique_ptr<Op> like;
  std::unique_ptr<Op> node;
  Inputs inputs;  // what the node's inputs point at, held as long as they do

  // The frame's tables (the invalidation keeps the node's kernels for the next frame) and the
  // images on the node's inputs, disconnected first so that the node points at nothing freed.
  void releaseFrame() {
    if (node) {
      node->invalidate();
      for (int i = 0; i < node->inputs(); ++i)
        host::connect(*node, i, nullptr);
    }
    inputs = Inputs();
  }
};

Renderer::Renderer() : kept_(std::make_unique<Kept>()) {}
Renderer::~Renderer() = default;

RenderSummary render(const RenderOptions& o, const RenderReport& report) {
  Renderer renderer;
  return renderer.render(o, report);
}

RenderSummary Renderer::render(const RenderOptions& o, const RenderReport& report) {
  try {
    return renderWithNode(o, report);
  } catch (...) {
    // Whatever state the failure left the node in is not carried into the next render.
    kept_->node.reset();
    kept_->inputs = Inputs();
    throw;
  }
}

RenderSummary Renderer::renderWithNode(const RenderOptions& o, const RenderReport& report) {
  const auto start = Clock::now();
  const Plan plan = checkPlan(o);
  Kept& kept = *kept_;
  // The last render's images, and with the invalidation its tables, go before this one's are
  // read: a shot holds one frame at a time (and the kernels).
  kept.releaseFrame();
  Inputs& in = kept.inputs;
  loadImages(o, plan, report, in);
  makeCamera(o, report, in);
  const double readSeconds = secondsSince(start);

  if (!kept.like)
    kept.like = makeNode();
  if (kept.node)
    copyKnobValues(*kept.like, *kept.node);
  else
    kept.node = makeNode();
  Iop& node = static_cast<Iop&>(*kept.node);
  connectInputs(node, o, plan, in);
  applyKnobs(node, o, in, report);
  focusAt(node, o, in, report);
  const Validated v = validateNode(node, o, in, report);

  const unsigned threads = std::max(
      1u, std::min<unsigned>(threadsToUse(o.threads, [&](const std::string& s) { tell(report, s); }),
                             unsigned(v.box.h())));
  const auto openStart = Clock::now();
  openNode(node, v, threads, report);
  if (!in.deep)
    warnAboutFocus(node, depthRange(in.input0.op.get(), channelKnob(node, "depthChannel")),
                   [&](const std::string& s) { warn(report, s); });
  const double openSeconds = secondsSince(openStart);
  const auto rowsStart = Clock::now();
  const Rendered out = runRows(node, v, in.input0, threads, report, start);
  const double rowSeconds = secondsSince(rowsStart);
  refuseBlackRender(node, out.image, out.channels, in.input0.op.get());
  const auto writeStart = Clock::now();
  // Made before anything is written, so that a node without the table leaves no file behind.
  const FlatImage coc = o.cocOut.empty() ? FlatImage() : cocImage(node, out.image);
  const ExrHeader header = outputHeader(node, o, in);
  RenderSummary summary = summaryOf(node, v);
  // The node's tables and the input's pixels are not needed for writing: going before the files
  // are encoded, they leave that room to the encoders.
  kept.releaseFrame();
  writeRendered(o, out, header);
  if (!o.cocOut.empty())
    writeExr(o.cocOut, coc);
  const double writeSeconds = secondsSince(writeStart);

  summary.seconds = secondsSince(start);
  summary.readSeconds = readSeconds;
  summary.openSeconds = openSeconds;
  summary.rowSeconds = rowSeconds;
  summary.writeSeconds = writeSeconds;
  summary.threads = threads;
  return summary;
}

}  // namespace vorelapp
