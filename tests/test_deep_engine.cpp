// Defocusing a deep input, and the previews of a deep input, through the node as the host runs it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "DDImage/Host.h"
#include "DDImage/Row.h"
#include "engines/DeepRowEngine.h"
#include "previews/Previews.h"
#include "support/TestScenes.h"

using namespace DD::Image;
using namespace vorel::test;

namespace {

struct Sample {
  float depth;
  float alpha;
  float red = 0.0f, green = 0.0f, blue = 0.0f;  // premultiplied
};

// A flat input 0 (format, pass-through channels) beside a deep input 3, and the node over them.
struct DeepScene {
  DeepScene(int width, int height, const ChannelSet& deepChannels = ChannelSet(Mask_RGBA),
            std::function<float(int, int, Channel)> flat = [](int, int, Channel) { return 0.0f; })
      : width(width), height(height) {
    input = flatImage(width, height, rgbaz(), flat);
    deep = std::make_unique<host::DeepImage>(Format(width, height), Box(0, 0, width, height),
                                             deepChannels);
    node = makeNode();
    EXPECT_TRUE(host::connect(*node, 0, input.get()));
    EXPECT_TRUE(host::connect(*node, 3, deep.get()));
  }

  void add(int x, int y, const Sample& s) {
    deep->addSample(x, y, {{Chan_DeepFront, s.depth}, {Chan_DeepBack, s.depth}, {Chan_Alpha, s.alpha},
                           {Chan_Red, s.red}, {Chan_Green, s.green}, {Chan_Blue, s.blue}});
  }
  void addVolume(int x, int y, float front, float back, float alpha, float red) {
    deep->addSample(x, y, {{Chan_DeepFront, front}, {Chan_DeepBack, back}, {Chan_Alpha, alpha},
                           {Chan_Red, red}});
  }

  Image render(const ChannelSet& channels = ChannelSet(Mask_RGBA), unsigned threads = 1) {
    deep->finish();
    return vorel::test::render(*node, Box(0, 0, width, height), channels, threads);
  }

  // One row of the engine alone, for one side, after the host has opened the node.
  std::vector<float> engineRow(int y, int side, Channel z, const ChannelSet& channels = Mask_RGBA) {
    deep->finish();
    host::prepare(*node, Box(0, 0, width, height), channels);
    Row row(0, width);
    vorel::deepRowEngine(*node, y, 0, width, channels, row, side);
    return std::vector<float>(row[z], row[z] + width);
  }

  int width, height;
  std::unique_ptr<host::FlatImage> input;
  std::unique_ptr<host::DeepImage> deep;
  std::unique_ptr<tzVorel> node;
};

// Samples nearest first, composited over one another: what an in-focus render must give back.
float over(const std::vector<Sample>& samples, float Sample::*channel) {
  double value = 0.0, left = 1.0;
  for (const Sample& s : samples) {
    value += left * (channel ? s.*channel : s.alpha);
    left *= 1.0 - s.alpha;
  }
  return static_cast<float>(value);
}

// The default region is focal plane 100 +- 0.5 with a multiplier of 1: no CoC passes 1 and every
// piece lands on its own pixel. This widens the region so that depths away from 100 blur.
void blurAround100(tzVorel& node, float multiplier) {
  setKnob(node, "focusRegionSize", 40.0);
  setKnob(node, "multiplier", multiplier);
}

}  // namespace

// ---- in focus: the output is the deep pixel flattened -----------------------------------------

