#include "lens/Scan.h"

#include <cmath>
#include <cstdint>
#include <vector>

#include "DDImage/Box.h"
#include "DDImage/Channel.h"
#include "DDImage/ChannelSet.h"
#include "DDImage/DeepOp.h"
#include "DDImage/DeepPixel.h"
#include "DDImage/DeepPlane.h"
#include "DDImage/Row.h"
#include "lens/CircleOfConfusion.h"

using namespace DD::Image;

namespace vorel {

namespace {

// The CoC rounded up to a whole pixel. A NaN counts as nothing and values beyond the integer
// range saturate, so a runaway CoC still trips the size cap instead of wrapping around.
int roundedUpCoC(float coc) {
  const float up = ceilf(coc);
  if (!(up == up))
    return 0;
  if (up >= 2147483648.0f)
    return INT32_MAX;
  if (up <= -2147483648.0f)
    return INT32_MIN;
  return static_cast<int>(up);
}

// The largest rounded-up CoC of row y so far, read and raised in place: the near-infinite rule
// reads the running maximum.
void scanFlatRow(const NodeParameters& p, Iop& source, int y, int width, int& maxCoC) {
  Row row(0, width);
  ChannelSet depthOnly;
  depthOnly += p.depthChannel;
  row.get(source, y, 0, width, depthOnly);
  const float* depth = row[p.depthChannel];
  if (!depth)
    return;
  const std::vector<float> noSlices;
  for (int x = 0; x < width; ++x) {
    const int c = roundedUpCoC(lensSample(p, noSlices, maxCoC, depth[x], DepthSource::FlatChannel).coc);
    if (c > maxCoC)
      maxCoC = c;
  }
}

// False when the deep input reports the render aborted.
bool scanDeepRow(const NodeParameters& p, DeepOp& deep, int y, int width, int& maxCoC) {
  ChannelSet depths;
  depths += Chan_DeepFront;
  depths += Chan_DeepBack;
  DeepPlane plane;
  if (!deep.deepEngine(Box(0, y, width, y + 1), depths, plane))
    return false;
  const std::vector<float> noSlices;
  for (int x = 0; x < width; ++x) {
    const DeepPixel pixel = plane.getPixel(y, x);
    const std::size_t count = pixel.getSampleCount();
    if (count == 0)
      continue;
    // The highest ordered index is the nearest sample; only it decides the pixel's reach.
    const float d = pixel.getOrderedSample(count - 1, Chan_DeepBack);
    const int c = roundedUpCoC(lensSample(p, noSlices, maxCoC, d, DepthSource::DeepNearest).coc);
    if (c > maxCoC)
      maxCoC = c;
  }
  return true;
}

}  // namespace

ScanResult scanMaxCoC(const NodeParameters& p, const Box& format, Iop* source, DeepOp* deep) {
  const int width = format.r() - format.x();
  const int height = format.t() - format.y();

  ScanResult result;
  int maxCoC = 0;
  for (int y = 0; width > 0 && y < height; ++y) {
    if (p.hasDeepInput) {
      if (deep && !scanDeepRow(p, *deep, y, width, maxCoC))
        break;
    } else if (source) {
      scanFlatRow(p, *source, y, width, maxCoC);
    }
  }

  // At a proxy scale the cap shrinks with the image.
  const int limit = kernelSizeLimit(p.max_kernelsize, p.uiScale);
  result.found = maxCoC;
  if (maxCoC > limit) {
    result.capped = true;
    maxCoC = limit;
  }
  result.maxCoC = maxCoC;
  result.kernelRadius = kernelRadiusFor(maxCoC, true);
  return result;
}

}  // namespace vorel
