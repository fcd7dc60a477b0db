// The flat defocus through the host: whole images with known answers (in focus, flat depth,
// one bright pixel), layering by slices, the focus regions, bloom, mattes, the edges of the
// format, bad pixels, and threads.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>
#include <random>

#include "DDImage/Row.h"
#include "engines/OpticalArtefacts.h"
#include "engines/Splat.h"
#include "engines/SplatContext.h"
#include "support/TestScenes.h"

using namespace DD::Image;
using namespace vorel;
using namespace vorel::test;

namespace {

// The default lens: focal plane 100, focus region 1, so a depth of 100 is sharp and any depth
// beyond [99.5, 100.5] has CoC `multiplier` (in front when below 100, behind when above).
constexpr float kSharp = 100.0f;
constexpr float kFar = 1000.0f;
constexpr float kNear = 10.0f;

// An odd-looking but smooth colour per channel, so that a moved or mirrored pixel shows.
float colourAt(int x, int y, Channel z) {
  return 0.05f * static_cast<float>(z) + 0.013f * static_cast<float>(x) + 0.007f * static_cast<float>(y);
}

struct Scene {
  std::unique_ptr<host::FlatImage> image;
  std::unique_ptr<tzVorel> node = makeNode();

  Scene(int w, int h, const std::function<float(int, int, Channel)>& f, float multiplier = 9.0f) {
    image = flatImage(w, h, rgbaz(), f);
    EXPECT_TRUE(host::connect(*node, 0, image.get()));
    setKnob(*node, "multiplier", multiplier);
  }
  Image render(unsigned threads = 1) { return vorel::test::render(*node, rgbaz(), threads); }
  Image render(const Box& area, unsigned threads = 1) {
    return vorel::test::render(*node, area, rgbaz(), threads);
  }
};

// Colour from colourAt, depth from depth(x, y).
std::function<float(int, int, Channel)> withDepth(std::function<float(int, int)> depth) {
  return [depth](int x, int y, Channel z) { return z == Chan_Z ? depth(x, y) : colourAt(x, y, z); };
}

std::function<float(int, int)> everywhere(float d) {
  return [d](int, int) { return d; };
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Whole images with a known answer.

TEST(FlatDefocus, ImageInFocusComesOutUnchanged) {
  Scene s(23, 17, withDepth(everywhere(kSharp)));
  const Image out = s.render();
  for (int y = 0; y < 17; ++y)
    for (int x = 0; x < 23; ++x)
      foreach (z, rgbaz())
        ASSERT_FLOAT_EQ(out.at(x, y, z), z == Chan_Z ? kSharp : colourAt(x, y, z)) << x << "," << y << " channel " << z;
  // A defocus matte of 0 makes any depth sharp.
  auto mattes = flatImage(23, 17, ChannelSet(Mask_RGBA), [](int, int, Channel) { return 0.0f; });
  Scene far(23, 17, withDepth(everywhere(kFar)));
  host::connect(*far.node, 4, mattes.get());
  setChannelKnob(*far.node, "defocusMatteChannel", Chan_Alpha);
  const Image sharp = far.render();
  for (int y = 0; y < 17; ++y)
    for (int x = 0; x < 23; ++x)
      ASSERT_FLOAT_EQ(sharp.at(x, y, Chan_Green), colourAt(x, y, Chan_Green)) << x << "," << y;
}

TEST(FlatDefocus, FlatDepthKeepsConstantsAndRampsAwayFromTheBorders) {
  // A constant image stays constant everywhere, borders included: the edge rows and columns
  // repeat, and the division by the weight brings every pixel to level.
  Scene flat(30, 24, [](int, int, Channel z) { return z == Chan_Z ? kFar : 0.25f * static_cast<float>(z); });
  const Image constant = flat.render();
  for (int y = 0; y < 24; ++y)
    for (int x = 0; x < 30; ++x)
      for (Channel z : {Chan_Red, Chan_Alpha})
        ASSERT_NEAR(constant.at(x, y, z), 0.25f * static_cast<float>(z), 1e-5f) << x << "," << y;

  // A linear ramp under a symmetric kernel stays the same ramp where the kernel doesn't reach the
  // border: a pixel spread one column or row off would be off by the ramp's slope.
  Scene ramp(40, 32, withDepth(everywhere(kFar)));
  const Image out = ramp.render();
  const int reach = ramp.node->kernelRadius;
  ASSERT_EQ(ramp.node->maxCoC, 9);
  for (int y = reach; y < 32 - reach; ++y)
    for (int x = reach; x < 40 - reach; ++x)
      ASSERT_NEAR(out.at(x, y, Chan_Blue), colourAt(x, y, Chan_Blue), 2e-4f) << x << "," << y;
  // Near the border the repeated edge pulls the ramp toward the edge value.
  EXPECT_GT(out.at(0, 16, Chan_Blue), colourAt(0, 16, Chan_Blue) + 0.005f);

  // Noise keeps its mean colour away from the borders.
  std::mt19937 random(3);
  std::uniform_real_distribution<float> value(0.0f, 1.0f);
  std::vector<float> noise(64 * 48);
  for (float& v : noise)
    v = value(random);
  Scene noisy(64, 48, [&](int x, int y, Channel z) {
    return z == Chan_Z ? kFar : noise[static_cast<std::size_t>(y * 64 + x)];
  });
  const Image blurred = noisy.render();
  double before = 0.0, after = 0.0;
  int pixels = 0;
  for (int y = 12; y < 36; ++y)
    for (int x = 12; x < 52; ++x, ++pixels) {
      before += noise[static_cast<std::size_t>(y * 64 + x)];
      after += blurred.at(x, y, Chan_Green);
    }
  EXPECT_NEAR(after / pixels, before / pixels, 0.01);
  EXPECT_LT(std::fabs(blurred.at(30, 24, Chan_Green) - blurred.at(31, 24, Chan_Green)), 0.1f);
}

TEST(FlatDefocus, BrightPixelSpreadsIntoTheKernelAroundItself) {
  const int cx = 20, cy = 14;
  for (float coc : {9.0f, 8.0f}) {
    SCOPED_TRACE(coc);
    Scene s(41, 29, [&](int x, int y, Channel z) {
      if (z == Chan_Z)
        return kFar;
      return z == Chan_Red && x == cx && y == cy ? 1.0f : 0.0f;
    }, coc);
    const Image out = s.render();
    const tzVorel& node = *s.node;

    // The blend of entries that CoC 9 (entry 9 alone) or 8 (entries 8 and 10 at half each) uses,
    // as the weight one source lays on the output pixel at (dx, dy) from it.
    auto kernel = [&](int dx, int dy) {
      float sum = 0.0f;
      const std::pair<int, float> passes[2] = {{coc == 9.0f ? 9 : 8, coc == 9.0f ? 1.0f : 0.5f},
                                               {10, coc == 9.0f ? 0.0f : 0.5f}};
      for (const auto& [e, w] : passes) {
        const Kernel& k = node.kernelBank[e];
        if (w > 0.0f && std::abs(dx) <= k.half && std::abs(dy) <= k.half)
          sum += w * k.plane(Chan_Red)[(dy + k.half) * k.width + (dx + k.half)];
      }
      return sum;
    };
    float total = 0.0f;
    for (int dy = -4; dy <= 4; ++dy)
      for (int dx = -4; dx <= 4; ++dx)
        total += kernel(dx, dy);

    int left = 1000, right = -1000, bottom = 1000, top = -1000;
    for (int y = 0; y < 29; ++y)
      for (int x = 0; x < 41; ++x) {
        const float v = out.at(x, y, Chan_Red);
        // Output row y reads kernel row cy - y + h: the kernel is mirrored top to bottom.
        ASSERT_NEAR(v, kernel(x - cx, cy - y) / total, 1e-5f) << x << "," << y;
        if (v > 0.0f) {
          left = std::min(left, x);
          right = std::max(right, x);
          bottom = std::min(bottom, y);
          top = std::max(top, y);
        }
      }
    // A circle of side 9 reaches 4 pixels each way.
    EXPECT_EQ(left, cx - 4);
    EXPECT_EQ(right, cx + 4);
    EXPECT_EQ(bottom, cy - 4);
    EXPECT_EQ(top, cy + 4);
    EXPECT_EQ(out.at(cx, cy, Chan_Green), 0.0f);
  }
}

// ---------------------------------------------------------------------------------------------
// Layering and focus regions.

TEST(FlatLayers, NearSliceOccludesFarOne) {
  // A sharp red square in front of a blurred blue background.
  auto depthAndColour = [](int x, int y, Channel z) {
    const bool square = x >= 10 && x < 20 && y >= 10 && y < 20;
    if (z == Chan_Z)
      return square ? kSharp : kFar;
    if (z == Chan_Red)
      return square ? 1.0f : 0.0f;
    if (z == Chan_Blue)
      return square ? 0.0f : 1.0f;
    return 1.0f;
  };
  Scene sliced(30, 30, depthAndColour);
  const Image layered = sliced.render();
  Scene single(30, 30, depthAndColour);
  setKnob(*single.node, "correctiveSlices", 1);
  const Image mixed = single.render();

  for (int y = 10; y < 20; ++y)
    for (int x = 10; x < 20; ++x) {
      ASSERT_EQ(layered.at(x, y, Chan_Blue), 0.0f) << x << "," << y;
      ASSERT_FLOAT_EQ(layered.at(x, y, Chan_Red), 1.0f) << x << "," << y;
    }
  // One slice lets the blurred background bleed over the square's edge.
  EXPECT_GT(mixed.at(10, 15, Chan_Blue), 0.05f);
  EXPECT_LT(mixed.at(10, 15, Chan_Red), 0.95f);
  // Beside the square the background is whole: the sharp square doesn't spread into it, and
  // the background's own weight brings it to level.
  EXPECT_NEAR(layered.at(8, 15, Chan_Blue), 1.0f, 1e-5f);
  EXPECT_EQ(layered.at(8, 15, Chan_Red), 0.0f);
}

TEST(FlatLayers, FrontAndBackKeepTheirOwnSide) {
  // Left half in front of the focal plane, right half behind it; one column exactly on it.
  auto f = withDepth([](int x, int) { return x == 40 ? kSharp : (x < 20 ? kNear : kFar); });
  Scene both(44, 12, f);
  Scene front(44, 12, f);
  setKnob(*front.node, "focusOutput", FocusFront);
  Scene back(44, 12, f);
  setKnob(*back.node, "focusOutput", FocusBack);
  const Image all = both.render(), near = front.render(), far = back.render();
  const int reach = both.node->kernelRadius;

  for (int y = 0; y < 12; ++y) {
    for (int x = 0; x < 44; ++x) {
      // Depth is not one of the effect's channels: it passes through in every output.
      ASSERT_EQ(near.at(x, y, Chan_Z), f(x, y, Chan_Z));
      ASSERT_EQ(far.at(x, y, Chan_Z), f(x, y, Chan_Z));
      if (x >= 20 + reach) {  // no front source reaches here
        ASSERT_EQ(near.at(x, y, Chan_Red), 0.0f) << x;
        ASSERT_EQ(near.at(x, y, Chan_Alpha), 0.0f) << x;
      }
      if (x < 20 - reach) {  // nor any back source here
        ASSERT_EQ(far.at(x, y, Chan_Green), 0.0f) << x;
      }
    }
    // The focal plane counts as back: its sharp column is in "Back" and "Both" alone.
    EXPECT_FLOAT_EQ(far.at(40, y, Chan_Red), all.at(40, y, Chan_Red));
    EXPECT_EQ(near.at(40, y, Chan_Red), 0.0f);
  }
  // Away from the boundary each side is the whole image's own result.
  EXPECT_FLOAT_EQ(near.at(5, 6, Chan_Red), all.at(5, 6, Chan_Red));
  EXPECT_FLOAT_EQ(far.at(32, 6, Chan_Red), all.at(32, 6, Chan_Red));
}

TEST(FlatLayers, ChromaticShiftDoesNotWidenTheReach) {
  // One green pixel on black, CoC 40: kernelRadius is 22 rows. A shift of 9 stays within it; a
  // shift of 47 would carry the pixel to rows no output row visits it from, so it is lost.
  for (const auto& [offset, lands] : {std::pair<double, bool>{1.0, true}, {3.0, false}}) {
    SCOPED_TRACE(offset);
    Scene s(80, 80, [](int x, int y, Channel z) {
      if (z == Chan_Z)
        return kFar;
      return x == 10 && y == 10 && z == Chan_Green ? 1.0f : 0.0f;
    }, 40.0f);
    setKnob(*s.node, "kChrAbb", 10);
    setKnob(*s.node, "kChrAbbOff", offset, 1);
    const Image out = s.render();
    ASSERT_EQ(s.node->kernelRadius, 22);
    double green = 0.0;
    for (int y = 0; y < 80; ++y)
      for (int x = 0; x < 80; ++x)
        green += out.at(x, y, Chan_Green);
    if (lands)
      EXPECT_GT(green, 0.5);
    else
      EXPECT_EQ(green, 0.0);
  }
}

// ---------------------------------------------------------------------------------------------
// Bloom, channels, edges.

TEST(FlatBloom, AddedInTheDefocusAndAloneInLensBloom) {
  // Left part bright (above the threshold), right part dull (below it), even bloom.
  auto f = [](int x, int, Channel z) {
    if (z == Chan_Z)
      return kFar;
    if (z == Chan_Alpha)
      return 0.5f;
    return x < 20 ? 2.0f : 0.3f;
  };
  Scene defocus(40, 10, f);
  Scene bloom(40, 10, f);
  for (Scene* s : {&defocus, &bloom}) {
    setKnob(*s->node, "bloom", 0.5);
    setKnob(*s->node, "bloomCurvature", 0);
  }
  setKnob(*bloom.node, "outputType", OutputLensBloom);
  const Image d = defocus.render(), b = bloom.render();
  const float light = (2.0f - 0.7f) * 0.5f;
  EXPECT_NEAR(d.at(5, 5, Chan_Red), 2.0f + light, 1e-5f);
  EXPECT_NEAR(d.at(35, 5, Chan_Red), 0.3f, 1e-5f);
  EXPECT_NEAR(b.at(5, 5, Chan_Green), light, 1e-5f);
  EXPECT_EQ(b.at(35, 5, Chan_Green), 0.0f);
  // Dull pixels add weight but no light: at the boundary the bloom is dimmed, not kept whole.
  EXPECT_GT(b.at(20, 5, Chan_Green), 0.1f * light);
  EXPECT_LT(b.at(20, 5, Chan_Green), 0.9f * light);
  // Alpha never blooms: the same defocused value in both outputs.
  EXPECT_NEAR(b.at(5, 5, Chan_Alpha), 0.5f, 1e-6f);
  EXPECT_EQ(b.at(20, 5, Chan_Alpha), d.at(20, 5, Chan_Alpha));
}

TEST(FlatBloom, PositionIsTheClampedSourcePosition) {
  // Sharp everywhere, so each output pixel shows its own source's bloom. Sources beyond the image
  // take the bloom of the column and row they were read from, not of their own position.
  Scene s(20, 20, [](int, int, Channel z) { return z == Chan_Z ? kSharp : 2.0f; });
  setKnob(*s.node, "outputType", OutputLensBloom);
  setKnob(*s.node, "bloom", 1);
  const Image side = s.render(Box(-6, 10, 26, 11));
  const Image above = s.render(Box(0, 40, 20, 41));
  const Box format = s.node->formatBox();
  for (int x = -6; x < 26; ++x) {
    const float f = bloomRadialFactor(s.node->params, format, std::max(0, std::min(19, x)), 10);
    ASSERT_NEAR(side.at(x, 10, Chan_Red), (2.0f - 0.7f) * f, 1e-5f) << x;
  }
  // Rows above the box take the position of the row they are read from: the box's t.
  for (int x = 0; x < 20; ++x)
    ASSERT_NEAR(above.at(x, 40, Chan_Red), (2.0f - 0.7f) * bloomRadialFactor(s.node->params, format, x, 20), 1e-5f) << x;
  EXPECT_NEAR(above.at(10, 40, Chan_Red), 1.3f, 1e-5f);
}

TEST(FlatBloom, MattesAreReadAtTheSourceColumn) {
  // The matte image reaches past the format; its value changes with every column.
  auto mattes = std::make_unique<host::FlatImage>(Format(20, 20), Box(-10, 0, 30, 20), ChannelSet(Mask_RGBA));
  mattes->fill([](int x, int, Channel) { return 0.05f * static_cast<float>(x + 10); });
  Scene s(20, 20, [](int, int, Channel z) { return z == Chan_Z ? kSharp : 2.0f; });
  host::connect(*s.node, 4, mattes.get());
  setChannelKnob(*s.node, "bloomMatteChannel", Chan_Green);
  setKnob(*s.node, "outputType", OutputLensBloom);
  setKnob(*s.node, "bloom", 1);
  setKnob(*s.node, "bloomCurvature", 0);
  const Image out = s.render(Box(-6, 5, 26, 6));
  for (int x = -6; x < 26; ++x)
    ASSERT_NEAR(out.at(x, 5, Chan_Blue), 1.3f * 0.05f * static_cast<float>(x + 10), 1e-5f) << x;
}

TEST(FlatChannels, ChannelsOutsideTheEffectPassThroughUnfiltered) {
  Scene s(24, 16, withDepth(everywhere(kFar)));
  setChannelsKnob(*s.node, "vorelChannels", ChannelSet(Mask_RGB));
  const Image out = s.render();
  for (int y = 0; y < 16; ++y)
    for (int x = 0; x < 24; ++x) {
      ASSERT_EQ(out.at(x, y, Chan_Alpha), colourAt(x, y, Chan_Alpha));
      ASSERT_EQ(out.at(x, y, Chan_Z), kFar);
    }
  EXPECT_NE(out.at(0, 0, Chan_Red), colourAt(0, 0, Chan_Red));

  // Depth among the effect's channels is blurred, while the CoC still comes from the raw depth.
  auto g = withDepth([](int x, int) { return x < 12 ? kSharp : kFar; });
  Scene z(24, 16, g);
  ChannelSet withZ = rgbaz();
  setChannelsKnob(*z.node, "vorelChannels", withZ);
  const Image zOut = z.render();
  EXPECT_EQ(zOut.at(2, 8, Chan_Z), kSharp);
  EXPECT_GT(zOut.at(13, 8, Chan_Z), kSharp);
  EXPECT_LT(zOut.at(13, 8, Chan_Z), kFar);
}

TEST(FlatEdges, SpanBeyondTheFormatTakesDepthFromTheEdgeColumn) {
  // The box reaches past the format. The format's last column (19) is sharp and the box beyond
  // it far: a span wholly beyond the format reads its depth at column 19, so it stays sharp.
  // The colours are uneven, so that any blur would show.
  auto colour = [](int x, int y) { return 0.2f * static_cast<float>((7 * x + 3 * y) % 5); };
  auto image = std::make_unique<host::FlatImage>(Format(20, 10), Box(0, 0, 60, 10), rgbaz());
  image->fill([&](int x, int y, Channel z) { return z == Chan_Z ? (x == 19 ? kSharp : kFar) : colour(x, y); });
  auto node = makeNode();
  host::connect(*node, 0, image.get());
  setKnob(*node, "multiplier", 9);
  const Image out = render(*node, Box(40, 0, 44, 10), rgbaz());
  for (int y = 0; y < 10; ++y)
    for (int x = 40; x < 44; ++x)
      ASSERT_FLOAT_EQ(out.at(x, y, Chan_Red), colour(x, y)) << x << "," << y;
  // The same when the span takes in the format: every source past column 19 is sharp.
  const Image whole = render(*node, Box(0, 0, 60, 10), rgbaz());
  for (int y = 0; y < 10; ++y)
    for (int x = 20 + node->kernelRadius; x < 60; ++x)
      ASSERT_FLOAT_EQ(whole.at(x, y, Chan_Red), colour(x, y)) << x << "," << y;

  // Rows beyond the box repeat its edge row but spread from their own position: a row far
  // above an image whose top row is sharp is the top row's colour.
  auto tall = flatImage(12, 12, rgbaz(), [](int x, int y, Channel z) {
    return z == Chan_Z ? (y == 11 ? kSharp : kFar) : colourAt(x, y, z);
  });
  auto n2 = makeNode();
  host::connect(*n2, 0, tall.get());
  setKnob(*n2, "multiplier", 9);
  const Image above = render(*n2, Box(0, 30, 12, 31), rgbaz());
  for (int x = 0; x < 12; ++x)
    EXPECT_FLOAT_EQ(above.at(x, 30, Chan_Green), colourAt(x, 11, Chan_Green)) << x;
}

TEST(FlatEdges, BadPixelsStayLocal) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  Scene s(40, 20, [&](int x, int y, Channel z) {
    if (x == 3 && y == 3)
      return z == Chan_Z ? nan : inf;
    if (x == 4 && y == 3)
      return z == Chan_Z ? inf : nan;
    return z == Chan_Z ? kFar : 0.5f;
  });
  const Image out = s.render();
  // Far from the bad pixels everything is as if they weren't there.
  EXPECT_NEAR(out.at(35, 15, Chan_Red), 0.5f, 1e-5f);

  // Empty and reversed spans and an empty image don't crash.
  Row row(5, 5);
  s.node->engine(3, 5, 5, rgbaz(), row);
  Row reversed(8, 2);
  s.node->engine(3, 8, 2, rgbaz(), reversed);
  auto empty = std::make_unique<host::FlatImage>(Format(8, 8), Box(0, 0, 0, 0), rgbaz());
  auto n2 = makeNode();
  host::connect(*n2, 0, empty.get());
  const Image blank = render(*n2, Box(0, 0, 8, 8), rgbaz());
  EXPECT_EQ(blank.at(4, 4, Chan_Red), 0.0f);
}

// ---------------------------------------------------------------------------------------------
// Threads, and the two forms of the splat.

TEST(FlatThreads, SameImageOnOneAndOnManyThreads) {
  std::mt19937 random(11);
  std::uniform_real_distribution<float> value(0.0f, 2.0f);
  std::vector<float> noise(48 * 32 * 6);
  for (float& v : noise)
    v = value(random);
  Scene s(48, 32, [&](int x, int y, Channel z) {
    const float v = noise[static_cast<std::size_t>((y * 48 + x) * 6 + z)];
    return z == Chan_Z ? 99.0f + v : v;  // depths across the whole focus region
  });
  setKnob(*s.node, "bloom", 0.3);
  setKnob(*s.node, "kChrAbb", 4);
  const Image one = s.render(1);
  const Image many = s.render(4);
  EXPECT_TRUE(one == many);
}

TEST(SplatForms, ChannelSetAndPreparedFormsAgree) {
  Scene s(32, 32, withDepth(everywhere(kFar)), 12.0f);
  setKnob(*s.node, "kChrAbb", -3);
  setKnob(*s.node, "bloom", 0.7);
  setKnob(*s.node, "bloomThreshold", 0.2);
  s.render(Box(0, 0, 32, 1));  // opens the node: bank, radius
  const tzVorel& node = *s.node;
  ASSERT_FALSE(node.kernelBank.empty());

  const ChannelSet channels = ChannelSet(Mask_RGB) + ChannelSet(Mask_Z);
  const SplatContext context(node, channels);
  std::mt19937 random(5);
  std::uniform_real_distribution<float> coc(0.5f, 20.0f);
  std::uniform_int_distribution<int> position(-10, 40);
  float colours[kChannelSlots] = {};
  for (int c = 1; c <= 5; ++c)
    colours[c] = 0.3f * static_cast<float>(c);
  for (int trial = 0; trial < 200; ++trial) {
    SliceAccumulators a(1, 0, 32, node.params.vorelChannels), b(1, 0, 32, node.params.vorelChannels);
    const int sx = position(random), sy = position(random);
    const float c = coc(random);
    splatPixel(node, sx, sy, 0, 12, 32, sx, sy, c, 0, 0.75f, colours, a.colourPlanes.data(),
               a.weightPlanes.data(), channels, 0.5f, 1.5f);
    splatPixel(context, sx, sy, 0, 12, 32, sx, sy, c, 0, 0.75f, colours, b.colourPlanes.data(),
               b.weightPlanes.data(), 0.5f, 1.5f);
    foreach (z, node.params.vorelChannels)
      ASSERT_EQ(std::memcmp(a.colourPlanes[0][z], b.colourPlanes[0][z], 32 * sizeof(float)), 0);
  }
}

// Not a check: the cost of a 2K frame, run by hand with --gtest_also_run_disabled_tests.
TEST(FlatTiming, DISABLED_FullFrameAtMaxCoC40) {
  const int W = 2048, H = 1556;
  auto image = flatImage(W, H, rgbaz(), [](int x, int y, Channel z) {
    // Depth ramps across the frame through the focus region: CoC 40 in front at the left,
    // 0 in the middle, 40 behind at the right.
    return z == Chan_Z ? 99.4f + 1.2f * static_cast<float>(x) / W : colourAt(x % 97, y % 89, z);
  });
  auto node = makeNode();
  host::connect(*node, 0, image.get());
  setKnob(*node, "multiplier", 40);
  const auto start = std::chrono::steady_clock::now();
  const std::clock_t cpuStart = std::clock();
  const Image out = render(*node, ChannelSet(Mask_RGBA), 2);
  const double cpu = static_cast<double>(std::clock() - cpuStart) / CLOCKS_PER_SEC;
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("2048x1556, maxCoC %d, kernelRadius %d, 2 threads: %.2f s wall, %.2f s CPU\n",
              node->maxCoC, node->kernelRadius, seconds, cpu);
  EXPECT_EQ(node->maxCoC, 40);
  EXPECT_TRUE(std::isfinite(out.at(W / 2, H / 2, Chan_Red)));
}
