// Depth to circle of confusion, slice boundaries: the numbers every engine and preview inherit.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "lens/CircleOfConfusion.h"

using namespace vorel;

namespace {

NodeParameters derived(NodeParameters p = {}, int w = 2048, int h = 1556) {
  deriveLensValues(p, w, h, 1.0f);
  return p;
}

float coc(const NodeParameters& p, float depth, DepthSide* sideOut = nullptr, int maxCoC = 256) {
  DepthSide side;
  const float c = depthToCoC(p, maxCoC, depth, side);
  if (sideOut)
    *sideOut = side;
  return c;
}

// A flat depth sample through the road every engine and preview takes.
float flatDepth(const NodeParameters& p, float sample) {
  return lensSample(p, {}, 256, sample, DepthSource::FlatChannel).depth;
}

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

}  // namespace

TEST(DerivedLensValues, DefaultNodeOn2KFormat) {
  const NodeParameters p = derived();
  EXPECT_NEAR(p.pixelsPerMillimetre, 95.15f, 0.01f);
  EXPECT_FLOAT_EQ(p.inverseHalfRegion, 2.0f);
  EXPECT_FLOAT_EQ(p.regionNear, 99.5f);
  EXPECT_FLOAT_EQ(p.regionFar, 100.5f);
  // focalPlane 100 counts in centimetres: the focus distance is 1000 mm.
  EXPECT_NEAR(p.lensConstant, 0.2116f, 1e-4f);
  EXPECT_FLOAT_EQ(p.uiScale, 1.0f);
}

TEST(DerivedLensValues, PixelsPerMillimetreOfFormatsWhoseAreaPasses32Bits) {
  // 100000 x 100000 pixels on the default 22 x 16 mm film back: 1e5 / sqrt(352) pixels per mm.
  EXPECT_NEAR(derived({}, 100000, 100000).pixelsPerMillimetre, 5330.0f, 1.0f);
  EXPECT_NEAR(derived({}, 65536, 65536).pixelsPerMillimetre, 3493.1f, 0.5f);
  // Four times the area, twice the scale.
  EXPECT_FLOAT_EQ(derived({}, 200000, 100000).pixelsPerMillimetre / derived({}, 100000, 50000).pixelsPerMillimetre,
                  2.0f);
}

TEST(ArtisticModel, RampAcrossTheRegionAndSides) {
  NodeParameters p;
  p.multiplier = 8.0f;
  p.frontmultiplier = 2.0f;
  p.backmultiplier = 3.0f;
  p = derived(p);

  DepthSide side;
  EXPECT_EQ(coc(p, 100.0f, &side), 0.0f);
  EXPECT_EQ(side, DepthSideBack);
  EXPECT_FLOAT_EQ(coc(p, 100.25f, &side), 0.5f * 8.0f * 3.0f);
  EXPECT_EQ(side, DepthSideBack);
  EXPECT_FLOAT_EQ(coc(p, 99.75f, &side), 0.5f * 8.0f * 2.0f);
  EXPECT_EQ(side, DepthSideFront);

  // Beyond the region the flat paths clamp, so the CoC stays at the edge's value.
  EXPECT_FLOAT_EQ(coc(p, flatDepth(p, 5000.0f)), 8.0f * 3.0f);
  EXPECT_FLOAT_EQ(coc(p, flatDepth(p, -5000.0f)), 8.0f * 2.0f);

  p.focusRegionFalloff = 1;
  EXPECT_FLOAT_EQ(coc(p, 100.25f), 0.25f * 8.0f * 3.0f);
}

TEST(ArtisticModel, UiScaleMultipliesEverythingIncludingTheNearInfiniteRule) {
  NodeParameters p = derived();
  p.uiScale = 0.5f;
  EXPECT_FLOAT_EQ(coc(p, 101.0f), 0.5f);
  // Unclamped far limit (the deep scan's road): maxCoC, scaled.
  EXPECT_FLOAT_EQ(coc(p, kFarLimit, nullptr, 40), 20.0f);
}