TEST(DeepEngineInFocus, RandomLayersComeOutAsTheirComposite) {
  const int w = 12, h = 9;
  DeepScene scene(w, h);
  std::mt19937 rng(7u);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f), depth(95.0f, 105.0f);
  std::vector<std::vector<Sample>> pixels(w * h);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      std::vector<Sample>& samples = pixels[y * w + x];
      const int count = static_cast<int>(unit(rng) * 4.0f);  // 0 to 3
      for (int k = 0; k < count; ++k) {
        // Mostly partial cover, now and then an opaque layer that hides what lies behind it.
        const float a = unit(rng) < 0.2f ? 1.0f : unit(rng);
        samples.push_back({depth(rng), a, a * unit(rng), a * unit(rng), a * unit(rng)});
        scene.add(x, y, samples.back());
      }
      std::sort(samples.begin(), samples.end(),
                [](const Sample& a, const Sample& b) { return a.depth < b.depth; });
    }

  const Image out = scene.render();
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      SCOPED_TRACE(testing::Message() << x << "," << y);
      const std::vector<Sample>& samples = pixels[y * w + x];
      EXPECT_NEAR(out.at(x, y, Chan_Red), over(samples, &Sample::red), 1e-5f);
      EXPECT_NEAR(out.at(x, y, Chan_Green), over(samples, &Sample::green), 1e-5f);
      EXPECT_NEAR(out.at(x, y, Chan_Blue), over(samples, &Sample::blue), 1e-5f);
      EXPECT_NEAR(out.at(x, y, Chan_Alpha), over(samples, nullptr), 1e-5f);
    }
}

TEST(DeepEngineInFocus, HalfTransparentLayerKeepsItsPremultipliedValues) {
  // Alone, and over a background that is blurred: the remainder fills exactly what the layer
  // leaves uncovered, so the division by coverage does not brighten the layer.
  for (float multiplier : {1.0f, 9.0f}) {
    SCOPED_TRACE(multiplier);
    DeepScene scene(9, 9);
    blurAround100(*scene.node, multiplier);
    for (int y = 0; y < 9; ++y)
      for (int x = 0; x < 9; ++x)
        scene.add(x, y, {100.0f, 0.5f, 0.4f});
    const Image out = scene.render();
    for (int y = 0; y < 9; ++y)
      for (int x = 0; x < 9; ++x) {
        EXPECT_NEAR(out.at(x, y, Chan_Red), 0.4f, 1e-6f);
        EXPECT_NEAR(out.at(x, y, Chan_Alpha), 0.5f, 1e-6f);
      }
  }
}

TEST(DeepEngineInFocus, ChannelsTheDeepImageLacksComeFromInputZero) {
  // The deep image has alpha alone; red is taken from the flat input at the same pixel, spread
  // with the pieces' weights, and is 0 in the remainder.
  DeepScene scene(6, 4, ChannelSet(Mask_Alpha),
                  [](int x, int, Channel z) { return z == Chan_Red ? 0.1f * (x + 1) : 0.0f; });
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 6; ++x)
      scene.add(x, y, {100.0f, x < 3 ? 1.0f : 0.5f});
  const Image out = scene.render();
  for (int x = 0; x < 6; ++x) {
    const float alpha = x < 3 ? 1.0f : 0.5f;
    EXPECT_NEAR(out.at(x, 2, Chan_Red), 0.1f * (x + 1) * alpha, 1e-6f) << x;
    EXPECT_NEAR(out.at(x, 2, Chan_Alpha), alpha, 1e-6f) << x;
  }
}

TEST(DeepEngineInFocus, AlphaOfZeroOrAboveOneAndNaNDepthsStayDefined) {
  DeepScene scene(4, 1);
  scene.add(0, 0, {100.0f, 0.0f, 0.0f});                     // nothing to un-premultiply
  scene.add(1, 0, {100.0f, 2.0f, 0.6f});                     // more than opaque
  scene.add(2, 0, {std::numeric_limits<float>::quiet_NaN(), 1.0f, 0.3f});
  scene.add(3, 0, {100.0f, 0.9999999f});                      // as good as opaque: the walk ends
  scene.add(3, 0, {100.2f, 1.0f, 1.0f});
  const Image out = scene.render();
  EXPECT_EQ(out.at(0, 0, Chan_Red), 0.0f);
  EXPECT_EQ(out.at(0, 0, Chan_Alpha), 0.0f);
  // One piece of weight 2 carrying red 0.3 un-premultiplied, and no remainder.
  EXPECT_NEAR(out.at(1, 0, Chan_Red), 0.3f, 1e-6f);
  EXPECT_NEAR(out.at(1, 0, Chan_Alpha), 1.0f, 1e-6f);
  EXPECT_NEAR(out.at(2, 0, Chan_Red), 0.3f, 1e-6f);
  EXPECT_EQ(out.at(3, 0, Chan_Red), 0.0f);
}

// ---- out of focus ---------------------------------------------------------------------------

