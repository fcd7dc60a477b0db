// The splat core on hand-built banks and accumulators: which kernels a CoC blends and how much of
// each, where a kernel row lands and where it is cut, how channels move and brighten, and how
// slices merge. No node and no host image is involved.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include "DDImage/Box.h"
#include "DDImage/Row.h"
#include "engines/OpticalArtefacts.h"
#include "engines/Slices.h"
#include "engines/LaneSplat.h"
#include "engines/Splat.h"
#include "engines/SplatContext.h"
#include "lens/CircleOfConfusion.h"
#include "lens/KernelBank.h"

using namespace DD::Image;
using namespace vorel;

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();
constexpr int kColumns = 96;

// A bank of n entries of the usual sizes, each plane filled by value(entry, column, row). By
// default every element of entry e is e + 1: a sum tells which entries took part and at what weight.
std::vector<Kernel> makeBank(int n, const std::function<float(int, int, int)>& value = [](int e, int, int) {
  return static_cast<float>(e + 1);
}) {
  std::vector<Kernel> bank(static_cast<std::size_t>(n));
  for (int e = 0; e < n; ++e) {
    const int side = kernelBankEntrySize(e);
    bank[e].allocate(Mask_RGBA, side, side);
    for (Channel c : {Chan_Red, Chan_Green, Chan_Blue, Chan_Alpha})
      for (int i = 0; i < side * side; ++i)
        bank[e].planes[c][static_cast<std::size_t>(i)] = value(e, i % side, i / side);
  }
  return bank;
}

// One slice of accumulators over absolute columns [0, kColumns), one plane per RGBA channel.
struct Accumulators {
  SliceAccumulators slices{1, 0, kColumns, ChannelSet(Mask_RGBA)};
  float* colour[5] = {};
  float* weight[5] = {};
  explicit Accumulators(float fill = 0.0f) {
    for (int c = 1; c <= 4; ++c) {
      colour[c] = slices.colourPlanes[0][c];
      weight[c] = slices.weightPlanes[0][c];
      std::fill(colour[c], colour[c] + kColumns, fill);
      std::fill(weight[c], weight[c] + kColumns, fill);
    }
  }
};

struct Splat {
  NodeParameters params;
  std::vector<Kernel> bank = makeBank(9);
  ChannelSet channels{Mask_RGBA};
  float colours[kChannelSlots] = {0.0f, 1.0f, 1.0f, 1.0f, 1.0f};

  // The bloom is always taken at (48, 48), the centre of a 96 x 96 format.
  void run(Accumulators& acc, int rowLeft, int rowY, int rowRight, int sx, int sy, float coc,
           float sampleWeight = 1.0f, float bloomMatte = 1.0f, float chromaticMatte = 1.0f) {
    const SplatContext context(params, bank, Box(0, 0, 96, 96), channels);
    splatPixel(context, SourceSample{48, 48, sx, sy, coc, 0, sampleWeight, colours, bloomMatte, chromaticMatte},
               RowSpan{rowLeft, rowY, rowRight}, acc.slices);
  }
  void run(Accumulators& acc, float coc, float sampleWeight = 1.0f, float bloomMatte = 1.0f) {
    run(acc, 0, 40, kColumns, 40, 40, coc, sampleWeight, bloomMatte);
  }
};

}  // namespace

