#include "app/Render.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <exception>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>

#include "DDImage/Host.h"
#include "DDImage/Row.h"
#include "DDImage/Thread.h"
#include "app/AppError.h"
#include "app/ImageFiles.h"
#include "app/InputChecks.h"
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

// Moves an image already in memory into the host's, one plane at a time, so that its pixels are
// held only about once.
FlatSource toHost(FlatImage&& image, const std::string& path) {
  FlatSource source = hostImageFor(image, path);
  for (std::size_t c = 0; c < image.channels.size(); ++c) {
    float* plane = source.op->plane(source.names[c].first);
    if (plane && !image.planes[c].empty())
      std::memcpy(plane, image.planes[c].data(), image.planes[c].size() * sizeof(float));
    std::vector<float>().swap(image.planes[c]);
  }
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

std::unique_ptr<host::DeepImage> toHostDeep(const DeepImage& deep, const std::string& path) {
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
  std::vector<std::pair<Channel, float>> values(deep.channels.size());
  for (int y = deep.box.y; y < deep.box.t; ++y)
    for (int x = deep.box.x; x < deep.box.r; ++x) {
      const std::size_t n = deep.sampleCount(x, y);
      for (std::size_t s = 0; s < n; ++s) {
        const float* v = deep.sample(x, y, s);
        for (std::size_t c = 0; c < deep.channels.size(); ++c)
          values[c] = {channels[c], v[c]};
        op->addSample(x, y, values);
      }
    }
  op->finish();
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

RenderSummary render(const RenderOptions& o, const RenderReport& report) {
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  auto note = [&](const std::string& s) { if (report.note) report.note(s); };
  auto warn = [&](const std::string& s) { if (report.warning) report.warning(s); };

  // --- what was asked for ---------------------------------------------------------------
  if (o.outputs.empty())
    throw UsageError("no output file: give -o FILE");
  std::vector<FileKind> kinds;
  for (const std::string& output : o.outputs) {
    kinds.push_back(fileKindFor(output));
    if (kinds.back() == FileKind::Unknown)
      throw UsageError("cannot write " + output +
                       ": the output must be .exr, or .png, .jpg or .tif for a quick look");
  }
  std::string input = o.input, deepPath = o.deep;
  if (input.empty() && deepPath.empty())
    throw UsageError("no input: give an INPUT image, or a deep image with --deep");
  if (!input.empty() && isDeepFile(input)) {
    if (!deepPath.empty())
      throw UsageError(input + " is a deep image; with --deep given, INPUT must be flat");
    deepPath = input;
    input.clear();
  }
  std::vector<std::string> reads = {input, deepPath, o.kernel, o.mattes};
  reads.insert(reads.end(), o.presetFiles.begin(), o.presetFiles.end());
  for (std::size_t i = 0; i < o.outputs.size(); ++i) {
    const std::string& output = o.outputs[i];
    for (const std::string& in : reads)
      if (!in.empty() && sameFile(in, output))
        throw UsageError("the output " + output + " is also an input; choose another name");
    for (std::size_t j = 0; j < i; ++j)
      if (sameFile(o.outputs[j], output))
        throw UsageError("the output " + output + " is given twice");
    std::error_code ec;
    if (fs::is_directory(output, ec))
      throw UsageError("the output " + output + " is a directory");
    // Found out now rather than after the render.
    const fs::path parent = fs::path(output).parent_path();
    if (!parent.empty() && !fs::is_directory(parent, ec))
      throw UsageError("cannot write " + output + ": no directory " + parent.string());
  }

  // --- inputs ------------------------------------------------------------------------------
  applyInputOptions(o, input.empty() ? deepPath : input);
  FlatSource input0, kernel, mattes;
  std::unique_ptr<host::DeepImage> deep;
  std::string input0Name = input;
  if (!deepPath.empty()) {
    BadPixelCount bad;
    DeepImage d = readDeepImage(deepPath, &bad);
    if (!badPixelWarning(deepPath, bad).empty())
      warn(badPixelWarning(deepPath, bad));
    if (input.empty()) {
      input0 = toHost(flattenDeep(d), deepPath);
      input0Name = deepPath + " (flattened)";
    }
    deep = toHostDeep(d, deepPath);
  }
  if (!input.empty())
    input0 = loadFlat(input, report, o.layer);
  if (!o.kernel.empty())
    kernel = loadFlat(o.kernel, report);
  if (!o.mattes.empty())
    mattes = loadFlat(o.mattes, report);
  std::unique_ptr<host::Camera> camera;
  if (o.hasCamera) {
    camera = std::make_unique<host::Camera>();
    camera->setFocalLength(o.camera.focal);
    camera->setFilmWidth(o.camera.haperture);
    camera->setFilmHeight(o.camera.vaperture);
    camera->setFocalPoint(o.camera.focus);
    camera->setFstop(o.camera.fstop);
  }

  // --- the node ----------------------------------------------------------------------------
  std::unique_ptr<Op> nodeOp = makeNode();
  Iop& node = static_cast<Iop&>(*nodeOp);
  auto connect = [&](int i, Op* source, const std::string& what) {
    if (source && !host::connect(node, i, source))
      throw RenderError("the node refused " + what + " on its input " + std::to_string(i));
  };
  connect(0, input0.op.get(), input0Name);
  connect(1, kernel.op.get(), o.kernel);
  connect(2, camera.get(), "the camera");
  connect(3, deep.get(), deepPath);
  connect(4, mattes.op.get(), o.mattes);

  // An image on the Kernel input is meant to be used, a camera to act as a real lens; the
  // user's own settings come after and win.
  std::vector<KnobSetting> settings;
  if (kernel.op)
    settings.push_back({"kernelType", "Input", "--kernel"});
  // A kernel image without alpha would spread alpha with nothing and leave it 0 everywhere: its
  // red channel shapes the alpha instead.
  if (kernel.op && kernel.channels().contains(Chan_Red) && !kernel.channels().contains(Chan_Alpha))
    settings.push_back({"missingKernelChannel", "rgba.red", "--kernel"});
  if (camera)
    settings.push_back({"realWorldLens", "on", "--camera"});
  settings.insert(settings.end(), o.settings.begin(), o.settings.end());
  std::vector<std::string> clampedKnobs;  // each clamp is told once
  for (const KnobSetting& s : settings) {
    const std::string clamped = applySetting(node, s);
    if (!clamped.empty() &&
        std::find(clampedKnobs.begin(), clampedKnobs.end(), s.name) == clampedKnobs.end()) {
      clampedKnobs.push_back(s.name);
      note(clamped);
    }
    if (camera && (s.name == "focalPlane" || s.name == "focalLength" || s.name == "fStop" ||
                   s.name == "apertureWidth" || s.name == "apertureHeight"))
      warn(s.origin + ": " + s.name + " has no effect: the camera's value replaces it");
  }

  checkKnobValues(node, camera != nullptr);

  // --- validate ----------------------------------------------------------------------------
  node.validate(true);
  if (host::hasError(node))
    throw RenderError(host::errorText(node));

  const ChannelSet available = node.channels();
  const ChannelSet channels = renderChannels(o.channels, available, input0, input0Name);
  const int outputType = intKnob(node, "outputType");
  const Channel depth = channelKnob(node, "depthChannel");
  if (!deep && outputType != vorel::OutputFilterShape && depth != Chan_Black &&
      !available.contains(depth))
    throw UsageError(input0Name + " has no depth channel " + getName(depth) + " (it has " +
                     input0.listing() + "); name one with --set depthChannel=NAME");
  checkChannelsToBlur(node, available, input0Name, input0.listing());
  for (const char* knobName : {"bloomMatteChannel", "defocusMatteChannel",
                               "chromicAberrationMatteChannel"}) {
    const Channel z = channelKnob(node, knobName);
    if (z == Chan_Black)
      continue;
    if (!mattes.op)
      warn(std::string(knobName) + " has no effect without --mattes");
    else if (!mattes.channels().contains(z))
      throw UsageError(o.mattes + " has no channel " + getName(z) + " for " + knobName +
                       " (it has " + mattes.listing() + ")");
  }

  const Box box(node.x(), node.y(), node.r(), node.t());
  if (box.w() <= 0 || box.h() <= 0)
    throw RenderError("the output is empty: " + input0Name + " has no pixels");

  // --- request and open ---------------------------------------------------------------------
  const unsigned threads =
      std::max(1u, std::min<unsigned>(threadsToUse(o.threads, note), unsigned(box.h())));
  Thread::numCPUs = threads;
  node.request(box, channels, 1);
  node.open();
  if (host::hasError(node))
    throw RenderError(host::errorText(node));
  for (const std::string& w : host::warnings(node))
    warn(w);
  if (!deep)
    warnAboutFocus(node, depthRange(input0.op.get(), depth), warn);

  // --- rows --------------------------------------------------------------------------------
  FlatImage out;
  out.format = {node.format().x(), node.format().y(), node.format().r(), node.format().t()};
  out.box = {box.x(), box.y(), box.r(), box.t()};
  std::vector<Channel> outChannels;
  for (const auto& n : input0.names)  // the file's order
    if (channels.contains(n.first)) {
      outChannels.push_back(n.first);
      out.channels.push_back(n.second);
    }
  out.allocate();

  std::atomic<int> nextRow{box.y()};
  std::atomic<long> rowsDone{0};
  std::atomic<bool> failed{false};
  std::exception_ptr failure;
  std::mutex failureMutex;
  auto worker = [&]() {
    try {
      for (int y = nextRow++; y < box.t() && !failed; y = nextRow++) {
        Row row(box.x(), box.r());
        node.engine(y, box.x(), box.r(), channels, row);
        for (std::size_t c = 0; c < outChannels.size(); ++c)
          std::memcpy(out.row(int(c), y), row[outChannels[c]] + box.x(),
                      std::size_t(box.w()) * sizeof(float));
        ++rowsDone;
      }
    } catch (...) {
      std::lock_guard<std::mutex> lock(failureMutex);
      if (!failure)
        failure = std::current_exception();
      failed = true;
    }
  };
  std::vector<std::thread> pool;
  for (unsigned i = 1; i < threads; ++i)
    pool.emplace_back(worker);
  if (report.progress) {
    // This thread reports while the others work, then joins in.
    const auto rowsStart = Clock::now();
    auto tell = [&]() {
      const auto now = Clock::now();
      report.progress(rowsDone, box.h(), std::chrono::duration<double>(now - start).count(),
                      std::chrono::duration<double>(now - rowsStart).count());
    };
    std::thread last(worker);
    while (rowsDone < box.h() && !failed) {
      tell();
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    last.join();
    tell();
  } else {
    worker();
  }
  for (std::thread& t : pool)
    t.join();
  if (failure) {
    try {
      std::rethrow_exception(failure);
    } catch (const std::exception& e) {
      throw RenderError(std::string("rendering failed: ") + e.what());
    }
  }

  // --- the file ----------------------------------------------------------------------------
  refuseBlackRender(node, out, outChannels, input0.op.get());
  auto index = [&](Channel z) {
    for (std::size_t c = 0; c < outChannels.size(); ++c)
      if (outChannels[c] == z)
        return int(c);
    return -1;
  };
  writeOutputs(o.outputs, out, index(Chan_Red), index(Chan_Green), index(Chan_Blue),
               index(Chan_Alpha));

  RenderSummary summary;
  summary.width = box.w();
  summary.height = box.h();
  const Knob* typeKnob = node.knob("outputType");
  summary.outputType = typeKnob ? valueText(*typeKnob) : "";
  // The largest CoC is only looked for when the output is a defocus.
  const auto* vorelNode = dynamic_cast<const tzVorel*>(&node);
  if (vorelNode && (outputType == vorel::OutputDefocusedImage || outputType == vorel::OutputLensBloom))
    summary.maxCoC = vorelNode->maxCoC;
  summary.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  summary.threads = threads;
  return summary;
}

}  // namespace vorelapp
