#pragma once
// From depth to circle of confusion: one formula for every user. What differs between users is
// only what is done to the sample before the formula, and lensSample is the one place that
// decides it from where the sample came from.

#include <algorithm>
#include <vector>

#include "lens/NodeParameters.h"

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

// The ascending depths at which the corrective slices start.
std::vector<float> computeSliceBoundaries(const NodeParameters& p);

// The corrective slice of a depth: the last boundary not greater than it. Depths before the first
// boundary (negative ones) go to slice 0; with one slice the boundaries are not read.
inline unsigned sliceForDepth(int correctiveSlices, const std::vector<float>& sliceBoundaries, float depth) {
  if (correctiveSlices == 1)
    return 0;
  const auto above = std::upper_bound(sliceBoundaries.begin(), sliceBoundaries.end(), depth);
  const std::ptrdiff_t position = above - sliceBoundaries.begin();
  // Nothing lies before the first boundary but negative depths: they join the nearest slice.
  if (position <= 0)
    return 0;
  const unsigned slice = static_cast<unsigned>(position - 1);
  const unsigned last = static_cast<unsigned>(std::max(1, correctiveSlices) - 1);
  return std::min(slice, last);
}

// Where a depth sample comes from, which decides what is done to it before the formula.
enum class DepthSource : int {
  FlatChannel,  // a flat depth channel: conditioned, then clamped to the region (artistic model)
  DeepPiece,    // a deep piece, or the far limit behind the pieces: clamped only
  DeepNearest,  // the scan's nearest deep sample: taken as it stands
};

// A source sample as the lens sees it. `depth` is the depth after conditioning and clamp, which
// also chooses the side and the slice.
struct LensSample {
  float depth;
  float coc;  // output pixels, uiScale included; no matte, no floor
  DepthSide side;
  unsigned slice;
};

// The one road from a raw depth sample to its blur. Inline, so that a caller that never reads the
// slice does not pay for looking it up.
inline LensSample lensSample(const NodeParameters& p, const std::vector<float>& sliceBoundaries, int maxCoC,
                             float raw, DepthSource source) {
  LensSample s;
  s.depth = source == DepthSource::FlatChannel ? conditionFlatDepth(p, raw) : raw;
  if (source != DepthSource::DeepNearest && !p.realWorldLens)
    s.depth = clampToRegion(p, s.depth);
  s.coc = depthToCoC(p, maxCoC, s.depth, s.side);
  s.slice = sliceForDepth(p.correctiveSlices, sliceBoundaries, s.depth);
  return s;
}

// The number of rows a kernel can reach from its source pixel for the largest CoC `maxCoC`.
// Before the scan only the CoC's own entry is allowed for; after it, `blendRoom` adds the entry
// two sizes above, which the splat blends in.
inline int kernelRadiusFor(int maxCoC, bool blendRoom) {
  const long long m = maxCoC;
  return static_cast<int>((m - m % 2 + (blendRoom ? 4 : 1)) / 2);
}

}  // namespace vorel