TEST(KernelPair, EntriesAndWeightsFollowTheCoC) {
  struct Case {
    float coc, sampleWeight;
    std::vector<std::pair<int, float>> passes;  // entry, weight: of a 9-entry bank, last side 7
  };
  const std::vector<Case> cases = {
      {1.0f, 1.0f, {{1, 1.0f}}}, {3.0f, 1.0f, {{3, 1.0f}}},  // odd: one entry, no second pass
      {2.0f, 1.0f, {{2, 0.5f}, {4, 0.5f}}}, {4.0f, 1.0f, {{4, 0.5f}, {6, 0.5f}}},
      {3.5f, 1.0f, {{3, 0.75f}, {5, 0.25f}}}, {4.5f, 1.0f, {{4, 0.25f}, {6, 0.75f}}},
      {0.5f, 1.0f, {{1, 1.25f}}},              // below 1: entry 1 at a weight above 1
      {7.5f, 1.0f, {{7, 0.75f}, {8, 0.25f}}},  // i = n - 2: the second pass capped to n - 1
      {8.5f, 1.0f, {{8, 0.25f}, {8, 0.75f}}},  // i = n - 1: both passes on the last entry
      // Beyond the bank, negative or not a number: the last entry alone.
      {9.0f, 1.0f, {{8, 1.0f}}}, {-3.0f, 1.0f, {{8, 1.0f}}}, {kNaN, 1.0f, {{8, 1.0f}}},
      {kInf, 1.0f, {{8, 1.0f}}}, {3e9f, 1.0f, {{8, 1.0f}}},
      // The sample weight scales both accumulators; at 0 or below nothing is spread.
      {3.5f, 0.5f, {{3, 0.375f}, {5, 0.125f}}}, {3.5f, 0.0f, {}}, {3.5f, -1.0f, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "CoC " << c.coc << " weight " << c.sampleWeight);
    Splat s;
    s.colours[Chan_Green] = 0.25f;
    s.params.vorelChannels = Mask_RGB;
    s.channels = ChannelSet(Mask_Red) + ChannelSet(Mask_Green) + ChannelSet(Mask_Alpha);
    Accumulators acc;
    s.run(acc, c.coc, c.sampleWeight);
    std::vector<float> q(kColumns, 0.0f);
    for (const auto& [entry, w] : c.passes) {
      const int h = s.bank[entry].half;
      for (int X = 40 - h; X <= 40 + h; ++X)
        q[static_cast<std::size_t>(X)] += w * static_cast<float>(entry + 1);
    }
    for (int X = 0; X < kColumns; ++X) {
      ASSERT_FLOAT_EQ(acc.weight[Chan_Red][X], q[X]) << "column " << X;
      ASSERT_FLOAT_EQ(acc.colour[Chan_Green][X], 0.25f * q[X]) << "column " << X;
      // Blue is not requested; alpha is, but is not part of the effect.
      ASSERT_EQ(acc.weight[Chan_Blue][X] + acc.weight[Chan_Alpha][X], 0.0f) << "column " << X;
    }
  }
  Splat single;
  single.bank = makeBank(1);
  Accumulators acc;
  single.run(acc, 0.5f);
  EXPECT_FLOAT_EQ(acc.weight[Chan_Red][40], 1.25f);  // entry 0, the only one, at w0
}

TEST(KernelRow, RowsMirroredColumnsNotAndCutAtTheSpanEdges) {
  Splat s;
  // Entry 5 (side 5, h 2) holds 10 * row + column + 1, every element distinct and non-zero.
  s.bank = makeBank(9, [](int, int col, int row) { return static_cast<float>(10 * row + col + 1); });
  const int rowLeft = 20, rowRight = 30, sy = 30;
  // Rows three beyond the kernel both ways, across the span's left edge (sx 17 is culled, 18 is
  // h from it and writes one column) and its right edge (from 32 on, h past it, nothing).
  for (int rowY = sy - 3; rowY <= sy + 3; ++rowY)
    for (int sx = 15; sx <= 34; ++sx) {
      Accumulators acc(-7.0f);  // anything but -7 outside the written columns is a stray write
      s.run(acc, rowLeft, rowY, rowRight, sx, sy, 5.0f);
      const int dy = sy - rowY;
      for (int X = 0; X < kColumns; ++X) {
        float expected = -7.0f;
        if (std::abs(dy) <= 2 && std::abs(X - sx) <= 2 && X >= rowLeft && X < rowRight)
          expected += static_cast<float>(10 * (dy + 2) + (X - sx + 2) + 1);
        ASSERT_EQ(acc.weight[Chan_Blue][X], expected) << "row " << rowY << " source " << sx << " column " << X;
      }
    }
}

