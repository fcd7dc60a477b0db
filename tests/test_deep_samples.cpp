// Cutting a deep pixel's overlapping samples into the pieces the deep engine walks front to back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "DDImage/ChannelMap.h"
#include "DDImage/DeepPixel.h"
#include "engines/DeepSamples.h"

using namespace DD::Image;
using vorel::prepareDeepSamples;

namespace {

struct Span {
  float front, back;
  float alpha = 1.0f;
  float red = 0.5f;
};

// A pixel as the host hands it over: samples stored nearest first (front ascending), read
// through the ordered view in which the nearest sample has the highest index. Depth.Z is in it
// because every piece must carry its own front there.
struct TestPixel {
  explicit TestPixel(const std::vector<Span>& spans) : map(channels), count(spans.size()) {
    for (const Span& s : spans)
      foreach (c, channels)
        data.push_back(c == Chan_DeepFront || c == Chan_Z ? s.front
                       : c == Chan_DeepBack ? s.back : c == Chan_Alpha ? s.alpha : s.red);
  }
  DeepPixel pixel() const { return DeepPixel(&map, data.data(), count, true); }

  ChannelSet channels = ChannelSet(Mask_Red) + Chan_Alpha + Chan_Z + Mask_Deep;
  ChannelMap map;
  std::vector<float> data;
  std::size_t count;
};

// The chain as it is described: one level of recursion per overlapping neighbour.
float referenceSplit(const TestPixel& source, DeepOutPixel& out, std::size_t& cursor) {
  const DeepPixel pixel = source.pixel();
  const std::size_t i = cursor;
  const float front = pixel.getOrderedSample(i, Chan_DeepFront);
  const float back = pixel.getOrderedSample(i, Chan_DeepBack);
  const float thickness = back - front;
  auto push = [&](float pieceFront, float pieceBack, float fraction) {
    foreach (c, source.channels)
      out.push_back(c == Chan_Z || c == Chan_DeepFront ? pieceFront
                    : c == Chan_DeepBack ? pieceBack : fraction * pixel.getOrderedSample(i, c));
  };
  const float nextFront = i == 0 ? 0.0f : pixel.getOrderedSample(i - 1, Chan_DeepFront);
  if (1e-6f > thickness || i == 0 || !(back > nextFront)) {
    push(front, back, 1.0f);
    return back;
  }
  push(front, nextFront, (nextFront - front) / thickness);
  const float innerBack = referenceSplit(source, out, --cursor);
  if (back > innerBack)
    push(innerBack, back, (back - innerBack) / thickness);
  return back;
}

// Same floats, bit for bit, in the same order, as the recursive chain over every sample.
void expectSameAsReference(const std::vector<Span>& spans) {
  const TestPixel source(spans);
  DeepOutPixel out, reference;
  prepareDeepSamples(source.channels, source.pixel(), out);
  for (std::size_t cursor = source.count; cursor-- > 0;)
    referenceSplit(source, reference, cursor);
  ASSERT_EQ(out.size(), reference.size());
  EXPECT_EQ(std::memcmp(out.data(), reference.data(), out.size() * sizeof(float)), 0);
}

}  // namespace