TEST(DeepEngineBlur, OpaqueSingleSamplesBlurLikeTheFlatImage) {
  // One opaque sample per pixel at the flat image's depth: the deep walk must reduce to the flat
  // engine exactly, edges of the format included.
  const int w = 23, h = 17;
  auto colour = [](int x, int y, Channel z) -> float {
    switch (z) {
      case Chan_Red: return static_cast<float>((x * 7 + y * 3) % 11) / 10.0f;
      case Chan_Green: return static_cast<float>((x * x + y) % 5) / 4.0f;
      case Chan_Blue: return x > 11 ? 1.0f : 0.0f;
      case Chan_Alpha: return 1.0f;
      case Chan_Z: return 80.0f + static_cast<float>((x * 5 + y * 9) % 41);
      default: return 0.0f;
    }
  };
  DeepScene scene(w, h, ChannelSet(Mask_RGBA), colour);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      scene.add(x, y, {colour(x, y, Chan_Z), 1.0f, colour(x, y, Chan_Red), colour(x, y, Chan_Green),
                       colour(x, y, Chan_Blue)});
  blurAround100(*scene.node, 7.5f);
  const Image deep = scene.render();

  auto flatInput = flatImage(w, h, rgbaz(), colour);
  auto flat = makeNode();
  ASSERT_TRUE(host::connect(*flat, 0, flatInput.get()));
  blurAround100(*flat, 7.5f);
  const Image expected = render(*flat, Box(0, 0, w, h), Mask_RGBA);

  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      foreach (z, ChannelSet(Mask_RGBA))
        ASSERT_NEAR(deep.at(x, y, z), expected.at(x, y, z), 1e-6f) << x << "," << y << " ch " << z;
  // A real blur, not the identity.
  EXPECT_GT(std::fabs(deep.at(5, 5, Chan_Red) - colour(5, 5, Chan_Red)), 1e-3f);
}

TEST(DeepEngineBlur, EmptyPixelsAddWeightWithoutColour) {
  // A single opaque white pixel among empty ones, all at the same blur: its neighbours' remainders
  // dilute it, so it comes out as transparent white, red equal to alpha, below 1.
  DeepScene scene(15, 15);
  blurAround100(*scene.node, 9.0f);
  scene.add(7, 7, {200.0f, 1.0f, 1.0f, 1.0f, 1.0f});
  const Image out = scene.render();
  const float centre = out.at(7, 7, Chan_Red);
  EXPECT_GT(centre, 0.0f);
  EXPECT_LT(centre, 0.5f);
  EXPECT_NEAR(out.at(7, 7, Chan_Alpha), centre, 1e-6f);
  EXPECT_NEAR(out.at(9, 7, Chan_Alpha), out.at(9, 7, Chan_Green), 1e-6f);
  // Beyond the kernel's reach nothing of it arrives, and the empty pixels bring no colour.
  EXPECT_EQ(out.at(0, 0, Chan_Red), 0.0f);
  EXPECT_EQ(out.at(0, 0, Chan_Alpha), 0.0f);
}

TEST(DeepEngineBlur, SameOutputOnOneAndManyThreads) {
  const int w = 31, h = 24;
  DeepScene scene(w, h);
  blurAround100(*scene.node, 6.0f);
  std::mt19937 rng(11u);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f), depth(70.0f, 130.0f);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int k = static_cast<int>(unit(rng) * 4.0f); k > 0; --k) {
        const float a = unit(rng);
        const float front = depth(rng);
        scene.addVolume(x, y, front, front + unit(rng) * 10.0f, a, a * unit(rng));
      }
  const Image one = scene.render(Mask_RGBA, 1);
  const Image many = scene.render(Mask_RGBA, 4);
  EXPECT_TRUE(one == many);
}

// ---- front and back passes ------------------------------------------------------------------

class DeepEngineSides : public testing::Test {
protected:
  // Every pixel: red 0.8 at alpha 0.5 in front of the focal plane, then opaque green behind it.
  DeepEngineSides() : scene(5, 3) {
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 5; ++x) {
        scene.add(x, y, {99.8f, 0.5f, 0.4f});
        scene.add(x, y, {100.2f, 1.0f, 0.0f, 1.0f});
      }
  }
  DeepScene scene;
};

