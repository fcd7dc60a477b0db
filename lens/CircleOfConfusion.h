#pragma once
// From depth to circle of confusion: one formula for every user, with the conditioning and the
// clamp kept separate so each caller applies exactly the steps it needs.

#include "node/NodeParameters.h"

namespace vorel {

enum DepthSide : int { DepthSideNone = 0, DepthSideFront = 1, DepthSideBack = 2 };

// The largest finite float: "infinitely far".
constexpr float kFarLimit = 3.4028235e38f;

// Millimetres per world unit; unknown values count as 1.
float worldScaleFactor(int worldScale);

// pixelsPerMillimetre, inverseHalfRegion, regionNear/Far, uiScale and lensConstant.
void deriveLensValues(NodeParameters& p, int fullWidth, int fullHeight, float uiScale);

// max_kernelsize at a proxy scale, at least 1: the cap on the CoC and the master kernel's size
// shrink with the image.
int kernelSizeLimit(int maxKernelSize, float proxyScale);

// Non-finite samples become the far limit; the "1/z" style is inverted (0 or less = far limit).
float conditionFlatDepth(const NodeParameters& p, float value);

// Artistic model only: keeps the depth within [regionNear, regionFar]; regionFar wins if they cross.
float clampToRegion(const NodeParameters& p, float depth);

// The thin-lens diameter in pixels, without side factor or uiScale; non-finite results are 0.
float realLensCoC(const NodeParameters& p, float depth);

// CoC in output pixels (uiScale included) and the side of the focal plane. `maxCoC` is the value
// the near-infinite rule substitutes for the far limit.
float depthToCoC(const NodeParameters& p, int maxCoC, float depth, DepthSide& side);

// The depth of what no deep sample covers: the far limit, clamped to the region in the artistic model.
inline float farLimitDepth(const NodeParameters& p) {
  return p.realWorldLens ? kFarLimit : clampToRegion(p, kFarLimit);
}

}  // namespace vorel