TEST(AccumulateKernelRow, VectorisedLoopMatchesThePlainLoopBitForBit) {
  struct Plain {  // kept scalar: the comparison is against the unvectorised arithmetic
    __attribute__((noinline, optimize("no-tree-vectorize"))) static void run(
        float* P, float* Q, const float* K, float cw, float w, int count) {
      for (int j = 0; j < count; ++j) {
        P[j] += cw * K[j];
        Q[j] += w * K[j];
      }
    }
  };
  std::mt19937 random(7);
  std::uniform_real_distribution<float> value(-3.0f, 3.0f);
  std::vector<float> K(300), P0(300), Q0(300);
  for (std::size_t i = 0; i < K.size(); ++i)
    K[i] = value(random), P0[i] = value(random), Q0[i] = value(random);
  for (int offset = 0; offset < 4; ++offset)
    for (int count : {0, 1, 3, 4, 5, 7, 8, 15, 16, 17, 41, 255}) {
      std::vector<float> P1 = P0, Q1 = Q0, P2 = P0, Q2 = Q0;
      const float cw = value(random), w = value(random);
      const float* k = K.data() + 3 - offset % 3;
      accumulateKernelRow(P1.data() + offset, Q1.data() + offset, k, cw, w, count);
      Plain::run(P2.data() + offset, Q2.data() + offset, k, cw, w, count);
      ASSERT_EQ(std::memcmp(P1.data(), P2.data(), P1.size() * sizeof(float)), 0) << count;
      ASSERT_EQ(std::memcmp(Q1.data(), Q2.data(), Q1.size() * sizeof(float)), 0) << count;
    }
}

TEST(ChromaticShift, TruncatesTowardZeroAndTheSignPicksGreenOrBlue) {
  struct Case { float amount, redOffset; int position; Channel c; float spread; int expected; };
  const Case cases[] = {
      // Red (1 - 0.5) * 6 * 0.1 = +0.3, alpha -0.3: truncation is not symmetric about 0.
      {1.0f, 1.0f, 5, Chan_Red, 6.0f, 5}, {1.0f, 1.0f, 5, Chan_Alpha, 6.0f, 4},
      {1.0f, 1.0f, -5, Chan_Red, 6.0f, -4}, {1.0f, 1.0f, -5, Chan_Alpha, 6.0f, -5},
      {1.0f, 1.0f, 5, Chan_Alpha, 0.0f, 5}, {0.0f, 1.0f, 5, Chan_Red, kNaN, 5},
      // CoC 40 spreads 19: at kChrAbb -10 red +1.9, green -9.5, blue +9.5 (the splat test below
      // has +10); red stays when its base is half the amount.
      {-10.0f, 0.6f, 100, Chan_Red, 19.0f, 101}, {-10.0f, 0.6f, 100, Chan_Green, 19.0f, 90},
      {-10.0f, 0.6f, 100, Chan_Blue, 19.0f, 109}, {-10.0f, 0.5f, 100, Chan_Red, 19.0f, 100},
  };
  for (const Case& c : cases) {
    NodeParameters p;
    p.kChrAbb = c.amount;
    p.kChrAbbOff[0] = c.redOffset;
    EXPECT_EQ(chromaticShift(p, c.position, c.c, c.spread), c.expected)
        << c.amount << " " << c.position << " channel " << c.c << " spread " << c.spread;
  }
}

