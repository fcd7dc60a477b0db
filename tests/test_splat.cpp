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
#include "engines/Splat.h"
#include "engines/SplatContext.h"
#include "lens/KernelBank.h"

using namespace DD::Image;
using namespace vorel;

namespace {

using KernelValue = std::function<float(int entry, int column, int row)>;

// A bank of n entries of the usual sizes, each plane filled by value(entry, column, row) with
// row 0 the first row of the plane.
std::vector<Kernel> makeBank(int n, const KernelValue& value, const ChannelSet& channels = Mask_RGBA) {
  std::vector<Kernel> bank(static_cast<std::size_t>(n));
  for (int e = 0; e < n; ++e) {
    const int side = kernelBankEntrySize(e);
    bank[e].allocate(channels, side, side);
    foreach (c, channels) {
      for (int row = 0; row < side; ++row)
        for (int col = 0; col < side; ++col)
          bank[e].planes[c][static_cast<std::size_t>(row * side + col)] = value(e, col, row);
    }
  }
  return bank;
}

// Every element of entry e is e + 1: a sum tells which entries took part and at what weight.
std::vector<Kernel> numberedBank(int n) {
  return makeBank(n, [](int e, int, int) { return static_cast<float>(e + 1); });
}

// One slice of accumulators over absolute columns [0, kColumns), one plane per RGBA channel.
struct Accumulators {
  static constexpr int kColumns = 96;
  std::vector<float> colour[5], weight[5];
  ChannelPlanes colourPlanes{}, weightPlanes{};
  explicit Accumulators(float fill = 0.0f) {
    for (int c = 1; c <= 4; ++c) {
      colour[c].assign(kColumns, fill);
      weight[c].assign(kColumns, fill);
      colourPlanes[c] = colour[c].data();
      weightPlanes[c] = weight[c].data();
    }
  }
};

struct Splat {
  NodeParameters params;
  std::vector<Kernel> bank;
  Box format{0, 0, 96, 96};
  ChannelSet channels{Mask_RGBA};
  float colours[kChannelSlots] = {};

  Splat() {
    colours[Chan_Red] = 1.0f;
    colours[Chan_Green] = 1.0f;
    colours[Chan_Blue] = 1.0f;
    colours[Chan_Alpha] = 1.0f;
  }

  void run(Accumulators& acc, int rowLeft, int rowY, int rowRight, int sx, int sy, float coc,
           float sampleWeight = 1.0f, float bloomMatte = 1.0f, float chromaticMatte = 1.0f,
           int pixelX = 48, int pixelY = 48) {
    const SplatContext context(params, bank, format, channels);
    splatPixel(context, pixelX, pixelY, rowLeft, rowY, rowRight, sx, sy, coc, 0, sampleWeight,
               colours, &acc.colourPlanes, &acc.weightPlanes, bloomMatte, chromaticMatte);
  }
};

// The weight row that spreading at sx with these (entry, weight) passes must give on row sy,
// from a numbered bank.
std::vector<float> expectedWeights(const std::vector<std::pair<int, float>>& passes, int sx) {
  std::vector<float> q(Accumulators::kColumns, 0.0f);
  for (const auto& [entry, w] : passes) {
    const int h = (kernelBankEntrySize(entry) - 1) / 2;
    for (int X = sx - h; X <= sx + h; ++X)
      q[static_cast<std::size_t>(X)] += w * static_cast<float>(entry + 1);
  }
  return q;
}

const float kNaN = std::numeric_limits<float>::quiet_NaN();

}  // namespace

// ---------------------------------------------------------------------------------------------
// From a CoC to two bank entries and their weights.

