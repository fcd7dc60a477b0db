#pragma once
// Renders one tzVorel node over images already in memory (the Python module's road): the caller's
// pixels are read where they lie, through strides, and the output rows are written straight into
// the caller's buffer. Arrays are stored top row first, as images usually are in memory; the host
// counts rows from the bottom, so array row i is host row height - 1 - i.

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "app/Knobs.h"
#include "app/Render.h"

namespace vorelapp {

// A float image in memory: value (row, column, channel) at
// data[row * rowStride + column * columnStride + channel * channelStride], strides in floats.
struct ArrayView {
  const float* data = nullptr;
  int height = 0, width = 0, channels = 0;
  std::ptrdiff_t rowStride = 0, columnStride = 0, channelStride = 0;
};

struct ArrayRenderOptions {
  std::vector<KnobSetting> settings;  // in order; later ones win
  unsigned threads = 0;               // 0: every core
  bool hasCamera = false;
  CameraValues camera;
  bool hasKernel = false;
  ArrayView kernel;  // channels as the image's: red, green, blue, alpha
  std::function<void(const std::string&)> warning;  // the node's warnings, if wanted
};

// image: height x width x 1..4 channels, taken as red, green, blue, alpha in that order.
// depth: height x width (one channel), on depth.Z. out: height x width x image.channels floats,
// contiguous, the same channels. Throws UsageError for arrays that do not fit together or bad
// knobs, RenderError when the node fails; the message is the command line's.
RenderSummary renderArrays(const ArrayView& image, const ArrayView& depth, float* out,
                           const ArrayRenderOptions& options);

}  // namespace vorelapp