TEST(ChromaticShift, SplatMovesEachChannelAlongTheDiagonal) {
  Splat s;
  // Every entry a single centred 1: a channel lands exactly where its shifted position is.
  s.bank = makeBank(45, [](int e, int col, int row) {
    const int h = kernelBankEntrySize(e) / 2;
    return col == h && row == h ? 1.0f : 0.0f;
  });
  s.params.kChrAbb = 10.0f;
  // CoC 40, kChrAbb 10: +1.9, +9.5, -9.5 and -9.5, on the row as on the column.
  const std::pair<Channel, int> moved[] = {{Chan_Red, 41}, {Chan_Green, 49}, {Chan_Blue, 30}, {Chan_Alpha, 30}};
  for (const auto& [c, at] : moved) {
    Accumulators acc;
    s.run(acc, 0, at, kColumns, 40, 40, 40.0f);
    for (int X = 0; X < kColumns; ++X)
      ASSERT_EQ(acc.weight[c][X], X == at ? 1.0f : 0.0f) << c << " column " << X;
  }
  // A CoC * matte of 2 or less, or a matte of 0, leaves every channel in place.
  for (const auto& [coc, matte] : {std::pair<float, float>{40.0f, 0.0f}, {4.0f, 0.5f}, {2.0f, 1.0f}}) {
    Accumulators acc;
    s.run(acc, 0, 40, kColumns, 40, 40, coc, 1.0f, 1.0f, matte);
    for (int c = 1; c <= 4; ++c)
      EXPECT_EQ(acc.weight[c][40], 1.0f) << "channel " << c << " coc " << coc;
  }
  // A NaN matte moves nothing into the span and writes nothing out of bounds.
  Accumulators acc(-7.0f);
  s.run(acc, 0, 40, kColumns, 40, 40, 40.0f, 1.0f, 1.0f, kNaN);
  for (int c = 1; c <= 3; ++c)
    for (int X = 0; X < kColumns; ++X)
      ASSERT_EQ(acc.weight[c][X], -7.0f);
}

TEST(Bloom, RadialFactorGrowsFromTheFormatsCentreToTheEdges) {
  NodeParameters p;
  const Box format(0, 0, 200, 100);
  EXPECT_EQ(bloomRadialFactor(p, format, 0, 0), 0.0f);  // bloom 0: nothing
  p.bloom = 0.8f;
  EXPECT_EQ(bloomRadialFactor(p, format, 100, 50), 0.0f);
  EXPECT_NEAR(bloomRadialFactor(p, format, 150, 50), 0.8f * 0.25f, 0.001f);  // distance 0.5
  EXPECT_NEAR(bloomRadialFactor(p, format, 100, 75), 0.8f * 0.25f, 0.001f);
  EXPECT_FLOAT_EQ(bloomRadialFactor(p, format, 200, 50), 0.8f);  // mid-point of a side
  EXPECT_FLOAT_EQ(bloomRadialFactor(p, format, -500, 900), 0.8f);  // capped at 1
  // The centre is the format's own, wherever the format stands.
  EXPECT_EQ(bloomRadialFactor(p, Box(100, 0, 300, 100), 200, 50), 0.0f);
  EXPECT_EQ(bloomRadialFactor(p, Box(-137, 7, 63, 107), -37, 57), 0.0f);
  EXPECT_EQ(bloomRadialFactor(p, Box(-137, 7, 63, 107), 13, 57), bloomRadialFactor(p, format, 150, 50));
  EXPECT_FALSE(std::isnan(bloomRadialFactor(p, Box(0, 0, 0, 0), 3, 4)));
  p.bloomCurvature = 0.0f;  // even over the image, centre included
  EXPECT_FLOAT_EQ(bloomRadialFactor(p, format, 100, 50), 0.8f);
}