TEST(KernelPair, EntriesAndWeightsFollowTheCoC) {
  struct Case {
    float coc;
    std::vector<std::pair<int, float>> passes;
  };
  const int n = 9;  // entries 0..8, the last of side 7
  const std::vector<Case> cases = {
      {1.0f, {{1, 1.0f}}},                 // odd: one entry, second pass skipped
      {2.0f, {{2, 0.5f}, {4, 0.5f}}},      // even: two entries at equal weight
      {3.0f, {{3, 1.0f}}},
      {3.5f, {{3, 0.75f}, {5, 0.25f}}},
      {4.0f, {{4, 0.5f}, {6, 0.5f}}},
      {4.5f, {{4, 0.25f}, {6, 0.75f}}},
      {0.5f, {{1, 1.25f}}},                // below 1: entry 1 at a weight above 1
      {7.5f, {{7, 0.75f}, {8, 0.25f}}},    // i = n - 2: the second pass is capped to n - 1
      {8.5f, {{8, 0.25f}, {8, 0.75f}}},    // i = n - 1: both passes on the last entry
      {9.0f, {{8, 1.0f}}},                 // beyond the bank: last entry alone
      {250.0f, {{8, 1.0f}}},
      {-3.0f, {{8, 1.0f}}},                // negative counts as beyond the end
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.coc);
    Splat s;
    s.bank = numberedBank(n);
    Accumulators acc;
    s.run(acc, 0, 40, Accumulators::kColumns, 40, 40, c.coc);
    const std::vector<float> q = expectedWeights(c.passes, 40);
    for (int X = 0; X < Accumulators::kColumns; ++X) {
      EXPECT_FLOAT_EQ(acc.weight[Chan_Red][X], q[X]) << "column " << X;
      EXPECT_FLOAT_EQ(acc.colour[Chan_Alpha][X], q[X]) << "column " << X;
    }
  }
}

TEST(KernelPair, SampleWeightScalesBothAccumulatorsAndNonPositiveSpreadsNothing) {
  Splat s;
  s.bank = numberedBank(9);
  s.colours[Chan_Green] = 0.25f;
  Accumulators acc;
  s.run(acc, 0, 40, Accumulators::kColumns, 40, 40, 3.5f, 0.5f);
  const std::vector<float> q = expectedWeights({{3, 0.375f}, {5, 0.125f}}, 40);
  for (int X = 36; X <= 44; ++X) {
    EXPECT_FLOAT_EQ(acc.weight[Chan_Green][X], q[X]);
    EXPECT_FLOAT_EQ(acc.colour[Chan_Green][X], 0.25f * q[X]);
  }

  for (float w : {0.0f, -1.0f}) {
    Accumulators untouched;
    s.run(untouched, 0, 40, Accumulators::kColumns, 40, 40, 3.5f, w);
    for (int c = 1; c <= 4; ++c)
      for (int X = 0; X < Accumulators::kColumns; ++X)
        ASSERT_EQ(untouched.weight[c][X], 0.0f);
  }
}

TEST(KernelPair, BadCoCAndOneEntryBankStayInBounds) {
  Splat s;
  s.bank = numberedBank(9);
  Accumulators acc;
  for (float coc : {kNaN, std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(), 3e9f})
    s.run(acc, 0, 40, Accumulators::kColumns, 40, 40, coc);
  // Each of them is the last entry at full weight.
  EXPECT_FLOAT_EQ(acc.weight[Chan_Red][40], 4.0f * 9.0f);

  s.bank = numberedBank(1);
  Accumulators single;
  s.run(single, 0, 40, Accumulators::kColumns, 40, 40, 0.5f);
  EXPECT_FLOAT_EQ(single.weight[Chan_Red][40], 1.25f);  // entry 0, the only one, at w0
}

// ---------------------------------------------------------------------------------------------
// Where a kernel row lands: culling and clipping.

