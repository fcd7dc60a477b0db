// Cutting a deep pixel's overlapping samples into the pieces the deep engine walks front to back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
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
// through the ordered view in which the nearest sample has the highest index.
struct TestPixel {
  explicit TestPixel(const std::vector<Span>& spans,
                     ChannelSet set = ChannelSet(Mask_Red) + Chan_Alpha + Mask_Deep)
      : channels(set), map(set) {
    for (const Span& s : spans)
      foreach (c, channels) {
        if (c == Chan_DeepFront || c == Chan_Z)
          data.push_back(s.front);
        else if (c == Chan_DeepBack)
          data.push_back(s.back);
        else if (c == Chan_Alpha)
          data.push_back(s.alpha);
        else
          data.push_back(s.red);
      }
    count = spans.size();
  }
  DeepPixel pixel() const { return DeepPixel(&map, data.data(), count, true); }

  ChannelSet channels;
  ChannelMap map;
  std::vector<float> data;
  std::size_t count = 0;
};

struct Piece {
  float front, back, alpha;
  float red = 0.0f;
};

std::vector<Piece> readPieces(const TestPixel& source, const DeepOutPixel& out) {
  const DeepPixel view = out.getPixel(source.map, DeepPixel::eZDescending);
  std::vector<Piece> pieces;
  for (std::size_t i = 0; i < view.getSampleCount(); ++i)
    pieces.push_back({view.getOrderedSample(i, Chan_DeepFront), view.getOrderedSample(i, Chan_DeepBack),
                      view.getOrderedSample(i, Chan_Alpha), view.getOrderedSample(i, Chan_Red)});
  return pieces;
}

std::vector<Piece> prepare(const std::vector<Span>& spans) {
  const TestPixel source(spans);
  DeepOutPixel out;
  prepareDeepSamples(source.channels, source.pixel(), out);
  return readPieces(source, out);
}

// Pieces given as front, back and the share of the source sample (alpha 1, red 0.5).
void expectPieces(const std::vector<Span>& spans, const std::vector<Piece>& expected) {
  const std::vector<Piece> pieces = prepare(spans);
  ASSERT_EQ(pieces.size(), expected.size());
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    SCOPED_TRACE(testing::Message() << "piece " << i);
    EXPECT_FLOAT_EQ(pieces[i].front, expected[i].front);
    EXPECT_FLOAT_EQ(pieces[i].back, expected[i].back);
    EXPECT_FLOAT_EQ(pieces[i].alpha, expected[i].alpha);
    EXPECT_FLOAT_EQ(pieces[i].red, 0.5f * expected[i].alpha);
  }
}

// ---- the chain as it is described: one level of recursion per overlapping neighbour ----

void referencePush(const ChannelSet& channels, const DeepPixel& pixel, DeepOutPixel& out,
                   std::size_t i, float front, float back, float fraction) {
  foreach (c, channels) {
    if (c == Chan_Z || c == Chan_DeepFront)
      out.push_back(front);
    else if (c == Chan_DeepBack)
      out.push_back(back);
    else
      out.push_back(fraction * pixel.getOrderedSample(i, c));
  }
}

float referenceSplit(const ChannelSet& channels, const DeepPixel& pixel, DeepOutPixel& out,
                     std::size_t& cursor) {
  const std::size_t i = cursor;
  const float front = pixel.getOrderedSample(i, Chan_DeepFront);
  const float back = pixel.getOrderedSample(i, Chan_DeepBack);
  const float thickness = back - front;
  if (1e-6f > thickness || i == 0) {
    referencePush(channels, pixel, out, i, front, back, 1.0f);
    return back;
  }
  const float nextFront = pixel.getOrderedSample(i - 1, Chan_DeepFront);
  if (!(back > nextFront)) {
    referencePush(channels, pixel, out, i, front, back, 1.0f);
    return back;
  }
  referencePush(channels, pixel, out, i, front, nextFront, (nextFront - front) / thickness);
  --cursor;
  const float innerBack = referenceSplit(channels, pixel, out, cursor);
  if (back > innerBack)
    referencePush(channels, pixel, out, i, innerBack, back, (back - innerBack) / thickness);
  return back;
}