TEST(Bloom, RaisesTheColourOfRGBInTheDefocusAndReplacesItInLensBloom) {
  Splat s;
  s.params.bloom = 1.0f;
  s.params.bloomCurvature = 0.0f;  // strength 1 everywhere
  s.params.bloomThreshold = 0.5f;
  // Red 1.5 above the threshold, green below it, blue at it; alpha never blooms.
  s.colours[Chan_Red] = 2.0f, s.colours[Chan_Green] = 0.3f, s.colours[Chan_Blue] = 0.5f, s.colours[Chan_Alpha] = 2.0f;
  const float k = 0.5f * 3.0f + 0.5f * 5.0f;  // CoC 2, centre column: entries 2 and 4
  Accumulators defocused, bloom;
  s.run(defocused, 2.0f, 1.0f, 0.5f);  // bloom matte 0.5
  EXPECT_FLOAT_EQ(defocused.colour[Chan_Red][40], (2.0f + 0.75f) * k);  // both passes bloomed once
  EXPECT_FLOAT_EQ(defocused.colour[Chan_Green][40], 0.3f * k);
  EXPECT_FLOAT_EQ(defocused.colour[Chan_Blue][40], 0.5f * k);
  EXPECT_FLOAT_EQ(defocused.colour[Chan_Alpha][40], 2.0f * k);
  s.params.outputType = OutputLensBloom;
  s.run(bloom, 2.0f, 1.0f, 0.5f);
  EXPECT_FLOAT_EQ(bloom.colour[Chan_Red][40], 0.75f * k);
  EXPECT_EQ(bloom.colour[Chan_Green][40], 0.0f);     // adds no colour ...
  EXPECT_FLOAT_EQ(bloom.weight[Chan_Green][40], k);  // ... but its full weight: it darkens
  EXPECT_FLOAT_EQ(bloom.colour[Chan_Alpha][40], 2.0f * k);
  // The strength is taken at the position the engine gives (the centre), not at the source's.
  s.params.bloomCurvature = 2.0f;
  Accumulators centre;
  s.run(centre, 1.0f);
  EXPECT_EQ(centre.colour[Chan_Red][40], 0.0f);
}

TEST(Slices, DepthBoundariesStartTheirSlices) {
  const std::vector<float> two = {0.0f, 100.0f}, four = {0.0f, 10.0f, 20.0f, 30.0f};
  EXPECT_EQ(sliceForDepth(1, {}, 5.0f), 0u);
  EXPECT_EQ(sliceForDepth(1, {0.0f, 10.0f}, 50.0f), 0u);  // one slice reads no boundary
  EXPECT_EQ(sliceForDepth(2, two, 99.99f), 0u);
  EXPECT_EQ(sliceForDepth(2, two, 100.0f), 1u);
  EXPECT_EQ(sliceForDepth(2, two, 3.4028235e38f), 1u);
  EXPECT_EQ(sliceForDepth(2, two, -1.0f), 0u);
  EXPECT_EQ(sliceForDepth(4, four, 10.0f), 1u);
  EXPECT_EQ(sliceForDepth(4, four, 29.0f), 2u);
  EXPECT_EQ(sliceForDepth(4, four, 30.0f), 3u);
  EXPECT_EQ(SliceAccumulators(0, 0, 4, Mask_RGB).colourPlanes.size(), 1u);  // every lookup has a table
}