TEST(KernelRow, RowOfTheKernelFollowsTheDistanceToTheSource) {
  Splat s;
  // Entry 5 (side 5, h 2) holds 10 * row + column, every element distinct.
  s.bank = makeBank(9, [](int, int col, int row) { return static_cast<float>(10 * row + col); });
  const int sx = 40, sy = 30;
  for (int rowY = sy - 3; rowY <= sy + 3; ++rowY) {
    SCOPED_TRACE(rowY);
    Accumulators acc;
    s.run(acc, 0, rowY, Accumulators::kColumns, sx, sy, 5.0f);
    const int dy = sy - rowY;
    for (int X = 0; X < Accumulators::kColumns; ++X) {
      float expected = 0.0f;
      if (std::abs(dy) <= 2 && std::abs(X - sx) <= 2)
        expected = static_cast<float>(10 * (dy + 2) + (X - sx + 2));  // rows mirrored, columns not
      EXPECT_EQ(acc.weight[Chan_Red][X], expected) << "column " << X;
    }
  }
}

TEST(KernelRow, SpanEdgesCutTheKernelAndNothingOutsideIsWritten) {
  Splat s;
  s.bank = makeBank(9, [](int, int col, int) { return static_cast<float>(col + 1); });
  const int rowLeft = 20, rowRight = 30;
  struct Case {
    int sx;
    std::vector<std::pair<int, float>> written;  // column, kernel column + 1
  };
  const std::vector<Case> cases = {
      {17, {}},                             // rowLeft - sx = h + 1: culled
      {18, {{20, 5.0f}}},                   // rowLeft - sx = h: one column from the last kernel column
      {19, {{20, 4.0f}, {21, 5.0f}}},
      {22, {{20, 1.0f}, {21, 2.0f}, {22, 3.0f}, {23, 4.0f}, {24, 5.0f}}},
      {30, {{28, 1.0f}, {29, 2.0f}}},
      {31, {{29, 1.0f}}},
      {32, {}},                             // sx - rowRight = h: passes the cull, count 0
      {33, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.sx);
    Accumulators acc(-7.0f);  // anything but -7 outside the written columns is a stray write
    s.run(acc, rowLeft, 10, rowRight, c.sx, 10, 5.0f);
    std::vector<float> expected(Accumulators::kColumns, -7.0f);
    for (const auto& [X, k] : c.written)
      expected[X] = -7.0f + k;
    for (int X = 0; X < Accumulators::kColumns; ++X)
      EXPECT_EQ(acc.weight[Chan_Blue][X], expected[X]) << "column " << X;
  }
}

TEST(KernelRow, EmptyOrReversedSpanWritesNothing) {
  Splat s;
  s.bank = numberedBank(9);
  Accumulators acc(-7.0f);
  s.run(acc, 40, 40, 40, 40, 40, 7.0f);
  s.run(acc, 50, 40, 40, 45, 40, 7.0f);
  for (int X = 0; X < Accumulators::kColumns; ++X)
    ASSERT_EQ(acc.weight[Chan_Red][X], -7.0f);
}

TEST(KernelRow, ChannelsOutsideTheRequestOrTheEffectAreNotTouched) {
  Splat s;
  s.bank = numberedBank(9);
  s.params.vorelChannels = Mask_RGB;
  s.channels = ChannelSet(Mask_Red) + ChannelSet(Mask_Alpha);
  Accumulators acc;
  s.run(acc, 0, 40, Accumulators::kColumns, 40, 40, 3.0f);
  EXPECT_GT(acc.weight[Chan_Red][40], 0.0f);
  EXPECT_EQ(acc.weight[Chan_Green][40], 0.0f);  // not requested
  EXPECT_EQ(acc.weight[Chan_Alpha][40], 0.0f);  // requested, but not part of the effect
}

