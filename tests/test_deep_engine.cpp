// Defocusing a deep input, and the previews of a deep input, through the node as the host runs it.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "DDImage/Host.h"
#include "DDImage/Row.h"
#include "lens/CircleOfConfusion.h"
#include "previews/Previews.h"
#include "support/TestScenes.h"

using namespace DD::Image;
using namespace vorel::test;

namespace {

struct Sample {
  float depth;
  float alpha;
  float red = 0.0f, green = 0.0f, blue = 0.0f;  // premultiplied
  float thickness = 0.0f;
};

using RGBA = std::array<float, 4>;

RGBA at(const Image& image, int x, int y) {
  return {image.at(x, y, Chan_Red), image.at(x, y, Chan_Green), image.at(x, y, Chan_Blue),
          image.at(x, y, Chan_Alpha)};
}

void expectNear(const RGBA& got, const RGBA& want, float tolerance = 1e-6f) {
  for (int k = 0; k < 4; ++k)
    EXPECT_NEAR(got[k], want[k], tolerance) << "rgba"[k];
}

// A flat input 0 (format, pass-through channels) beside a deep input 3, and the node over them.
struct DeepScene {
  DeepScene(int width, int height, const ChannelSet& deepChannels = ChannelSet(Mask_RGBA),
            const std::function<float(int, int, Channel)>& flat = [](int, int, Channel) { return 0.0f; })
      : width(width), height(height), input(flatImage(width, height, rgbaz(), flat)),
        deep(std::make_unique<host::DeepImage>(Format(width, height), Box(0, 0, width, height),
                                               deepChannels)),
        node(makeNode()) {
    EXPECT_TRUE(host::connect(*node, 0, input.get()));
    EXPECT_TRUE(host::connect(*node, 3, deep.get()));
  }

  void add(int x, int y, const Sample& s) {
    deep->addSample(x, y, {{Chan_DeepFront, s.depth}, {Chan_DeepBack, s.depth + s.thickness}, {Chan_Alpha, s.alpha},
                           {Chan_Red, s.red}, {Chan_Green, s.green}, {Chan_Blue, s.blue}});
  }
  void fill(const Sample& s) {
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x)
        add(x, y, s);
  }

  Image render(const ChannelSet& channels = ChannelSet(Mask_RGBA), unsigned threads = 1) {
    deep->finish();
    return vorel::test::render(*node, Box(0, 0, width, height), channels, threads);
  }

  int width, height;
  std::unique_ptr<host::FlatImage> input;
  std::unique_ptr<host::DeepImage> deep;
  std::unique_ptr<tzVorel> node;
};

// The default region is focal plane 100 +- 0.5 with a multiplier of 1: no CoC passes 1 and every
// piece lands on its own pixel. This widens the region so that depths away from 100 blur.
void blurAround100(tzVorel& node, float multiplier) {
  setKnob(node, "focusRegionSize", 40.0);
  setKnob(node, "multiplier", multiplier);
}

}  // namespace

// ---- in focus: the output is the deep pixel flattened -----------------------------------------

TEST(DeepEngineInFocus, RandomLayersComeOutAsTheirComposite) {
  // The deep image lacks blue: every piece takes it from the flat input at its pixel, so blue
  // comes out as that value times the cover (the samples below carry it only for the expectation).
  const int w = 12, h = 9;
  DeepScene scene(w, h, ChannelSet(Mask_Red) + Chan_Green + Chan_Alpha,
                  [](int x, int, Channel z) { return z == Chan_Blue ? 0.1f * (x + 1) : 0.0f; });
  std::mt19937 rng(7u);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  std::vector<RGBA> composite(w * h);  // the layers, nearest first, over one another
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      float depth = 95.0f, left = 1.0f;
      for (int k = static_cast<int>(unit(rng) * 4.0f); k > 0; --k) {
        // Mostly partial cover, now and then an opaque layer that hides what lies behind it.
        const float a = unit(rng) < 0.2f ? 1.0f : unit(rng);
        const RGBA premultiplied = {a * unit(rng), a * unit(rng), a * 0.1f * (x + 1), a};
        depth += unit(rng) * 3.0f;
        scene.add(x, y, {depth, a, premultiplied[0], premultiplied[1], premultiplied[2]});
        for (int c = 0; c < 4; ++c)
          composite[y * w + x][c] += left * premultiplied[c];
        left *= 1.0f - a;
      }
    }
  const Image out = scene.render();
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      SCOPED_TRACE(testing::Message() << x << "," << y);
      expectNear(at(out, x, y), composite[y * w + x], 1e-5f);
    }
}