TEST(Slices, NearSlicesTakeTheCoverageFirstInRequestedEffectChannelsOnly) {
  struct Column { float nearColour, nearWeight, farColour, farWeight, merged; };
  const Column columns[] = {
      {0.3f, 0.6f, 0.8f, 0.8f, 0.7f},  // 0.3 + 0.8 * (0.4 / 0.8), over coverage 1
      {0.3f, 0.6f, 0.0f, 0.0f, 0.5f},  // near slice alone
      {0.9f, 1.0f, 0.5f, 0.5f, 0.9f},  // a full near slice leaves nothing to the far one
      {0.0f, 0.0f, 0.2f, 0.4f, 0.5f},  // far slice alone, weight under 1, brought to level
      {3.0f, 2.0f, 0.0f, 0.0f, 1.5f},  // one slice with weight above 1: the plain quotient
      {0.0f, 0.0f, 0.0f, 0.0f, 0.0f},  // nothing reached this pixel
  };
  const int x = 5;
  SliceAccumulators slices(2, x, x + 6, Mask_RGBA);
  Row out(x, x + 6);
  for (int i = 0; i < 6; ++i) {
    const Column& c = columns[i];
    slices.colourPlanes[0][Chan_Red][x + i] = c.nearColour, slices.weightPlanes[0][Chan_Red][x + i] = c.nearWeight;
    slices.colourPlanes[1][Chan_Red][x + i] = c.farColour, slices.weightPlanes[1][Chan_Red][x + i] = c.farWeight;
    for (Channel z : {Chan_Red, Chan_Green, Chan_Blue, Chan_Alpha})
      out.writable(z)[x + i] = -1.0f;
  }
  mergeSlices(slices, out, x, x + 6, ChannelSet(Mask_Red) + ChannelSet(Mask_Green) + ChannelSet(Mask_Alpha), Mask_RGB);
  for (int i = 0; i < 6; ++i) {
    EXPECT_FLOAT_EQ(out[Chan_Red][x + i], columns[i].merged) << i;
    EXPECT_EQ(out[Chan_Green][x + i], 0.0f) << i;    // cleared, though nothing reached it
    EXPECT_EQ(out[Chan_Blue][x + i], -1.0f) << i;    // not requested
    EXPECT_EQ(out[Chan_Alpha][x + i], -1.0f) << i;   // requested, but not part of the effect
  }
  Row empty(3, 3);
  mergeSlices(slices, empty, 3, 3, Mask_RGBA, Mask_RGBA);  // no columns, no crash
}

namespace {

// One row of one slice of a lane band with a colour lane and the weight lane, merged.
std::vector<float> mergedLaneRow(const std::function<void(const LaneBand&)>& add, int width) {
  LaneBand band;
  band.reset(0, 1, 0, width, 1, 1);
  *band.used(0, 0) = 1;
  add(band);
  std::vector<float> out(static_cast<std::size_t>(width), -1.0f);
  band.merge([&](int, std::size_t) { return out.data(); });
  return out;
}

}  // namespace

// A run's two ends cancel across the whole row: a large value that starts and stops must leave
// no residue under the small one that outlasts it (float difference rows would keep only a tenth
// of its last digits), and the merge leaves the band zeroed for the next one.
TEST(LaneBand, RunsCancelWithoutDriftAndTheMergeLeavesTheBandClear) {
  constexpr int kWidth = 3000;
  LaneBand band;
  auto runs = [](const LaneBand& b) {
    splatcore::addLaneRun(b.differences(0, 0), LaneFloats{8192.0f, 1.0f}, 1.0f, 0, 1500);
    splatcore::addLaneRun(b.differences(0, 0), LaneFloats{0.001f, 0.5f}, 1.0f, 1000, kWidth);
    splatcore::addLaneValues(b.sums(0, 0), LaneFloats{3.0f, 0.25f}, std::vector<float>(kWidth, 1.0f).data(), 2990,
                             kWidth);
  };
  const std::vector<float> out = mergedLaneRow(runs, kWidth);
  EXPECT_EQ(out[2000], 0.001f / 0.5f);
  EXPECT_EQ(out[2995], static_cast<float>(3.0 + static_cast<double>(0.001f)) / 0.75f);
  EXPECT_EQ(out[500], 8192.0f);

  band.reset(0, 1, 0, kWidth, 1, 1);
  *band.used(0, 0) = 1;
  runs(band);
  std::vector<float> first(kWidth), second(kWidth, -1.0f);
  band.merge([&](int, std::size_t) { return first.data(); });
  band.reset(0, 1, 0, kWidth, 1, 1);
  *band.used(0, 0) = 1;
  band.merge([&](int, std::size_t) { return second.data(); });
  EXPECT_EQ(second, std::vector<float>(kWidth, 0.0f));
}