TEST(AccumulateKernelRow, VectorisedLoopMatchesThePlainLoopBitForBit) {
  // The plain loop, kept scalar so the comparison is against the unvectorised arithmetic.
  struct Plain {
    __attribute__((noinline, optimize("no-tree-vectorize"))) static void run(float* P, float* Q,
                                                                   const float* K, float cw,
                                                                   float w, int count) {
      for (int j = 0; j < count; ++j) {
        P[j] += cw * K[j];
        Q[j] += w * K[j];
      }
    }
  };
  std::mt19937 random(7);
  std::uniform_real_distribution<float> value(-3.0f, 3.0f);
  std::vector<float> K(300), P0(300), Q0(300);
  for (std::size_t i = 0; i < K.size(); ++i) {
    K[i] = value(random);
    P0[i] = value(random);
    Q0[i] = value(random);
  }
  for (int offset = 0; offset < 4; ++offset) {
    for (int count : {0, 1, 3, 4, 5, 7, 8, 15, 16, 17, 41, 255}) {
      std::vector<float> P1 = P0, Q1 = Q0, P2 = P0, Q2 = Q0;
      const float cw = value(random), w = value(random);
      accumulateKernelRow(P1.data() + offset, Q1.data() + offset, K.data() + 3 - offset % 3, cw, w, count);
      Plain::run(P2.data() + offset, Q2.data() + offset, K.data() + 3 - offset % 3, cw, w, count);
      ASSERT_EQ(std::memcmp(P1.data(), P2.data(), P1.size() * sizeof(float)), 0) << count;
      ASSERT_EQ(std::memcmp(Q1.data(), Q2.data(), Q1.size() * sizeof(float)), 0) << count;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Chromatic aberration.

TEST(ChromaticShift, TruncationTowardZeroIsNotSymmetric) {
  NodeParameters p;
  p.kChrAbb = 1.0f;
  p.kChrAbbOff[0] = 1.0f;
  // Red: (1 - 0.5) * 6 * 0.1 = +0.3; alpha: (0 - 0.5) * 6 * 0.1 = -0.3.
  EXPECT_EQ(chromaticShift(p, 5, Chan_Red, 6.0f), 5);
  EXPECT_EQ(chromaticShift(p, 5, Chan_Alpha, 6.0f), 4);
  EXPECT_EQ(chromaticShift(p, 0, Chan_Alpha, 6.0f), 0);
  EXPECT_EQ(chromaticShift(p, -5, Chan_Red, 6.0f), -4);
  EXPECT_EQ(chromaticShift(p, -5, Chan_Alpha, 6.0f), -5);
  EXPECT_EQ(chromaticShift(p, 5, Chan_Alpha, 0.0f), 5);

  p.kChrAbb = 0.0f;
  EXPECT_EQ(chromaticShift(p, 5, Chan_Alpha, 100.0f), 5);
  EXPECT_EQ(chromaticShift(p, 5, Chan_Red, kNaN), 5);
}

TEST(ChromaticShift, SignOfTheAmountPicksGreenOrBlue) {
  NodeParameters p;  // default offsets 0.6, 1, 1
  const float spread = 40.0f * 0.5f - 1.0f;  // CoC 40: 19
  p.kChrAbb = 10.0f;  // +1.9, +9.5, -9.5, and -9.5 for alpha
  EXPECT_EQ(chromaticShift(p, 100, Chan_Red, spread), 101);
  EXPECT_EQ(chromaticShift(p, 100, Chan_Green, spread), 109);
  EXPECT_EQ(chromaticShift(p, 100, Chan_Blue, spread), 90);
  EXPECT_EQ(chromaticShift(p, 100, Chan_Alpha, spread), 90);
  p.kChrAbb = -10.0f;  // +1.9, -9.5, +9.5
  EXPECT_EQ(chromaticShift(p, 100, Chan_Red, spread), 101);
  EXPECT_EQ(chromaticShift(p, 100, Chan_Green, spread), 90);
  EXPECT_EQ(chromaticShift(p, 100, Chan_Blue, spread), 109);
  p.kChrAbbOff[0] = 0.5f;  // base equals half the amount: red stays
  EXPECT_EQ(chromaticShift(p, 100, Chan_Red, spread), 100);
}

TEST(ChromaticShift, SplatMovesEachChannelAlongTheDiagonal) {
  Splat s;
  // Every entry a single centred 1: a channel lands exactly where its shifted position is.
  s.bank = makeBank(45, [](int e, int col, int row) {
    const int h = (kernelBankEntrySize(e) - 1) / 2;
    return col == h && row == h ? 1.0f : 0.0f;
  });
  s.params.kChrAbb = 10.0f;
  const int sx = 40, sy = 40;
  struct Landing { Channel c; int at; };
  const Landing moved[] = {{Chan_Red, 41}, {Chan_Green, 49}, {Chan_Blue, 30}, {Chan_Alpha, 30}};
  for (const Landing& l : moved) {
    SCOPED_TRACE(l.c);
    for (int rowY : {sy, l.at}) {
      Accumulators acc;
      s.run(acc, 0, rowY, Accumulators::kColumns, sx, sy, 40.0f);
      const bool lands = rowY == l.at;
      for (int X = 0; X < Accumulators::kColumns; ++X)
        EXPECT_FLOAT_EQ(acc.weight[l.c][X], lands && X == l.at ? 1.0f : 0.0f) << X << " row " << rowY;
    }
  }

  // A CoC * matte of 2 or less, or a matte of 0, leaves every channel in place.
  for (const auto& [coc, matte] : {std::pair<float, float>{40.0f, 0.0f}, {4.0f, 0.5f}, {2.0f, 1.0f}}) {
    Accumulators acc;
    s.run(acc, 0, sy, Accumulators::kColumns, sx, sy, coc, 1.0f, 1.0f, matte);
    for (int c = 1; c <= 4; ++c)
      EXPECT_FLOAT_EQ(acc.weight[c][sx], 1.0f) << "channel " << c << " coc " << coc;
  }

  // A NaN matte moves nothing into the span and writes nothing out of bounds.
  Accumulators acc(-7.0f);
  s.run(acc, 0, sy, Accumulators::kColumns, sx, sy, 40.0f, 1.0f, 1.0f, kNaN);
  for (int c = 1; c <= 3; ++c)
    for (int X = 0; X < Accumulators::kColumns; ++X)
      ASSERT_EQ(acc.weight[c][X], -7.0f);
}

// ---------------------------------------------------------------------------------------------
// Bloom.

TEST(BloomRadialFactor, GrowsFromTheCentreToTheEdges) {
  NodeParameters p;
  const Box format(0, 0, 200, 100);
  EXPECT_EQ(bloomRadialFactor(p, format, 0, 0), 0.0f);  // bloom 0: nothing

  p.bloom = 0.8f;
  EXPECT_EQ(bloomRadialFactor(p, format, 100, 50), 0.0f);
  EXPECT_NEAR(bloomRadialFactor(p, format, 150, 50), 0.8f * 0.25f, 0.001f);  // distance 0.5
  EXPECT_NEAR(bloomRadialFactor(p, format, 100, 75), 0.8f * 0.25f, 0.001f);
  EXPECT_FLOAT_EQ(bloomRadialFactor(p, format, 200, 50), 0.8f);  // mid-point of a side
  EXPECT_FLOAT_EQ(bloomRadialFactor(p, format, 0, 0), 0.8f);     // corners are capped at 1
  EXPECT_FLOAT_EQ(bloomRadialFactor(p, format, -500, 900), 0.8f);

  p.bloomCurvature = 0.0f;  // even over the image, centre included
  EXPECT_FLOAT_EQ(bloomRadialFactor(p, format, 100, 50), 0.8f);

  // The centre is half the format's size from position 0, not from the format's corner.
  p.bloomCurvature = 2.0f;
  EXPECT_EQ(bloomRadialFactor(p, Box(100, 0, 300, 100), 100, 50), 0.0f);
  // An empty format ends in a defined value.
  EXPECT_FALSE(std::isnan(bloomRadialFactor(p, Box(0, 0, 0, 0), 3, 4)));
}

TEST(BloomInSplat, RaisesOrReplacesTheColourOfRGBOnly) {
  Splat s;
  s.bank = numberedBank(9);
  s.params.bloom = 1.0f;
  s.params.bloomCurvature = 0.0f;  // strength 1 everywhere
  s.params.bloomThreshold = 0.5f;
  s.colours[Chan_Red] = 2.0f;    // 1.5 above the threshold
  s.colours[Chan_Green] = 0.3f;  // below it
  s.colours[Chan_Blue] = 0.5f;   // at it
  s.colours[Chan_Alpha] = 2.0f;  // never bloomed

  // CoC 2: two passes, each starting from the pixel's own value. Bloom matte 0.5.
  const float k = 0.5f * 3.0f + 0.5f * 5.0f;  // centre column: entries 2 and 4
  Accumulators defocused;
  s.run(defocused, 0, 40, Accumulators::kColumns, 40, 40, 2.0f, 1.0f, 0.5f);
  EXPECT_FLOAT_EQ(defocused.colour[Chan_Red][40], (2.0f + 0.75f) * k);
  EXPECT_FLOAT_EQ(defocused.colour[Chan_Green][40], 0.3f * k);
  EXPECT_FLOAT_EQ(defocused.colour[Chan_Blue][40], 0.5f * k);
  EXPECT_FLOAT_EQ(defocused.colour[Chan_Alpha][40], 2.0f * k);
  EXPECT_FLOAT_EQ(s.colours[Chan_Red], 2.0f);

  s.params.outputType = OutputLensBloom;
  Accumulators bloom;
  s.run(bloom, 0, 40, Accumulators::kColumns, 40, 40, 2.0f, 1.0f, 0.5f);
  EXPECT_FLOAT_EQ(bloom.colour[Chan_Red][40], 0.75f * k);
  EXPECT_EQ(bloom.colour[Chan_Green][40], 0.0f);  // adds no colour ...
  EXPECT_FLOAT_EQ(bloom.weight[Chan_Green][40], k);  // ... but its full weight: it darkens
  EXPECT_FLOAT_EQ(bloom.colour[Chan_Alpha][40], 2.0f * k);

  // The strength is taken at the position the engine gives, not at the source's own.
  s.params.bloomCurvature = 2.0f;
  Accumulators centre;
  s.run(centre, 0, 40, Accumulators::kColumns, 40, 40, 1.0f, 1.0f, 1.0f, 1.0f, 48, 48);
  EXPECT_EQ(centre.colour[Chan_Red][40], 0.0f);
}

// ---------------------------------------------------------------------------------------------
// Slices.

TEST(SliceForDepth, BoundariesStartTheirSlices) {
  const std::vector<float> none;
  EXPECT_EQ(sliceForDepth(1, none, 5.0f), 0u);
  EXPECT_EQ(sliceForDepth(1, {0.0f, 10.0f}, 50.0f), 0u);  // one slice reads no boundary

  const std::vector<float> two = {0.0f, 100.0f};  // 0 and the focal plane
  EXPECT_EQ(sliceForDepth(2, two, 99.99f), 0u);
  EXPECT_EQ(sliceForDepth(2, two, 100.0f), 1u);
  EXPECT_EQ(sliceForDepth(2, two, 3.4028235e38f), 1u);
  EXPECT_EQ(sliceForDepth(2, two, -1.0f), 0u);

  const std::vector<float> four = {0.0f, 10.0f, 20.0f, 30.0f};
  EXPECT_EQ(sliceForDepth(4, four, 0.0f), 0u);
  EXPECT_EQ(sliceForDepth(4, four, 10.0f), 1u);
  EXPECT_EQ(sliceForDepth(4, four, 29.0f), 2u);
  EXPECT_EQ(sliceForDepth(4, four, 30.0f), 3u);
  EXPECT_EQ(sliceForDepth(4, four, -5.0f), 0u);
}

namespace {

// Slices over [x, x + values) with one column per (colour, weight) pair list: pairs[s][i].
struct HandMadeSlices {
  SliceAccumulators slices;
  HandMadeSlices(int x, const std::vector<std::vector<std::pair<float, float>>>& pairs)
      : slices(static_cast<int>(pairs.size()), x, x + static_cast<int>(pairs[0].size()), Mask_RGBA) {
    for (std::size_t s = 0; s < pairs.size(); ++s)
      for (std::size_t i = 0; i < pairs[s].size(); ++i) {
        slices.colourPlanes[s][Chan_Red][x + static_cast<int>(i)] = pairs[s][i].first;
        slices.weightPlanes[s][Chan_Red][x + static_cast<int>(i)] = pairs[s][i].second;
      }
  }
};

}  // namespace

TEST(MergeSlices, NearSlicesTakeTheCoverageFirst) {
  const int x = 5;
  HandMadeSlices h(x, {
      {{0.3f, 0.6f}, {0.3f, 0.6f}, {0.9f, 1.0f}, {0.0f, 0.0f}, {3.0f, 2.0f}, {0.0f, 0.0f}},
      {{0.8f, 0.8f}, {0.0f, 0.0f}, {0.5f, 0.5f}, {0.2f, 0.4f}, {0.0f, 0.0f}, {0.0f, 0.0f}},
  });
  Row out(x, x + 6);
  mergeSlices(h.slices, out, x, x + 6, Mask_RGBA, Mask_RGBA);
  const float* red = out[Chan_Red];
  EXPECT_FLOAT_EQ(red[x + 0], 0.7f);   // 0.3 + 0.8 * (0.4 / 0.8), over coverage 1
  EXPECT_FLOAT_EQ(red[x + 1], 0.5f);   // slice 0 alone: 0.3 / 0.6
  EXPECT_FLOAT_EQ(red[x + 2], 0.9f);   // a full near slice leaves nothing to the far one
  EXPECT_FLOAT_EQ(red[x + 3], 0.5f);   // far slice alone, weight under 1, brought to level
  EXPECT_FLOAT_EQ(red[x + 4], 1.5f);   // one slice with weight above 1: the plain quotient
  EXPECT_EQ(red[x + 5], 0.0f);         // nothing reached this pixel
  EXPECT_EQ(out[Chan_Green][x + 5], 0.0f);
}

TEST(MergeSlices, OnlyRequestedEffectChannelsAreWritten) {
  const int x = 0;
  HandMadeSlices h(x, {{{0.3f, 0.6f}, {0.3f, 0.6f}}});
  Row out(x, 2);
  for (Channel c : {Chan_Red, Chan_Green, Chan_Alpha}) {
    float* plane = out.writable(c);
    plane[0] = plane[1] = -1.0f;
  }
  ChannelSet effect = Mask_RGB;
  mergeSlices(h.slices, out, x, 2, ChannelSet(Mask_Red) + ChannelSet(Mask_Alpha), effect);
  EXPECT_FLOAT_EQ(out[Chan_Red][0], 0.5f);
  EXPECT_EQ(out[Chan_Green][0], -1.0f);  // not requested
  EXPECT_EQ(out[Chan_Alpha][0], -1.0f);  // requested, but not part of the effect

  Row empty(3, 3);
  mergeSlices(h.slices, empty, 3, 3, Mask_RGBA, Mask_RGBA);  // no columns, no crash
}

TEST(SliceAccumulators, StartAtZeroWithPlanesOnlyForEffectChannels) {
  SliceAccumulators slices(3, -4, 6, Mask_RGB);
  ASSERT_EQ(slices.colourPlanes.size(), 3u);
  for (std::size_t s = 0; s < 3; ++s) {
    EXPECT_EQ(slices.colourPlanes[s][Chan_Alpha], nullptr);
    for (int X = -4; X < 6; ++X) {
      EXPECT_EQ(slices.colourPlanes[s][Chan_Blue][X], 0.0f);
      EXPECT_EQ(slices.weightPlanes[s][Chan_Red][X], 0.0f);
    }
  }
  // A slice count below 1 still gives the table every lookup can reach.
  SliceAccumulators none(0, 0, 4, Mask_RGB);
  EXPECT_EQ(none.colourPlanes.size(), 1u);
}