TEST(ArtisticModel, ZeroSizeRegionIsInFocus) {
  NodeParameters p;
  p.focusRegionSize = 0.0f;
  p = derived(p);
  ASSERT_TRUE(std::isinf(p.inverseHalfRegion));
  // Every flat depth is clamped onto the focal plane: 0 * infinity, which counts as in focus.
  EXPECT_EQ(coc(p, flatDepth(p, 10.0f)), 0.0f);
  EXPECT_EQ(coc(p, flatDepth(p, 1000.0f)), 0.0f);
}

TEST(FlatConditioning, NonFiniteAndInverseDepth) {
  NodeParameters p = derived();
  DepthSide side;
  // Artistic: the far limit clamps to regionFar, side back.
  EXPECT_FLOAT_EQ(coc(p, flatDepth(p, kInf), &side), 1.0f);
  EXPECT_EQ(side, DepthSideBack);
  EXPECT_FLOAT_EQ(coc(p, flatDepth(p, kNaN), &side), 1.0f);
  EXPECT_EQ(side, DepthSideBack);

  p.depthStyle = 1;
  EXPECT_EQ(conditionFlatDepth(p, 0.0f), kFarLimit);
  EXPECT_EQ(conditionFlatDepth(p, -2.0f), kFarLimit);
  EXPECT_FLOAT_EQ(conditionFlatDepth(p, 4.0f), 0.25f);
  // The non-finite test comes first: infinity becomes the far limit, then its inverse.
  EXPECT_FLOAT_EQ(conditionFlatDepth(p, kInf), 1.0f / kFarLimit);
}

TEST(RealLensModel, ThinLensNumbers) {
  NodeParameters p;
  p.realWorldLens = true;
  p = derived(p);
  EXPECT_NEAR(coc(p, 200.0f), 10.07f, 0.01f);
  EXPECT_NEAR(coc(p, 50.0f), 20.13f, 0.01f);

  DepthSide side;
  EXPECT_EQ(coc(p, 100.0f, &side), 0.0f);
  EXPECT_EQ(side, DepthSideBack);
  // Depth 0 divides by zero in the near form: not finite, so 0.
  EXPECT_EQ(coc(p, 0.0f, &side), 0.0f);
  EXPECT_EQ(side, DepthSideFront);
  EXPECT_LT(coc(p, -10.0f, &side), 0.0f);
  EXPECT_EQ(side, DepthSideFront);
}

TEST(RealLensModel, FarLimitTakesMaxCoCWithoutSideFactor) {
  NodeParameters p;
  p.realWorldLens = true;
  p.backmultiplier = 7.0f;
  p = derived(p);
  EXPECT_FLOAT_EQ(coc(p, flatDepth(p, kInf), nullptr, 64), 64.0f);
  EXPECT_FLOAT_EQ(coc(p, flatDepth(p, kNaN), nullptr, 64), 64.0f);
  // Only the far limit itself meets the rule, never an infinity passed straight in.
  EXPECT_NE(coc(p, kInf, nullptr, 64), 64.0f);
}

TEST(RealLensModel, FocusAtTheFocalLengthGivesNoBlur) {
  NodeParameters p;
  p.realWorldLens = true;
  p.worldScale = ScaleMM;
  p.focalPlane = 35.0f;
  p = derived(p);
  EXPECT_TRUE(std::isinf(p.lensConstant));
  EXPECT_EQ(coc(p, 200.0f), 0.0f);
  EXPECT_EQ(coc(p, 10.0f), 0.0f);
  EXPECT_EQ(coc(p, kFarLimit, nullptr, 12), 12.0f);
}