TEST_F(DeepEngineSides, BothSidesTogether) {
  EXPECT_NEAR(scene.engineRow(1, 0, Chan_Red)[2], 0.4f, 1e-6f);
  EXPECT_NEAR(scene.engineRow(1, 0, Chan_Green)[2], 0.5f, 1e-6f);
  EXPECT_NEAR(scene.engineRow(1, 0, Chan_Alpha)[2], 1.0f, 1e-6f);
}

TEST_F(DeepEngineSides, FrontPassLeavesTheBackToTheRemainder) {
  EXPECT_NEAR(scene.engineRow(1, 1, Chan_Red)[2], 0.4f, 1e-6f);
  EXPECT_NEAR(scene.engineRow(1, 1, Chan_Green)[2], 0.0f, 1e-6f);
  EXPECT_NEAR(scene.engineRow(1, 1, Chan_Alpha)[2], 0.5f, 1e-6f);
}

TEST_F(DeepEngineSides, BackPassSeesNothingInFront) {
  EXPECT_NEAR(scene.engineRow(1, 2, Chan_Red)[2], 0.0f, 1e-6f);
  EXPECT_NEAR(scene.engineRow(1, 2, Chan_Green)[2], 1.0f, 1e-6f);
  EXPECT_NEAR(scene.engineRow(1, 2, Chan_Alpha)[2], 1.0f, 1e-6f);
}

TEST_F(DeepEngineSides, SeparateIntegrationThroughTheNode) {
  setKnob(*scene.node, "integrateFrontAndBackSeperately", 1.0);
  const struct {
    int focusOutput;
    float red, green, alpha;
  } cases[] = {{0, 0.4f, 0.5f, 1.0f}, {1, 0.4f, 0.0f, 0.5f}, {2, 0.0f, 1.0f, 1.0f}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.focusOutput);
    setKnob(*scene.node, "focusOutput", c.focusOutput);
    const Image out = scene.render();
    EXPECT_NEAR(out.at(3, 1, Chan_Red), c.red, 1e-6f);
    EXPECT_NEAR(out.at(3, 1, Chan_Green), c.green, 1e-6f);
    EXPECT_NEAR(out.at(3, 1, Chan_Alpha), c.alpha, 1e-6f);
  }
}

// ---- what the engine passes over ------------------------------------------------------------

TEST(DeepEngineInputs, FailedFetchLeavesTheEffectChannelsEmptyAndPassesTheRestThrough) {
  DeepScene scene(6, 3, ChannelSet(Mask_RGBA),
                  [](int, int, Channel z) { return z == Chan_Z ? 42.0f : 0.7f; });
  for (int x = 0; x < 6; ++x)
    scene.add(x, 1, {100.0f, 1.0f, 1.0f});
  scene.deep->setEngineFails(true);
  ChannelSet channels(Mask_RGBA);
  channels += Chan_Z;
  const Image out = scene.render(channels);
  EXPECT_EQ(out.at(2, 1, Chan_Red), 0.0f);
  EXPECT_EQ(out.at(2, 1, Chan_Alpha), 0.0f);
  EXPECT_EQ(out.at(2, 1, Chan_Z), 42.0f);
}

TEST(DeepEngineInputs, SpanWhollyBeyondTheFormatIsEmpty) {
  DeepScene scene(10, 4);
  blurAround100(*scene.node, 5.0f);
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 10; ++x)
      scene.add(x, y, {130.0f, 1.0f, 1.0f, 1.0f, 1.0f});
  scene.deep->finish();
  for (const Box& area : {Box(30, 0, 40, 4), Box(-40, 0, -30, 4)}) {
    const Image out = render(*scene.node, area, Mask_RGBA);
    for (int y = 0; y < 4; ++y)
      for (int x = area.x(); x < area.r(); ++x)
        ASSERT_EQ(out.at(x, y, Chan_Alpha), 0.0f) << x;
  }
  // Just past the edge the edge pixels, repeated beyond it, still reach.
  const Image near = render(*scene.node, Box(10, 0, 12, 4), Mask_RGBA);
  EXPECT_GT(near.at(10, 1, Chan_Alpha), 0.5f);
}

// ---- previews -------------------------------------------------------------------------------

