#include "DDImage/Box.h"
#include "DDImage/Channel.h"
#include "DDImage/DeepComposite.h"
#include "DDImage/DeepOp.h"
#include "DDImage/DeepPixel.h"
#include "DDImage/DeepPlane.h"
#include "DDImage/Iop.h"
#include "DDImage/Row.h"
#include "engines/DeepSamples.h"
#include "engines/Frame.h"
#include "lens/CircleOfConfusion.h"
#include "previews/Previews.h"

using namespace DD::Image;

namespace vorel {

namespace {

// One preview value, never below 0 (a negative CoC shows as nothing, not as a negative colour).
float previewValue(const Frame& frame, float depth, Channel c) {
  const LensSample lens = frame.sample(depth, DepthSource::DeepPiece);
  float value;
  previewPixel(frame.params, frame.maxCoC, lens.coc, lens.side, c, value);
  return value > 0.0f ? value : 0.0f;
}

// Columns [x, r) of the colour planes from the deep row at y, front to back over each pixel's
// combined samples; what no sample covers shows the far limit. False when the render is aborted.
bool previewDeepRow(const Frame& frame, DeepOp& deep, int y, int x, int r, const ChannelSet& colourSet,
                    float* const planes[4]) {
  DeepPlane plane;
  if (!deep.deepEngine(Box(x, y, r, y + 1), deepPieceChannels(frame.params.vorelChannels), plane))
    return false;
  const Channel depthOfSample = sampleDepthChannel(frame.params.depthChannel);
  const Box box = plane.box();
  const ChannelMap& map = plane.channels();

  // The far limit's value is the same for every pixel.
  float farValue[4] = {0.0f, 0.0f, 0.0f, 0.0f};
  foreach (c, colourSet)
    farValue[c] = previewValue(frame, kFarLimit, c);

  // The combined samples do not depend on the channel, so they are made once per pixel.
  DeepOutPixel combined;
  combined.reserve(64);
  for (int X = x; X < r; ++X) {
    if (X < box.x() || X >= box.r() || y < box.y() || y >= box.t())
      continue;
    combined.clear();
    CombineOverlappingSamples(map, plane.getPixel(y, X), combined);
    const DeepPixel samples = combined.getPixel(map, DeepPixel::eZDescending);
    foreach (c, colourSet) {
      float& out = planes[c][X];
      const float covered = walkFrontToBack(
          samples.getSampleCount(), WalkEnd::Exhausted,
          [&](std::size_t i) { return samples.getOrderedSample(i, Chan_Alpha); },
          [&](std::size_t i, float, float weight) {
            out += weight * previewValue(frame, samples.getOrderedSample(i, depthOfSample), c);
            return true;
          });
      if (1.0f > covered)
        out += (1.0f - covered) * farValue[c];
    }
  }
  return true;
}

}  // namespace

void deepPreviewRow(const Frame& frame, int y, int x, int r, const ChannelSet& channels, Row& row) {
  if (r <= x)
    return;

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

  // false means the render is aborted: the row is left unfinished.
  if (frame.inputs.deep && !colourSet.empty() &&
      !previewDeepRow(frame, *frame.inputs.deep, y, x, r, colourSet, planes))
    return;

  Iop* input = frame.inputs.source;
  if (!passThrough.empty() && input) {
    Row inputRow(x, r);
    inputRow.get(*input, y, x, r, passThrough);
    row.copy(inputRow, passThrough, x, r);
  }
}

}  // namespace vorel