TEST(DeepSamples, OverlapsAreCutAtTheNeighbour) {
  // Expected pieces nearest first; their alpha is the share of the source sample they carry.
  const float ulps3 = std::nextafter(std::nextafter(std::nextafter(1.0f, 2.0f), 2.0f), 2.0f);
  const struct {
    const char* what;
    std::vector<Span> spans, pieces;
  } cases[] = {
      {"empty", {}, {}},
      {"separate, then touching", {{0, 5}, {10, 20}, {20, 30}}, {{0, 5}, {10, 20}, {20, 30}}},
      {"partial overlap", {{0, 10}, {5, 15}}, {{0, 5, 0.5f}, {5, 15}}},
      {"nested", {{0, 10}, {2, 4}}, {{0, 2, 0.2f}, {2, 4}, {4, 10, 0.6f}}},
      {"point inside a volume", {{0, 10}, {5, 5}}, {{0, 5, 0.5f}, {5, 5}, {5, 10, 0.5f}}},
      {"equal spans: an empty head", {{0, 10}, {0, 10}}, {{0, 0, 0}, {0, 10}}},
      {"a few ulps thick is a point", {{1, ulps3}, {1, 2}}, {{1, ulps3}, {1, 2}}},
      {"back before front is thin", {{5, 4}, {5, 8}}, {{5, 4}, {5, 8}}},
      // A chain of three, and the walk resumes behind it.
      {"chain", {{0, 10}, {5, 15}, {12, 20}, {40, 50}}, {{0, 5, 0.5f}, {5, 12, 0.7f}, {12, 20}, {40, 50}}},
      // The outer sample's tail comes last, over what the chain pushed before it.
      {"chain in a volume", {{0, 100}, {10, 20}, {15, 30}},
       {{0, 10, 0.1f}, {10, 15, 0.5f}, {15, 30}, {20, 100, 0.8f}}},
      // Each tail starts at its own neighbour's back, not at the back of the whole chain.
      {"three nested", {{0, 100}, {10, 50}, {20, 30}},
       {{0, 10, 0.1f}, {10, 20, 0.25f}, {20, 30}, {30, 50, 0.5f}, {50, 100, 0.5f}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const TestPixel source(c.spans);
    DeepOutPixel out;
    prepareDeepSamples(source.channels, source.pixel(), out);
    const DeepPixel view = out.getPixel(source.map, DeepPixel::eZDescending);
    ASSERT_EQ(view.getSampleCount(), c.pieces.size());
    for (std::size_t i = 0; i < c.pieces.size(); ++i) {
      SCOPED_TRACE(testing::Message() << "piece " << i);
      EXPECT_FLOAT_EQ(view.getOrderedSample(i, Chan_DeepFront), c.pieces[i].front);
      EXPECT_FLOAT_EQ(view.getOrderedSample(i, Chan_Z), c.pieces[i].front);
      EXPECT_FLOAT_EQ(view.getOrderedSample(i, Chan_DeepBack), c.pieces[i].back);
      EXPECT_FLOAT_EQ(view.getOrderedSample(i, Chan_Alpha), c.pieces[i].alpha);
      EXPECT_FLOAT_EQ(view.getOrderedSample(i, Chan_Red), 0.5f * c.pieces[i].alpha);
    }
  }
}

TEST(DeepSamples, MatchesTheRecursiveChainOnRandomAndBadPixels) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  expectSameAsReference({{nan, nan}, {0, 10}, {5, nan}, {nan, 3}});
  expectSameAsReference({{-inf, inf}, {0, inf}, {1, 2}, {inf, inf}});
  expectSameAsReference({{0, 10, 0}, {5, 15, 7}, {6, 6, -1}});  // alphas outside 0 to 1
  std::mt19937 rng(20240611u);
  std::uniform_int_distribution<int> halfSteps(0, 100);  // a coarse grid: plenty of exact ties
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  for (int trial = 0; trial < 2000; ++trial) {
    SCOPED_TRACE(trial);
    std::vector<Span> spans;
    for (int k = 0; k <= trial % 12; ++k) {
      const float front = 0.5f * halfSteps(rng), length = 0.3f * halfSteps(rng);
      spans.push_back({front, unit(rng) < 0.2f ? front : front + length, unit(rng), unit(rng)});
    }
    // Sorted as the host sorts them: front ascending, ties by back ascending.
    std::sort(spans.begin(), spans.end(), [](const Span& a, const Span& b) {
      return a.front < b.front || (a.front == b.front && a.back < b.back);
    });
    expectSameAsReference(spans);
  }
}

TEST(DeepSamples, TenThousandOverlappingSamples) {
  // Every sample reaches into the next (one chain through the pixel) or holds all the later ones.
  auto chain = [](int n, bool nested) {
    std::vector<Span> spans;
    for (float k = 0.0f; k < static_cast<float>(n); k += 1.0f)
      spans.push_back({k, nested ? 3.0f * static_cast<float>(n) - k : k + 1.5f, 0.01f, 0.002f});
    return spans;
  };
  expectSameAsReference(chain(10000, false));
  expectSameAsReference(chain(10000, true));
  // Far deeper than any call stack would take, on the iterative walk alone.
  const TestPixel big(chain(200000, false));
  DeepOutPixel out;
  prepareDeepSamples(big.channels, big.pixel(), out);
  EXPECT_EQ(out.size(), 200000u * big.map.size());
}