class DeepPreview : public testing::Test {
protected:
  // Focal plane 100; 50 lies in front of it and 150 behind it.
  DeepPreview() : scene(6, 1, ChannelSet(Mask_RGBA), [](int, int, Channel z) {
    return z == Chan_Alpha ? 0.25f : 0.0f;
  }) {
    scene.add(0, 0, {50.0f, 1.0f});
    scene.add(1, 0, {50.0f, 0.5f});
    scene.add(2, 0, {50.0f, 0.5f});
    scene.add(2, 0, {150.0f, 0.5f});
    // pixel 3 stays empty
    scene.add(4, 0, {100.0f, 0.5f});
    scene.add(5, 0, {50.0f, 0.9999999f});
    scene.add(5, 0, {100.0f, 1.0f});
  }
  Image render(int outputType) {
    setKnob(*scene.node, "outputType", outputType);
    return scene.render();
  }
  DeepScene scene;
};

TEST_F(DeepPreview, FocusMatteComposesTheSidesByAlpha) {
  const Image out = render(4);
  const struct {
    int x;
    float red, green, blue;
  } expected[] = {
      {0, 0, 1, 0},        // opaque front: the walk stops there
      {1, 0, 0.5f, 0.5f},  // half front, half the far limit
      {2, 0, 0.5f, 0.5f},  // half front, a quarter back, a quarter far limit
      {3, 0, 0, 1},        // empty: the far limit alone
      {4, 0, 0, 1},        // on the focal plane counts as back
  };
  for (const auto& e : expected) {
    SCOPED_TRACE(e.x);
    EXPECT_NEAR(out.at(e.x, 0, Chan_Red), e.red, 1e-6f);
    EXPECT_NEAR(out.at(e.x, 0, Chan_Green), e.green, 1e-6f);
    EXPECT_NEAR(out.at(e.x, 0, Chan_Blue), e.blue, 1e-6f);
    EXPECT_EQ(out.at(e.x, 0, Chan_Alpha), 0.25f);  // alpha is the flat input's
  }
}

TEST_F(DeepPreview, FocalDistanceShowsTheInFocusShareInRed) {
  const Image out = render(2);
  // Half of pixel 4 lies on the focal plane; the far limit has CoC 1 and is out of focus.
  EXPECT_NEAR(out.at(4, 0, Chan_Red), 0.5f, 1e-6f);
  EXPECT_NEAR(out.at(3, 0, Chan_Red), 0.0f, 1e-6f);
  EXPECT_GT(out.at(3, 0, Chan_Blue), 0.0f);
  // Only full cover ends the walk: the in-focus sample behind a nearly opaque one still shows.
  EXPECT_GT(out.at(5, 0, Chan_Red), 0.0f);
  EXPECT_LT(out.at(5, 0, Chan_Red), 1e-6f);
}

TEST_F(DeepPreview, WhatItCannotShowIsZero) {
  setKnob(*scene.node, "outputType", 4);
  scene.deep->finish();
  host::prepare(*scene.node, Box(-2, 0, 8, 1), Mask_RGBA);
  auto previewRow = [&](int x, int r) {
    Row row(x, r);
    foreach (z, ChannelSet(Mask_RGBA))
      std::fill(row.writable(z) + x, row.writable(z) + r, 7.0f);
    vorel::deepPreviewRow(*scene.node, 0, x, r, Mask_RGBA, row);
    std::vector<std::vector<float>> planes(5);
    foreach (z, ChannelSet(Mask_RGBA))
      planes[z].assign(row[z] + x, row[z] + r);
    return planes;
  };
  // Beyond the deep image's data window the pixels are empty, not missing: the far limit shows.
  auto wide = previewRow(-2, 8);
  EXPECT_EQ(wide[Chan_Blue][0], 1.0f);
  EXPECT_EQ(wide[Chan_Blue][9], 1.0f);
  // A failed fetch leaves nothing to show.
  scene.deep->setEngineFails(true);
  auto failed = previewRow(0, 6);
  for (int x = 0; x < 6; ++x) {
    EXPECT_EQ(failed[Chan_Green][x], 0.0f);
    EXPECT_EQ(failed[Chan_Blue][x], 0.0f);
    EXPECT_EQ(failed[Chan_Alpha][x], 0.25f);
  }
}
