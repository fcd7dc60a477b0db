#include "app/ArrayRender.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <shared_mutex>
#include <thread>

#include "DDImage/Host.h"
#include "DDImage/Row.h"
#include "DDImage/Thread.h"
#include "app/AppError.h"

using namespace DD::Image;

namespace vorelapp {

namespace {

const Channel kImageChannels[] = {Chan_Red, Chan_Green, Chan_Blue, Chan_Alpha};

// An input read in place from the caller's arrays: no planes of its own, so a frame costs no copy
// before the node sees it. Read-only once rows are asked for.
class ArraySource : public Iop {
public:
  ArraySource(const ArrayView& image, const ArrayView* depth)
      : Iop(nullptr), image_(image), depth_(depth ? *depth : ArrayView()) {
    inputs(0);
    for (int c = 0; c < image.channels; ++c)
      channels_ += kImageChannels[c];
    if (depth)
      channels_ += Chan_Z;
    _validate(true);
  }

  const char* Class() const override { return "ArraySource"; }
  const char* node_help() const override { return "image in the caller's memory"; }

  void engine(int y, int x, int r, ChannelMask channels, Row& row) override {
    if (r <= x)
      return;
    const int H = image_.height, W = image_.width;
    // Beyond the edges the edge pixels repeat, as the host's own sources do.
    const int line = H - 1 - std::min(std::max(y, 0), H - 1);
    foreach (z, channels) {
      float* dst = row.writable(z);
      const ArrayView* view = z == Chan_Z ? &depth_ : &image_;
      const int c = z == Chan_Z ? 0 : int(z) - int(Chan_Red);
      if (!channels_.contains(z)) {
        std::fill(dst + x, dst + r, 0.0f);
        continue;
      }
      const float* src = view->data + line * view->rowStride + c * view->channelStride;
      const std::ptrdiff_t step = view->columnStride;
      for (int xx = x; xx < r; ++xx)
        dst[xx] = src[std::min(std::max(xx, 0), W - 1) * step];
    }
  }

protected:
  void _validate(bool) override {
    const Format format(image_.width, image_.height, 0, 0, image_.width, image_.height);
    info_.format(format);
    info_.full_size_format(format);
    info_.set(0, 0, image_.width, image_.height);
    info_.channels(channels_);
  }

private:
  ArrayView image_, depth_;
  ChannelSet channels_;
};

void checkArrays(const ArrayView& image, const ArrayView& depth, const ArrayRenderOptions& o) {
  if (image.channels < 1 || image.channels > 4)
    throw UsageError("the image must have 1 to 4 channels (red, green, blue, alpha), not " +
                     std::to_string(image.channels));
  if (image.height < 1 || image.width < 1)
    throw UsageError("the image is empty");
  if (depth.height != image.height || depth.width != image.width || depth.channels != 1)
    throw UsageError("the depth must be " + std::to_string(image.height) + "x" +
                     std::to_string(image.width) + " like the image, not " +
                     std::to_string(depth.height) + "x" + std::to_string(depth.width) +
                     (depth.channels != 1 ? "x" + std::to_string(depth.channels) : ""));
  if (o.hasKernel && (o.kernel.height < 1 || o.kernel.width < 1 || o.kernel.channels < 1 ||
                      o.kernel.channels > 4))
    throw UsageError("the kernel must be a non-empty image of 1 to 4 channels");
}

// Every row of the image, written into its array row (the arrays run top down, rows bottom up).
void renderIntoArray(Iop& node, const ChannelSet& request, int channels, int width, int height,
                     unsigned threads, float* out) {
  auto take = [&](int y, const Row& row) {
    float* line = out + std::size_t(height - 1 - y) * std::size_t(width) * std::size_t(channels);
    for (int c = 0; c < channels; ++c) {
      const float* src = row[kImageChannels[c]];
      for (int x = 0; x < width; ++x)
        line[std::size_t(x) * std::size_t(channels) + std::size_t(c)] = src[x];
    }
  };
  try {
    host::renderRows(node, Box(0, 0, width, height), request, threads, take);
  } catch (const std::exception& e) {
    throw RenderError(std::string("rendering failed: ") + e.what());
  }
}

// The host's thread count is one global that open() reads. Renders that want the count already set
// open side by side; one that wants another count waits for them, sets it and opens alone.
void openWithThreads(Iop& node, unsigned threads) {
  static std::shared_mutex threadCount;
  {
    std::shared_lock<std::shared_mutex> shared(threadCount);
    if (Thread::numCPUs == threads) {
      node.open();
      return;
    }
  }
  std::unique_lock<std::shared_mutex> alone(threadCount);
  Thread::numCPUs = threads;
  node.open();
}

}  // namespace

RenderSummary renderArrays(const ArrayView& image, const ArrayView& depth, float* out,
                           const ArrayRenderOptions& o) {
  const auto start = std::chrono::steady_clock::now();
  checkArrays(image, depth, o);

  ArraySource input0(image, &depth);
  std::unique_ptr<ArraySource> kernel;
  if (o.hasKernel)
    kernel = std::make_unique<ArraySource>(o.kernel, nullptr);
  std::unique_ptr<host::Camera> camera;
  if (o.hasCamera) {
    camera = std::make_unique<host::Camera>();
    camera->setFocalLength(o.camera.focal);
    camera->setFilmWidth(o.camera.haperture);
    camera->setFilmHeight(o.camera.vaperture);
    camera->setFocalPoint(o.camera.focus);
    camera->setFstop(o.camera.fstop);
  }

  std::unique_ptr<Op> nodeOp = makeNode();
  Iop& node = static_cast<Iop&>(*nodeOp);
  host::connect(node, 0, &input0);
  if (kernel)
    host::connect(node, 1, kernel.get());
  if (camera)
    host::connect(node, 2, camera.get());

  // As on the command line: a kernel is meant to be used, a camera to act as a lens, and the
  // caller's own knobs come after and win.
  std::vector<KnobSetting> settings;
  if (kernel)
    settings.push_back({"kernelType", "Input", "kernel"});
  if (camera)
    settings.push_back({"realWorldLens", "on", "camera"});
  settings.insert(settings.end(), o.settings.begin(), o.settings.end());
  for (const KnobSetting& s : settings)
    applySetting(node, s);

  node.validate(true);
  if (host::hasError(node))
    throw RenderError(host::errorText(node));
  const unsigned threads = std::max(
      1u, std::min<unsigned>(o.threads ? o.threads : std::thread::hardware_concurrency(),
                             unsigned(image.height)));
  ChannelSet request;
  for (int c = 0; c < image.channels; ++c)
    request += kImageChannels[c];
  request += Chan_Z;  // as the command line asks for every channel of its input
  node.request(Box(0, 0, image.width, image.height), request, 1);
  openWithThreads(node, threads);
  if (host::hasError(node))
    throw RenderError(host::errorText(node));
  if (o.warning)
    for (const std::string& w : host::warnings(node))
      o.warning(w);

  renderIntoArray(node, request, image.channels, image.width, image.height, threads, out);

  RenderSummary summary;
  summary.width = image.width;
  summary.height = image.height;
  const Knob* typeKnob = node.knob("outputType");
  summary.outputType = typeKnob ? valueText(*typeKnob) : "";
  summary.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  summary.threads = threads;
  return summary;
}

}  // namespace vorelapp