void referencePrepare(const ChannelSet& channels, const DeepPixel& pixel, DeepOutPixel& out) {
  const std::size_t n = pixel.getSampleCount();
  if (n == 0)
    return;
  std::size_t cursor = n - 1;
  for (;;) {
    referenceSplit(channels, pixel, out, cursor);
    if (cursor == 0)
      return;
    --cursor;
  }
}

// Same floats, bit for bit, in the same order.
void expectSameAsReference(const TestPixel& source) {
  DeepOutPixel out, reference;
  prepareDeepSamples(source.channels, source.pixel(), out);
  referencePrepare(source.channels, source.pixel(), reference);
  ASSERT_EQ(out.size(), reference.size());
  for (std::size_t k = 0; k < out.size(); ++k) {
    if (std::isnan(reference[k]))
      ASSERT_TRUE(std::isnan(out[k])) << "float " << k;
    else
      ASSERT_EQ(out[k], reference[k]) << "float " << k;
  }
}

// Random spans sorted as the host sorts them (front ascending, ties by back ascending).
std::vector<Span> randomSpans(std::mt19937& rng, int count) {
  std::uniform_real_distribution<float> position(0.0f, 50.0f), length(0.0f, 30.0f), unit(0.0f, 1.0f);
  std::vector<Span> spans;
  for (int k = 0; k < count; ++k) {
    Span s;
    s.front = std::round(position(rng) * 2.0f) / 2.0f;  // coarse grid: plenty of exact ties
    const float l = length(rng);
    s.back = unit(rng) < 0.2f ? s.front : s.front + std::round(l * 2.0f) / 2.0f;
    s.alpha = unit(rng);
    s.red = unit(rng);
    spans.push_back(s);
  }
  std::sort(spans.begin(), spans.end(), [](const Span& a, const Span& b) {
    return a.front < b.front || (a.front == b.front && a.back < b.back);
  });
  return spans;
}

}  // namespace

TEST(DeepSamples, SeparateOrTouchingSamplesStayWhole) {
  expectPieces({}, {});
  expectPieces({{0, 1000}}, {{0, 1000, 1}});
  expectPieces({{0, 5}, {10, 20}, {30, 40}}, {{0, 5, 1}, {10, 20, 1}, {30, 40, 1}});
  expectPieces({{0, 10}, {10, 20}}, {{0, 10, 1}, {10, 20, 1}});
}

TEST(DeepSamples, ChannelsOfAWholeSampleAreCopiedUnchanged) {
  const std::vector<Piece> pieces = prepare({{0, 5, 0.3f, 0.17f}, {6, 9, 0.9f, 0.61f}});
  ASSERT_EQ(pieces.size(), 2u);
  EXPECT_EQ(pieces[0].alpha, 0.3f);
  EXPECT_EQ(pieces[0].red, 0.17f);
  EXPECT_EQ(pieces[1].alpha, 0.9f);
  EXPECT_EQ(pieces[1].red, 0.61f);
}

TEST(DeepSamples, ThinSampleIsNeverCut) {
  // A few ulps thick: its back lies behind the next front, but it counts as a point.
  const float back = std::nextafter(std::nextafter(std::nextafter(1.0f, 2.0f), 2.0f), 2.0f);
  expectPieces({{1.0f, back}, {1.0f, 2.0f}}, {{1.0f, back, 1}, {1.0f, 2.0f, 1}});
  // A back in front of the front is thin as well.
  expectPieces({{5, 4}, {5, 8}}, {{5, 4, 1}, {5, 8, 1}});
}

