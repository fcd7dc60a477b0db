#include "lens/Scan.h"

#include <cmath>
#include <cstdint>

#include "DDImage/Box.h"
#include "DDImage/Channel.h"
#include "DDImage/ChannelSet.h"
#include "DDImage/DeepOp.h"
#include "DDImage/DeepPixel.h"
#include "DDImage/DeepPlane.h"
#include "DDImage/Row.h"
#include "lens/CircleOfConfusion.h"
#include "node/tzVorel.h"

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

void scanFlatRow(tzVorel& node, Iop& source, int y, int width) {
  const NodeParameters& p = node.params;
  Row row(0, width);
  ChannelSet depthOnly;
  depthOnly += p.depthChannel;
  row.get(source, y, 0, width, depthOnly);
  const float* depth = row[p.depthChannel];
  if (!depth)
    return;
  for (int x = 0; x < width; ++x) {
    float d = conditionFlatDepth(p, depth[x]);
    if (!p.realWorldLens)
      d = clampToRegion(p, d);
    DepthSide side;
    const int c = roundedUpCoC(depthToCoC(p, node.maxCoC, d, side));
    if (c > node.maxCoC)
      node.maxCoC = c;
  }
}

// False when the deep input reports the render aborted.
bool scanDeepRow(tzVorel& node, int y, int width) {
  DeepOp* deep = node.deepInput();
  if (!deep)
    return true;
  ChannelSet depths;
  depths += Chan_DeepFront;
  depths += Chan_DeepBack;
  DeepPlane plane;
  if (!deep->deepEngine(Box(0, y, width, y + 1), depths, plane))
    return false;
  const NodeParameters& p = node.params;
  for (int x = 0; x < width; ++x) {
    const DeepPixel pixel = plane.getPixel(y, x);
    const std::size_t count = pixel.getSampleCount();
    if (count == 0)
      continue;
    // The highest ordered index is the nearest sample; only it decides the pixel's reach.
    const float d = pixel.getOrderedSample(count - 1, Chan_DeepBack);
    DepthSide side;
    const int c = roundedUpCoC(depthToCoC(p, node.maxCoC, d, side));
    if (c > node.maxCoC)
      node.maxCoC = c;
  }
  return true;
}

}  // namespace

void scanMaxCoC(tzVorel& node) {
  const Box format = node.formatBox();
  const int width = format.r() - format.x();
  const int height = format.t() - format.y();
  const NodeParameters& p = node.params;

  node.maxCoC = 0;
  Iop* source = node.input(0);
  for (int y = 0; width > 0 && y < height; ++y) {
    if (p.hasDeepInput) {
      if (!scanDeepRow(node, y, width))
        break;
    } else if (source)
      scanFlatRow(node, *source, y, width);
  }

  if (node.maxCoC > kernelSizeLimit(p.max_kernelsize, p.uiScale)) {
    node.warning("Max kernel size is less than the maximum coc in the result, you may want to consider "
                 "increasing the max kernel size above %d.",
                 node.maxCoC);
    node.maxCoC = kernelSizeLimit(p.max_kernelsize, p.uiScale);
  }

  // Room for the entry two sizes above the largest CoC, which the splat blends in.
  const std::int64_t m = node.maxCoC;
  node.kernelRadius = static_cast<int>((m - m % 2 + 4) / 2);
}

}  // namespace vorel