TEST(DeepEngineInFocus, AlphaOfZeroOrAboveOneAndNaNDepthsStayDefined) {
  DeepScene scene(4, 1);
  scene.add(0, 0, {100.0f, 0.0f, 0.0f});  // nothing to un-premultiply
  scene.add(1, 0, {100.0f, 2.0f, 0.6f});  // more than opaque
  scene.add(2, 0, {std::numeric_limits<float>::quiet_NaN(), 1.0f, 0.3f});
  scene.add(3, 0, {100.0f, 0.9999999f});  // as good as opaque: the walk ends
  scene.add(3, 0, {100.2f, 1.0f, 1.0f});
  const Image out = scene.render();
  expectNear(at(out, 0, 0), {0.0f, 0.0f, 0.0f, 0.0f}, 0.0f);
  // One piece of weight 2 carrying red 0.3 un-premultiplied, and no remainder.
  expectNear(at(out, 1, 0), {0.3f, 0.0f, 0.0f, 1.0f});
  EXPECT_NEAR(out.at(2, 0, Chan_Red), 0.3f, 1e-6f);
  EXPECT_EQ(out.at(3, 0, Chan_Red), 0.0f);
}

// ---- out of focus ---------------------------------------------------------------------------

TEST(DeepEngineBlur, OpaqueOrEmptyPixelsBlurLikeTheFlatImage) {
  // One opaque sample per pixel at the flat image's depth, or none: the deep walk must reduce to
  // the flat engine exactly, at the edges of the format and beyond them. An empty pixel adds weight without
  // colour, as a transparent black pixel at the far limit does in the flat image.
  const int w = 23, h = 17;
  auto empty = [](int x, int y) { return (x * 3 + y * 5) % 7 == 0; };
  auto colour = [&](int x, int y, Channel z) {
    return empty(x, y) ? (z == Chan_Z ? vorel::kFarLimit : 0.0f)
           : z == Chan_Alpha ? 1.0f
           : z == Chan_Z     ? 80.0f + static_cast<float>((x * 5 + y * 9) % 41)
                             : static_cast<float>((x * 7 + y * 3 + x * y * z) % 11) / 10.0f;
  };
  DeepScene scene(w, h, ChannelSet(Mask_RGBA), colour);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      if (!empty(x, y))
        scene.add(x, y, {colour(x, y, Chan_Z), 1.0f, colour(x, y, Chan_Red), colour(x, y, Chan_Green),
                         colour(x, y, Chan_Blue)});
  blurAround100(*scene.node, 7.5f);
  scene.deep->finish();
  // Two columns past each edge too, where the edge pixels, repeated beyond it, still reach.
  const Box area(-2, 0, w + 2, h);
  const Image deep = render(*scene.node, area, Mask_RGBA);
  EXPECT_GT(deep.at(w, 1, Chan_Alpha), 0.5f);
  // Rows wholly beyond the format fetch nothing and stay empty.
  for (const Box& beyond : {Box(60, 0, 70, h), Box(-70, 0, -60, h)})
    EXPECT_EQ(render(*scene.node, beyond, Mask_RGBA).planes[Chan_Alpha], std::vector<float>(10 * h, 0.0f));

  ASSERT_TRUE(host::connect(*scene.node, 3, nullptr));  // the flat engine over input 0
  const Image expected = render(*scene.node, area, Mask_RGBA);
  for (int y = 0; y < h; ++y)
    for (int x = area.x(); x < area.r(); ++x) {
      SCOPED_TRACE(testing::Message() << x << "," << y);
      expectNear(at(deep, x, y), at(expected, x, y));
    }
  // A real blur, not the identity.
  EXPECT_GT(std::fabs(deep.at(5, 5, Chan_Red) - colour(5, 5, Chan_Red)), 1e-3f);
}

TEST(DeepEngineBlur, SameOutputOnOneAndManyThreads) {
  const int w = 31, h = 24;
  DeepScene scene(w, h);
  blurAround100(*scene.node, 6.0f);
  std::mt19937 rng(11u);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f), depth(70.0f, 130.0f);
  for (int k = 0; k < 3 * w * h; ++k) {  // three overlapping volumes a pixel
    const float a = unit(rng);
    scene.add(k % w, k / w % h, {depth(rng), a, a * unit(rng), 0.0f, 0.0f, unit(rng) * 10.0f});
  }
  EXPECT_TRUE(scene.render(Mask_RGBA, 1) == scene.render(Mask_RGBA, 4));
}