TEST(DeepSamples, OverlapsAreCutAtTheNeighbour) {
  // Partial overlap: the nearer sample gives up its stretch inside the neighbour.
  expectPieces({{0, 10}, {5, 15}}, {{0, 5, 0.5f}, {5, 15, 1}});
  // Nesting: head, the inner sample, tail.
  expectPieces({{0, 10}, {2, 4}}, {{0, 2, 0.2f}, {2, 4, 1}, {4, 10, 0.6f}});
  // A point inside a volume.
  expectPieces({{0, 10}, {5, 5}}, {{0, 5, 0.5f}, {5, 5, 1}, {5, 10, 0.5f}});
  // Equal spans: an empty head of alpha 0, then the deeper sample.
  expectPieces({{0, 10}, {0, 10}}, {{0, 0, 0}, {0, 10, 1}});
}

TEST(DeepSamples, ChainsConsumeEachSampleOnce) {
  expectPieces({{0, 10}, {5, 15}, {12, 20}}, {{0, 5, 0.5f}, {5, 12, 0.7f}, {12, 20, 1}});
  // The tail of the outer sample comes last and overlaps what the chain pushed before it.
  expectPieces({{0, 100}, {10, 20}, {15, 30}},
               {{0, 10, 0.1f}, {10, 15, 0.5f}, {15, 30, 1}, {20, 100, 0.8f}});
  // A chain followed by a separate sample: the walk resumes behind the chain.
  expectPieces({{0, 10}, {5, 15}, {40, 50}}, {{0, 5, 0.5f}, {5, 15, 1}, {40, 50, 1}});
}

TEST(DeepSamples, DepthChannelTakesThePieceFront) {
  const ChannelSet set = ChannelSet(Mask_Red) + Chan_Alpha + Chan_Z + Mask_Deep;
  const TestPixel source({{0, 10}, {2, 4}}, set);
  DeepOutPixel out;
  prepareDeepSamples(source.channels, source.pixel(), out);
  const DeepPixel view = out.getPixel(source.map, DeepPixel::eZDescending);
  ASSERT_EQ(view.getSampleCount(), 3u);
  EXPECT_EQ(view.getOrderedSample(0, Chan_Z), 0.0f);
  EXPECT_EQ(view.getOrderedSample(1, Chan_Z), 2.0f);
  EXPECT_EQ(view.getOrderedSample(2, Chan_Z), 4.0f);
}

TEST(DeepSamples, MatchesTheRecursiveChainOnRandomPixels) {
  std::mt19937 rng(20240611u);
  for (int trial = 0; trial < 2000; ++trial) {
    SCOPED_TRACE(trial);
    expectSameAsReference(TestPixel(randomSpans(rng, 1 + trial % 12)));
  }
}

TEST(DeepSamples, TenThousandOverlappingSamples) {
  // Every sample reaches into the next: one chain through the whole pixel.
  std::vector<Span> spans;
  for (int k = 0; k < 10000; ++k)
    spans.push_back({static_cast<float>(k), static_cast<float>(k) + 1.5f, 0.01f, 0.002f});
  expectSameAsReference(TestPixel(spans));

  // All nested in one another: every sample leaves a tail behind the chain.
  spans.clear();
  for (int k = 0; k < 10000; ++k)
    spans.push_back({static_cast<float>(k), 30000.0f - static_cast<float>(k), 0.01f, 0.002f});
  expectSameAsReference(TestPixel(spans));

  // Far deeper than any call stack would take, on the iterative walk alone.
  spans.clear();
  for (int k = 0; k < 200000; ++k)
    spans.push_back({static_cast<float>(k), static_cast<float>(k) + 2.0f});
  DeepOutPixel out;
  const TestPixel big(spans);
  prepareDeepSamples(big.channels, big.pixel(), out);
  EXPECT_EQ(out.size(), 200000u * big.map.size());
}

TEST(DeepSamples, BadDepthsDoNotCrash) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  expectSameAsReference(TestPixel({{nan, nan}, {0, 10}, {5, nan}, {nan, 3}}));
  expectSameAsReference(TestPixel({{-inf, inf}, {0, inf}, {1, 2}, {inf, inf}}));
  expectSameAsReference(TestPixel({{0, 10, 0}, {5, 15, 7}, {6, 6, -1}}));
}
