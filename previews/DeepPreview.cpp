#include "DDImage/Box.h"
#include "DDImage/Channel.h"
#include "DDImage/DeepComposite.h"
#include "DDImage/DeepOp.h"
#include "DDImage/DeepPixel.h"
#include "DDImage/DeepPlane.h"
#include "DDImage/Iop.h"
#include "DDImage/Row.h"
#include "engines/DeepSamples.h"
#include "lens/CircleOfConfusion.h"
#include "node/tzVorel.h"
#include "previews/Previews.h"

using namespace DD::Image;

namespace vorel {

namespace {

// One preview value, never below 0 (a negative CoC shows as nothing, not as a negative colour).
float previewValue(const NodeParameters& p, int maxCoC, float depth, Channel c) {
  if (!p.realWorldLens)
    depth = clampToRegion(p, depth);
  DepthSide side;
  const float coc = depthToCoC(p, maxCoC, depth, side);
  float value;
  previewPixel(p, maxCoC, coc, side, c, value);
  return value > 0.0f ? value : 0.0f;
}

}  // namespace

void deepPreviewRow(const tzVorel& node, int y, int x, int r, const ChannelSet& channels, Row& row) {
  if (r <= x)
    return;
  const NodeParameters& p = node.params;

  ChannelSet passThrough = channels;
  passThrough -= Mask_RGB;
  ChannelSet colourSet(Mask_RGB);
  colourSet &= channels;

  // Columns the preview cannot show (no deep data there) read 0, not whatever the row held.
  float* planes[4] = {nullptr, nullptr, nullptr, nullptr};
  foreach (c, colourSet) {
    planes[c] = row.writable(c);
    for (int X = x; X < r; ++X)
      planes[c][X] = 0.0f;
  }

  DeepOp* deep = node.deepInput();
  if (deep && !colourSet.empty()) {
    ChannelSet deepChannels = p.vorelChannels;
    deepChannels -= Chan_Z;
    deepChannels += Chan_Alpha;
    deepChannels += Chan_DeepFront;
    deepChannels += Chan_DeepBack;
    const Channel depthOfSample = sampleDepthChannel(p.depthChannel);

    DeepPlane plane;
    // false means the render is aborted: the row is left unfinished.
    if (!deep->deepEngine(Box(x, y, r, y + 1), deepChannels, plane))
      return;
    const Box box = plane.box();
    const ChannelMap& map = plane.channels();

    // What no sample covers shows the far limit; its value is the same for every pixel.
    float farValue[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    foreach (c, colourSet)
      farValue[c] = previewValue(p, node.maxCoC, kFarLimit, c);

    // The combined samples do not depend on the channel, so they are made once per pixel.
    DeepOutPixel combined;
    combined.reserve(64);
    for (int X = x; X < r; ++X) {
      if (X < box.x() || X >= box.r() || y < box.y() || y >= box.t())
        continue;
      combined.clear();
      CombineOverlappingSamples(map, plane.getPixel(y, X), combined);
      const DeepPixel samples = combined.getPixel(map, DeepPixel::eZDescending);
      const std::size_t count = samples.getSampleCount();

      foreach (c, colourSet) {
        float& out = planes[c][X];
        float transmittance = 1.0f;
        float coveredAlpha = 0.0f;
        for (std::size_t i = 0; i < count; ++i) {
          const float depth = samples.getOrderedSample(i, depthOfSample);
          const float alpha = samples.getOrderedSample(i, Chan_Alpha);
          const float value = previewValue(p, node.maxCoC, depth, c);
          const float weight = alpha * transmittance;
          out += weight * value;
          coveredAlpha += weight;
          transmittance = 1.0f - coveredAlpha;
          if (0.0f >= transmittance)
            break;
        }
        if (1.0f > coveredAlpha)
          out += (1.0f - coveredAlpha) * farValue[c];
      }
    }
  }

  Iop* input = node.input(0);
  if (!passThrough.empty() && input) {
    Row inputRow(x, r);
    inputRow.get(*input, y, x, r, passThrough);
    row.copy(inputRow, passThrough, x, r);
  }
}

}  // namespace vorel