TEST(RegionClamp, CrossedLimitsFavourTheFarOne) {
  NodeParameters p;
  p.regionNear = 10.0f;
  p.regionFar = 5.0f;
  EXPECT_EQ(clampToRegion(p, 0.0f), 5.0f);
  EXPECT_EQ(clampToRegion(p, 20.0f), 5.0f);
}

TEST(SliceBoundaries, CountsRangesAndOverride) {
  NodeParameters p = derived();
  std::vector<float> b = computeSliceBoundaries(p);
  ASSERT_EQ(b.size(), 10u);
  EXPECT_EQ(b[0], 0.0f);
  for (int i = 1; i < 10; ++i)
    EXPECT_NEAR(b[i], 99.5f + 0.1f * i, 1e-4f) << i;

  p.correctiveSlices = 1;
  EXPECT_TRUE(computeSliceBoundaries(p).empty());

  p.correctiveSlices = 2;
  p.overrideNearAndFarForSlices = true;
  p.depthSlicesNearAndFar[0] = 50.0f;
  p.depthSlicesNearAndFar[1] = 10.0f;
  EXPECT_EQ(computeSliceBoundaries(p), (std::vector<float>{0.0f, 100.0f}));

  p.correctiveSlices = 3;
  b = computeSliceBoundaries(p);
  ASSERT_EQ(b.size(), 3u);
  EXPECT_EQ(b[0], 0.0f);
  EXPECT_NEAR(b[1], 23.333f, 1e-3f);
  EXPECT_NEAR(b[2], 36.667f, 1e-3f);
}

TEST(SliceBoundaries, NegativeNearStartsAtZero) {
  NodeParameters p;
  p.focalPlane = 0.25f;
  p.correctiveSlices = 4;
  p = derived(p);
  EXPECT_FLOAT_EQ(p.regionNear, -0.25f);
  const std::vector<float> b = computeSliceBoundaries(p);
  ASSERT_EQ(b.size(), 4u);
  EXPECT_FLOAT_EQ(b[1], 0.1875f);  // (0.75 - 0) / 4
}

TEST(DepthSources, EachSourceTakesOnlyItsOwnSteps) {
  NodeParameters p;
  p.multiplier = 4.0f;
  p = derived(p);
  const std::vector<float> slices = computeSliceBoundaries(p);
  // A flat NaN is the far limit, clamped to the region: full blur behind, in the last slice.
  const LensSample flat = lensSample(p, slices, 40, kNaN, DepthSource::FlatChannel);
  EXPECT_EQ(flat.depth, p.regionFar);
  EXPECT_FLOAT_EQ(flat.coc, 4.0f);
  EXPECT_EQ(flat.side, DepthSideBack);
  EXPECT_EQ(flat.slice, 9u);
  // A deep piece is clamped but never conditioned: the far limit lands on regionFar as well.
  EXPECT_EQ(lensSample(p, slices, 40, kFarLimit, DepthSource::DeepPiece).depth, p.regionFar);
  // The scan's nearest deep sample is taken as it stands, so the near-infinite rule fires.
  const LensSample nearest = lensSample(p, slices, 40, kFarLimit, DepthSource::DeepNearest);
  EXPECT_EQ(nearest.depth, kFarLimit);
  EXPECT_EQ(nearest.coc, 40.0f);
  // A negative depth goes to the first slice.
  EXPECT_EQ(lensSample(p, slices, 40, -3.0f, DepthSource::DeepNearest).slice, 0u);
}

TEST(KernelRadius, BeforeAndAfterTheScan) {
  EXPECT_EQ(kernelRadiusFor(256, false), 128);
  EXPECT_EQ(kernelRadiusFor(255, false), 127);
  EXPECT_EQ(kernelRadiusFor(257, false), 128);
  EXPECT_EQ(kernelRadiusFor(256, true), 130);
  EXPECT_EQ(kernelRadiusFor(255, true), 129);
  EXPECT_EQ(kernelRadiusFor(0, true), 2);
  EXPECT_EQ(kernelRadiusFor(7, true), 5);
}