TEST(DeepEngineBlur, FrontAndBackPassesLeaveTheOtherSideToTheRemainder) {
  // Every pixel: red 0.8 at alpha 0.5 in front of the focal plane, then opaque green behind it,
  // both in focus; only the remainder is blurred. It fills exactly what the layers leave
  // uncovered, so the division by coverage brightens nothing.
  DeepScene scene(5, 3);
  blurAround100(*scene.node, 9.0f);
  scene.fill({99.8f, 0.5f, 0.4f});
  scene.fill({100.2f, 1.0f, 0.0f, 1.0f});
  // Together in one pass, then integrated separately: Both (the front pass over the back pass),
  // Front (the back left to the remainder) and Back (nothing in front).
  const struct {
    bool separately;
    int focusOutput;
    RGBA rgba;
  } cases[] = {{false, 0, {0.4f, 0.5f, 0.0f, 1.0f}}, {true, 0, {0.4f, 0.5f, 0.0f, 1.0f}},
               {true, 1, {0.4f, 0.0f, 0.0f, 0.5f}}, {true, 2, {0.0f, 1.0f, 0.0f, 1.0f}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.separately << " " << c.focusOutput);
    setKnob(*scene.node, "integrateFrontAndBackSeperately", c.separately);
    setKnob(*scene.node, "focusOutput", c.focusOutput);
    const Image out = scene.render();
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 5; ++x)
        expectNear(at(out, x, y), c.rgba);
  }
}

// ---- previews -------------------------------------------------------------------------------

class DeepPreview : public testing::Test {
protected:
  // Focal plane 100; 50 lies in front of it and 150 behind it. Pixel 3 stays empty.
  DeepPreview() : scene(6, 1, ChannelSet(Mask_RGBA), [](int, int, Channel z) {
    return z == Chan_Alpha ? 0.25f : z == Chan_Z ? 42.0f : 0.7f;
  }) {
    scene.add(0, 0, {50.0f, 1.0f});
    scene.add(1, 0, {50.0f, 0.5f});
    scene.add(2, 0, {50.0f, 0.5f});
    scene.add(2, 0, {150.0f, 0.5f});
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

TEST_F(DeepPreview, ComposesTheSamplesByAlpha) {
  const Image out = render(4);
  // Green for the front, blue for the back; alpha is the flat input's.
  const RGBA expected[] = {
      {0.0f, 1.0f, 0.0f, 0.25f},   // opaque front: the walk stops there
      {0.0f, 0.5f, 0.5f, 0.25f},   // half front, half the far limit
      {0.0f, 0.5f, 0.5f, 0.25f},   // half front, a quarter back, a quarter far limit
      {0.0f, 0.0f, 1.0f, 0.25f},   // empty: the far limit alone
      {0.0f, 0.0f, 1.0f, 0.25f},   // on the focal plane counts as back
  };
  for (int x = 0; x < 5; ++x) {
    SCOPED_TRACE(x);
    expectNear(at(out, x, 0), expected[x]);
  }
  // Focal distance, in red: half of pixel 4 lies on the focal plane, the far limit is out of it.
  const Image distance = render(2);
  EXPECT_NEAR(distance.at(4, 0, Chan_Red), 0.5f, 1e-6f);
  // Only full cover ends the walk: the in-focus sample behind a nearly opaque one still shows.
  EXPECT_GT(distance.at(5, 0, Chan_Red), 0.0f);
  EXPECT_LT(distance.at(5, 0, Chan_Red), 1e-6f);
}

TEST_F(DeepPreview, BeyondTheDataWindowTheFarLimitShows) {
  scene.deep->finish();
  const ChannelSet channels = ChannelSet(Mask_RGBA) + Chan_Z;
  // The row starts out as 7 in every channel, so that nothing left unwritten passes for a value.
  auto engineRow = [&](int outputType, int x, int r) {
    setKnob(*scene.node, "outputType", outputType);
    host::prepare(*scene.node, Box(x, 0, r, 1), channels);
    Row row(x, r);
    foreach (z, channels)
      std::fill(row.writable(z) + x, row.writable(z) + r, 7.0f);
    scene.node->engine(0, x, r, channels, row);
    Image image{Box(x, 0, r, 1), channels, std::vector<std::vector<float>>(1024)};
    foreach (z, channels)
      image.planes[z].assign(row[z] + x, row[z] + r);
    return image;
  };
  // Beyond the deep image's data window the pixels are empty, not missing: the far limit shows.
  const Image wide = engineRow(4, -2, 8);
  EXPECT_EQ(wide.at(-2, 0, Chan_Blue), 1.0f);
  EXPECT_EQ(wide.at(7, 0, Chan_Blue), 1.0f);
}
