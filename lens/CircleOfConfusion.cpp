#include "lens/CircleOfConfusion.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace vorel {

namespace {

// "Not finite" is decided on the bits, so the test cannot be folded away by the optimiser.
bool allExponentBits(float v) {
  std::uint32_t bits;
  std::memcpy(&bits, &v, sizeof bits);
  return (bits & 0x7f800000u) == 0x7f800000u;
}

}  // namespace

float worldScaleFactor(int worldScale) {
  switch (worldScale) {
    case ScaleMM: return 1.0f;
    case ScaleCM: return 10.0f;
    case ScaleM: return 1000.0f;
    case ScaleInches: return 25.4f;
    case ScaleFeet: return 304.8f;
    default: return 1.0f;
  }
}

void deriveLensValues(NodeParameters& p, int fullWidth, int fullHeight, float uiScale) {
  // The area of a large format does not fit 32 bits (100000 x 100000 already wraps); every area
  // that does is the same integer in 64.
  const long long area = static_cast<long long>(fullWidth) * static_cast<long long>(fullHeight);
  p.pixelsPerMillimetre = sqrtf(static_cast<float>(area)) / sqrtf(p.apertureHeight * p.apertureWidth);

  const float halfRegion = p.focusRegionSize * 0.5f;
  p.inverseHalfRegion = 1.0f / halfRegion;
  p.regionNear = p.focalPlane - halfRegion;
  p.regionFar = p.focalPlane + halfRegion;

  p.uiScale = uiScale;

  const float focusMM = p.focalPlane * worldScaleFactor(p.worldScale) * p.worldScaleMultiplier;
  p.lensConstant = p.focalLength / (focusMM - p.focalLength) * p.focalLength / p.fStop;
}

std::vector<float> computeSliceBoundaries(const NodeParameters& p) {
  std::vector<float> boundaries;
  const int n = p.correctiveSlices;
  if (n < 2)
    return boundaries;
  if (n == 2)
    return {0.0f, p.focalPlane};

  float nearDepth = p.regionNear >= 0.0f ? p.regionNear : 0.0f;
  float farDepth = p.regionFar;
  if (p.overrideNearAndFarForSlices) {
    nearDepth = std::min(p.depthSlicesNearAndFar[0], p.depthSlicesNearAndFar[1]);
    farDepth = std::max(p.depthSlicesNearAndFar[0], p.depthSlicesNearAndFar[1]);
  }
  const float step = (farDepth - nearDepth) / static_cast<float>(n);
  boundaries.reserve(n);
  boundaries.push_back(0.0f);
  for (int i = 1; i < n; ++i)
    boundaries.push_back(nearDepth + static_cast<float>(i) * step);
  return boundaries;
}

int kernelSizeLimit(int maxKernelSize, float proxyScale) {
  if (proxyScale == 1.0f)
    return maxKernelSize;
  const float scaled = ceilf(static_cast<float>(maxKernelSize) * proxyScale);
  return scaled >= 1.0f ? static_cast<int>(std::min(scaled, 2147483520.0f)) : 1;
}

float conditionFlatDepth(const NodeParameters& p, float value) {
  if (allExponentBits(value))
    value = kFarLimit;
  if (p.depthStyle == 1)
    value = value > 0.0f ? 1.0f / value : kFarLimit;
  return value;
}

float clampToRegion(const NodeParameters& p, float depth) {
  // std::max/std::min semantics: a NaN depth comes out as regionNear.
  const float low = p.regionNear < depth ? depth : p.regionNear;
  return low < p.regionFar ? low : p.regionFar;
}

float realLensCoC(const NodeParameters& p, float depth) {
  const float unit = p.worldScaleMultiplier * worldScaleFactor(p.worldScale);
  const float S = unit * p.focalPlane;
  const float D = unit * depth;
  const float delta = fabsf(D - S);
  const float ratio = S > D ? delta / (S - delta) : delta / (delta + S);
  float coc = ratio * p.lensConstant * p.pixelsPerMillimetre;
  if (allExponentBits(coc))
    coc = 0.0f;
  return coc;
}

float depthToCoC(const NodeParameters& p, int maxCoC, float depth, DepthSide& side) {
  if (p.focalPlane > depth)
    side = DepthSideFront;
  else if (depth >= p.focalPlane)
    side = DepthSideBack;
  else
    side = DepthSideNone;

  float coc;
  if (!p.realWorldLens) {
    const float distance = fabsf(depth - p.focalPlane);
    // A zero-size region makes inverseHalfRegion infinite; on the focal plane that is 0 * inf,
    // and such a pixel is in focus.
    float t = distance == 0.0f ? 0.0f : distance * p.inverseHalfRegion;
    t = t < 1.0f ? t : 1.0f;
    if (p.focusRegionFalloff == 1)
      t = t * t;
    coc = t * p.multiplier;
  } else {
    coc = realLensCoC(p, depth);
  }

  if (side == DepthSideFront)
    coc = coc * p.frontmultiplier;
  else if (side == DepthSideBack)
    coc = coc * p.backmultiplier;

  if (fabsf(depth - kFarLimit) < 1e-5f)
    coc = static_cast<float>(maxCoC);

  return coc * p.uiScale;
}

}  // namespace vorel
