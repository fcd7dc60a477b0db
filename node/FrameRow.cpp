// The row dispatch: which engine or preview makes a row of the frame, and the composite of the
// deep front and back passes.

#include "DDImage/Iop.h"
#include "DDImage/Row.h"
#include "engines/DeepRowEngine.h"
#include "engines/FlatRowEngine.h"
#include "node/tzVorel.h"
#include "previews/Previews.h"

using namespace DD::Image;

namespace vorel {

namespace {

// The deep defocus in two passes, front over back, as "Focus Region Output" keeps them.
void deepFrontAndBackRow(const Frame& frame, int y, int x, int r, const ChannelSet& channels, Row& row) {
  const int focusOutput = frame.params.focusOutput;
  // The composite reads the front pass's alpha, so that pass computes alpha even when the
  // request has none.
  ChannelSet frontChannels = channels;
  frontChannels += Chan_Alpha;
  Row frontRow(x, r);
  if (focusOutput != FocusBack)
    deepRowEngine(frame, y, x, r, frontChannels, frontRow, DepthSideFront);
  Row backRow(x, r);
  if (focusOutput != FocusFront)
    deepRowEngine(frame, y, x, r, channels, backRow, DepthSideBack);

  const float* frontAlpha = frontRow[Chan_Alpha];
  foreach (z, channels) {
    if (!frame.params.vorelChannels.contains(z))
      continue;
    float* out = row.writable(z);
    const float* front = frontRow[z];
    const float* back = backRow[z];
    for (int i = x; i < r; ++i) {
      out[i] = 0.0f;
      if (focusOutput != FocusFront)
        out[i] = back[i];
      if (focusOutput != FocusBack)
        out[i] = (1.0f - frontAlpha[i]) * out[i] + front[i];
    }
  }
}

void deepDefocusRow(const Frame& frame, int y, int x, int r, const ChannelSet& channels, Row& row) {
  Row inRow(x, r);
  inRow.get(*frame.inputs.source, y, x, r, channels);
  row.copy(inRow, channels, x, r);
  if (frame.params.integrateFrontAndBackSeperately)
    deepFrontAndBackRow(frame, y, x, r, channels, row);
  else
    deepRowEngine(frame, y, x, r, channels, row, DepthSideNone);
}

}  // namespace

bool frameHasWhatRowsNeed(const Frame& frame) {
  const int type = frame.params.outputType;
  const bool needsBank = type == OutputDefocusedImage || type == OutputLensBloom;
  const bool known = type >= OutputDefocusedImage && type <= OutputFocusMatte;
  return known && !(needsBank && (!frame.kernelsReady || frame.kernelBank.empty())) &&
         !(type == OutputFilterShape && !frame.kernelsReady);
}

void frameRow(const Frame& frame, int y, int x, int r, const ChannelSet& channels, Row& row) {
  const bool deep = frame.params.hasDeepInput;
  switch (frame.params.outputType) {
    case OutputFocalDistance:
    case OutputFocusMatte:
      if (deep)
        deepPreviewRow(frame, y, x, r, channels, row);
      else
        flatPreviewRow(frame, y, x, r, channels, row);
      return;
    case OutputFilterShape:
      filterShapeRow(frame, y, x, r, channels, row);
      return;
    default:
      break;
  }
  if (deep)
    deepDefocusRow(frame, y, x, r, channels, row);
  else
    flatRowEngine(frame, y, x, r, channels, row);
}

}  // namespace vorel
