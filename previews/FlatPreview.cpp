#include "DDImage/Row.h"
#include "lens/CircleOfConfusion.h"
#include "engines/Frame.h"
#include "previews/Previews.h"

using namespace DD::Image;

namespace vorel {

namespace {

// Smooth step from 1 at CoC 0 down to 0 at CoC 0.5: marks what is sharper than half a pixel.
float focusRamp(float coc) {
  const float v = coc + coc;
  if (v <= 0.0f)
    return 1.0f;
  if (v < 1.0f) {
    const float ramp = 1.0f - (3.0f - 2.0f * v) * v * v;
    return ramp > 0.0f ? ramp : 0.0f;
  }
  return 0.0f;
}

}  // namespace

void previewPixel(const NodeParameters& p, int maxCoC, float coc, DepthSide side, Channel channel,
                  float& result) {
  float value = 0.0f;
  if (p.outputType == OutputFocalDistance) {
    if (channel == Chan_Red)
      value = focusRamp(coc);
    else if (channel == Chan_Green)
      value = side == DepthSideFront ? coc : 0.0f;
    else if (channel == Chan_Blue)
      value = side == DepthSideBack ? coc : 0.0f;
  } else if (p.outputType == OutputFocusMatte) {
    if (channel == Chan_Red)
      value = side == DepthSideNone ? 1.0f : 0.0f;
    else if (channel == Chan_Green)
      value = side == DepthSideFront ? 1.0f : 0.0f;
    else if (channel == Chan_Blue)
      value = side == DepthSideBack ? 1.0f : 0.0f;
  }
  if (p.normalizeVisualization && p.outputType == OutputFocalDistance && channel != Chan_Red)
    value = value / static_cast<float>(maxCoC);
  result = value;
}

void flatPreviewRow(const Frame& frame, int y, int x, int r, const ChannelSet& channels, Row& out) {
  const NodeParameters& p = frame.params;
  Iop* input = frame.inputs.source;

  Row depthRow(x, r);
  depthRow.get(*input, y, x, r, ChannelSet(p.depthChannel));

  ChannelSet passThrough = channels;
  passThrough -= Mask_RGB;
  ChannelSet colourSet(Mask_RGB);
  colourSet &= channels;

  if (!colourSet.empty()) {
    const float* depths = depthRow[p.depthChannel];
    float* planes[4] = {nullptr, nullptr, nullptr, nullptr};
    foreach (c, colourSet)
      planes[c] = out.writable(c);
    for (int X = x; X < r; ++X) {
      const LensSample lens = frame.sample(depths[X], DepthSource::FlatChannel);
      foreach (c, colourSet)
        previewPixel(p, frame.maxCoC, lens.coc, lens.side, c, planes[c][X]);
    }
  }

  if (!passThrough.empty()) {
    Row inputRow(x, r);
    inputRow.get(*input, y, x, r, passThrough);
    out.copy(inputRow, passThrough, x, r);
  }
}

}  // namespace vorel
