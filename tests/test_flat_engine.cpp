// The flat defocus through the host: whole images with known answers (in focus, flat depth,
// one bright pixel), layering by slices, the focus regions, bloom, mattes, the edges of the
// format, bad pixels, and threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <utility>

#include "DDImage/Row.h"
#include "engines/OpticalArtefacts.h"
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

using Fill = std::function<float(int, int, Channel)>;

// Colour from colourAt, depth from depth(x, y).
Fill withDepth(std::function<float(int, int)> depth) {
  return [depth](int x, int y, Channel z) { return z == Chan_Z ? depth(x, y) : colourAt(x, y, z); };
}

// Colour from colour(x, y, channel), depth d everywhere.
Fill atDepth(float d, std::function<float(int, int, Channel)> colour) {
  return [d, colour](int x, int y, Channel z) { return z == Chan_Z ? d : colour(x, y, z); };
}

// Black at depth kFar but for a 1 in channel c at (px, py).
Fill onePixel(int px, int py, Channel c) {
  return atDepth(kFar, [=](int x, int y, Channel z) { return x == px && y == py && z == c ? 1.0f : 0.0f; });
}

std::vector<float> noise(std::size_t n, unsigned seed, float top) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> value(0.0f, top);
  std::vector<float> v(n);
  for (float& e : v)
    e = value(random);
  return v;
}

struct Scene {
  std::unique_ptr<host::FlatImage> image;
  std::unique_ptr<tzVorel> node = makeNode();

  Scene(int w, int h, const Fill& f, float multiplier = 9.0f) : Scene(flatImage(w, h, rgbaz(), f), multiplier) {}
  Scene(std::unique_ptr<host::FlatImage> input, float multiplier = 9.0f) : image(std::move(input)) {
    EXPECT_TRUE(host::connect(*node, 0, image.get()));
    setKnob(*node, "multiplier", multiplier);
  }
  Image render(unsigned threads = 1) { return vorel::test::render(*node, rgbaz(), threads); }
  Image render(const Box& area) { return vorel::test::render(*node, area, rgbaz()); }
};

}  // namespace

TEST(FlatDefocus, ImageInFocusComesOutUnchanged) {
  // Sharp by depth, and far but with a defocus matte of 0.
  Scene sharp(23, 17, withDepth([](int, int) { return kSharp; }));
  Scene matted(23, 17, withDepth([](int, int) { return kFar; }));
  auto mattes = flatImage(23, 17, ChannelSet(Mask_RGBA), [](int, int, Channel) { return 0.0f; });
  host::connect(*matted.node, 4, mattes.get());
  setChannelKnob(*matted.node, "defocusMatteChannel", Chan_Alpha);
  for (Scene* s : {&sharp, &matted}) {
    const Image out = s->render();
    for (int y = 0; y < 17; ++y)
      for (int x = 0; x < 23; ++x)
        foreach (z, rgbaz())
          ASSERT_FLOAT_EQ(out.at(x, y, z), z == Chan_Z ? s->image->value(x, y, z) : colourAt(x, y, z))
              << x << "," << y << " channel " << z;
  }
}

TEST(FlatDefocus, FlatDepthKeepsConstantsAndTheMean) {
  // A constant stays constant, borders included: the edge repeats and the weight levels it.
  Scene flat(30, 24, atDepth(kFar, [](int, int, Channel z) { return 0.25f * static_cast<float>(z); }));
  const Image constant = flat.render();
  for (int y = 0; y < 24; ++y)
    for (int x = 0; x < 30; ++x)
      ASSERT_NEAR(constant.at(x, y, Chan_Alpha), 1.0f, 1e-5f) << x << "," << y;

  const std::vector<float> n = noise(64 * 48, 3, 1.0f);
  Scene noisy(64, 48, atDepth(kFar, [&](int x, int y, Channel) { return n[static_cast<std::size_t>(y * 64 + x)]; }));
  const Image blurred = noisy.render();
  double before = 0.0, after = 0.0, roughness = 0.0;
  for (int y = 12; y < 36; ++y)
    for (int x = 12; x < 52; ++x) {
      before += n[static_cast<std::size_t>(y * 64 + x)];
      after += blurred.at(x, y, Chan_Green);
      roughness += std::fabs(blurred.at(x, y, Chan_Green) - blurred.at(x + 1, y, Chan_Green));
    }
  EXPECT_NEAR(after, before, 0.01 * 24 * 40);  // the mean is kept ...
  EXPECT_LT(roughness, 0.05 * 24 * 40);        // ... and the noise is blurred, not passed through
}

namespace {

// A bright pixel on black, all of it far: its spread as a user sees it.
struct Spread {
  Image out;
  int w, h;
  double total(Channel z) const {
    double sum = 0.0;
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        sum += out.at(x, y, z);
    return sum;
  }
  int covered(Channel z) const {
    int n = 0;
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        n += out.at(x, y, z) > 0.0f;
    return n;
  }
};

Spread spreadOf(int px, int py, float coc, int w = 48, int h = 40) {
  Scene s(w, h, onePixel(px, py, Chan_Red), coc);
  return {s.render(), w, h};
}

}  // namespace

TEST(FlatDefocus, BrightPixelKeepsItsEnergyOnlyInItsOwnChannel) {
  for (float coc : {3.0f, 8.0f, 9.0f, 14.5f}) {
    const Spread s = spreadOf(24, 20, coc);
    EXPECT_NEAR(s.total(Chan_Red), 1.0, 2e-3) << coc;
    EXPECT_EQ(s.total(Chan_Green), 0.0) << coc;
    EXPECT_EQ(s.out.at(24, 20, Chan_Red) > 0.0f, true) << coc;
  }
}

TEST(FlatDefocus, BiggerCoCSpreadsWiderAndLower) {
  int lastCovered = 0;
  float lastPeak = 2.0f;
  for (float coc : {2.0f, 4.0f, 7.0f, 11.0f, 16.0f}) {
    const Spread s = spreadOf(24, 20, coc);
    float peak = 0.0f;
    for (int y = 0; y < 40; ++y)
      for (int x = 0; x < 48; ++x)
        peak = std::max(peak, s.out.at(x, y, Chan_Red));
    EXPECT_GT(s.covered(Chan_Red), lastCovered) << coc;
    EXPECT_LT(peak, lastPeak) << coc;
    lastCovered = s.covered(Chan_Red);
    lastPeak = peak;
  }
}

TEST(FlatDefocus, ARoundKernelStaysCentredOnItsSource) {
  for (float coc : {5.0f, 11.0f, 17.0f}) {
    const Spread s = spreadOf(24, 20, coc);
    double sum = 0.0, sx = 0.0, sy = 0.0;
    int left = 48, right = -1, bottom = 40, top = -1;
    for (int y = 0; y < 40; ++y)
      for (int x = 0; x < 48; ++x) {
        const float v = s.out.at(x, y, Chan_Red);
        sum += v, sx += v * x, sy += v * y;
        if (v > 0.0f)
          left = std::min(left, x), right = std::max(right, x), bottom = std::min(bottom, y), top = std::max(top, y);
      }
    EXPECT_NEAR(sx / sum, 24.0, 0.1) << coc;
    EXPECT_NEAR(sy / sum, 20.0, 0.1) << coc;
    EXPECT_LE(std::abs((right - 24) - (24 - left)), 1) << coc;
    EXPECT_LE(std::abs((top - 20) - (20 - bottom)), 1) << coc;
    EXPECT_LE(std::abs((right - left) - (top - bottom)), 1) << coc;
  }
}

TEST(FlatDefocus, MovingTheContentMovesTheResult) {
  const Spread here = spreadOf(16, 14, 9.0f), there = spreadOf(27, 23, 9.0f);
  for (int dy = -7; dy <= 7; ++dy)
    for (int dx = -7; dx <= 7; ++dx)
      ASSERT_FLOAT_EQ(here.out.at(16 + dx, 14 + dy, Chan_Red), there.out.at(27 + dx, 23 + dy, Chan_Red))
          << dx << "," << dy;
}

TEST(FlatLayers, NearSliceOccludesFarOne) {
  // A sharp red square in front of a blurred blue background.
  auto f = [](int x, int y, Channel z) {
    const bool square = x >= 10 && x < 20 && y >= 10 && y < 20;
    return z == Chan_Z ? (square ? kSharp : kFar) : z == Chan_Red ? (square ? 1.0f : 0.0f)
                                                  : z == Chan_Blue ? (square ? 0.0f : 1.0f) : 1.0f;
  };
  Scene sliced(30, 30, f), single(30, 30, f);
  setKnob(*single.node, "correctiveSlices", 1);
  const Image layered = sliced.render(), mixed = single.render();
  for (int y = 10; y < 20; ++y)
    for (int x = 10; x < 20; ++x) {
      ASSERT_EQ(layered.at(x, y, Chan_Blue), 0.0f) << x << "," << y;
      ASSERT_FLOAT_EQ(layered.at(x, y, Chan_Red), 1.0f) << x << "," << y;
    }
  EXPECT_GT(mixed.at(10, 15, Chan_Blue), 0.05f);  // one slice lets the background bleed over
  // Beside the square the background is whole, brought to level by its own weight.
  EXPECT_NEAR(layered.at(8, 15, Chan_Blue), 1.0f, 1e-5f);
  EXPECT_EQ(layered.at(8, 15, Chan_Red), 0.0f);
}

TEST(FlatLayers, FrontAndBackKeepTheirOwnSide) {
  // Left half in front of the focal plane, right half behind it; one column exactly on it.
  auto f = withDepth([](int x, int) { return x == 40 ? kSharp : (x < 20 ? kNear : kFar); });
  Scene both(44, 12, f), front(44, 12, f), back(44, 12, f);
  setKnob(*front.node, "focusOutput", FocusFront);
  setKnob(*back.node, "focusOutput", FocusBack);
  const Image all = both.render(), near = front.render(), far = back.render();
  const int reach = both.node->frame()->kernelRadius;
  for (int y = 0; y < 12; ++y) {
    for (int x = 0; x < 44; ++x) {
      ASSERT_EQ(near.at(x, y, Chan_Z), f(x, y, Chan_Z));  // depth is not blurred
      // No front source reaches beyond 20 + reach, nor any back source below 20 - reach.
      ASSERT_TRUE(x < 20 + reach || near.at(x, y, Chan_Red) + near.at(x, y, Chan_Alpha) == 0.0f) << x;
      ASSERT_TRUE(x >= 20 - reach || far.at(x, y, Chan_Green) == 0.0f) << x;
    }
    // The focal plane counts as back.
    EXPECT_FLOAT_EQ(far.at(40, y, Chan_Red), all.at(40, y, Chan_Red));
    EXPECT_EQ(near.at(40, y, Chan_Red), 0.0f);
  }
  EXPECT_FLOAT_EQ(near.at(5, 6, Chan_Red), all.at(5, 6, Chan_Red));
  EXPECT_FLOAT_EQ(far.at(32, 6, Chan_Red), all.at(32, 6, Chan_Red));
}

TEST(FlatLayers, ChromaticShiftDoesNotWidenTheRowsASourceIsVisitedFrom) {
  // One green pixel, CoC 40: kernelRadius 22. A shift of 9 stays within it; one of 47 would take
  // the pixel to rows no output row visits it from, so it is lost.
  for (const auto& [offset, lands] : {std::pair<double, bool>{1.0, true}, {3.0, false}}) {
    Scene s(80, 80, onePixel(10, 10, Chan_Green), 40.0f);
    setKnob(*s.node, "kChrAbb", 10);
    setKnob(*s.node, "kChrAbbOff", offset, 1);
    const Image out = s.render();
    ASSERT_EQ(s.node->frame()->kernelRadius, 22);
    double green = 0.0;
    for (int y = 0; y < 80; ++y)
      for (int x = 0; x < 80; ++x)
        green += out.at(x, y, Chan_Green);
    EXPECT_EQ(green > 0.5, lands) << offset;
    EXPECT_EQ(green == 0.0, !lands) << offset;
  }
}

TEST(FlatBloom, AddedInTheDefocusAndAloneInLensBloom) {
  // Left part above the threshold (0.7), right part below it, even bloom 0.5.
  auto f = atDepth(kFar, [](int x, int, Channel z) { return z == Chan_Alpha ? 0.5f : x < 20 ? 2.0f : 0.3f; });
  Scene defocus(40, 10, f), bloom(40, 10, f);
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
  EXPECT_EQ(b.at(20, 5, Chan_Alpha), d.at(20, 5, Chan_Alpha));  // alpha never blooms
}

TEST(FlatBloom, PositionIsTheClampedSourcePositionAndMattesTheSourceColumn) {
  // Sharp, so each output pixel shows its own source's bloom.
  Scene s(20, 20, atDepth(kSharp, [](int, int, Channel) { return 2.0f; }));
  setKnob(*s.node, "outputType", OutputLensBloom);
  setKnob(*s.node, "bloom", 1);
  const Image side = s.render(Box(-6, 10, 26, 11)), above = s.render(Box(0, 40, 20, 41));
  const Box format = s.node->frame()->format;
  // Sources beyond the image take the bloom of the column, and row, they were read from; rows
  // above the box are read from the box's t.
  for (int x = -6; x < 26; ++x)
    ASSERT_NEAR(side.at(x, 10, Chan_Red), 1.3f * bloomRadialFactor(s.node->frame()->params, format, std::clamp(x, 0, 19), 10),
                1e-5f) << x;
  for (int x = 0; x < 20; ++x)
    ASSERT_NEAR(above.at(x, 40, Chan_Red), 1.3f * bloomRadialFactor(s.node->frame()->params, format, x, 20), 1e-5f) << x;

  // A matte image reaching past the format, its value changing with every column.
  auto mattes = std::make_unique<host::FlatImage>(Format(20, 20), Box(-10, 0, 30, 20), ChannelSet(Mask_RGBA));
  mattes->fill([](int x, int, Channel) { return 0.05f * static_cast<float>(x + 10); });
  host::connect(*s.node, 4, mattes.get());
  setChannelKnob(*s.node, "bloomMatteChannel", Chan_Green);
  setKnob(*s.node, "bloomCurvature", 0);
  const Image matted = s.render(Box(-6, 5, 26, 6));
  for (int x = -6; x < 26; ++x)
    ASSERT_NEAR(matted.at(x, 5, Chan_Blue), 1.3f * 0.05f * static_cast<float>(x + 10), 1e-5f) << x;
}

TEST(FlatChannels, OutsideTheEffectPassThroughAndDepthInItIsBlurredFromTheRawDepth) {
  // The far side's depth steps up and down, so that its blur shows.
  auto depth = [](int x, int) { return x < 12 ? kSharp : kFar + 10.0f * static_cast<float>(x % 3); };
  Scene s(24, 16, withDepth(depth));
  setChannelsKnob(*s.node, "vorelChannels", ChannelSet(Mask_RGB));
  const Image out = s.render();
  for (int y = 0; y < 16; ++y)
    for (int x = 0; x < 24; ++x)
      ASSERT_EQ(out.at(x, y, Chan_Alpha), colourAt(x, y, Chan_Alpha)) << x << "," << y;
  EXPECT_NE(out.at(20, 8, Chan_Red), colourAt(20, 8, Chan_Red));
  setChannelsKnob(*s.node, "vorelChannels", rgbaz());
  const Image z = s.render();
  EXPECT_EQ(z.at(2, 8, Chan_Z), kSharp);
  for (int x = 16; x < 20; ++x) {
    EXPECT_NE(z.at(x, 8, Chan_Z), depth(x, 8)) << x;
    EXPECT_GT(z.at(x, 8, Chan_Z), kFar) << x;
    EXPECT_LT(z.at(x, 8, Chan_Z), kFar + 20.0f) << x;
  }
}

TEST(FlatEdges, SpansBeyondTheFormatTakeDepthFromTheEdgeColumnAndRowsFromTheEdgeRow) {
  // The box reaches past the format, whose last column (19) is sharp; the box beyond it is far.
  // Depth is read at column 19, so the box beyond stays sharp though its colours are uneven.
  auto colour = [](int x, int y) { return 0.2f * static_cast<float>((7 * x + 3 * y) % 5); };
  auto image = std::make_unique<host::FlatImage>(Format(20, 10), Box(0, 0, 60, 10), rgbaz());
  image->fill([&](int x, int y, Channel z) { return z == Chan_Z ? (x == 19 ? kSharp : kFar) : colour(x, y); });
  Scene s(std::move(image));
  // A span wholly beyond the format, and one that takes it in.
  for (const Box& area : {Box(40, 0, 44, 10), Box(0, 0, 60, 10)}) {
    const Image out = s.render(area);
    const int reach = s.node->frame()->kernelRadius;
    for (int y = 0; y < 10; ++y)
      for (int x = std::max(area.x(), 20 + reach); x < area.r(); ++x)
        ASSERT_FLOAT_EQ(out.at(x, y, Chan_Red), colour(x, y)) << x << "," << y;
  }
  // Rows beyond the box repeat its edge row: far above an image whose top row is sharp.
  Scene tall(12, 12, withDepth([](int, int y) { return y == 11 ? kSharp : kFar; }));
  const Image above = tall.render(Box(0, 30, 12, 31));
  for (int x = 0; x < 12; ++x)
    EXPECT_FLOAT_EQ(above.at(x, 30, Chan_Green), colourAt(x, 11, Chan_Green)) << x;
}

TEST(FlatEdges, BadPixelsStayLocalAndEmptySpansAndImagesRenderNothing) {
  const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
  Scene s(40, 20, [&](int x, int y, Channel z) {
    if (y == 3 && (x == 3 || x == 4))
      return (x == 3) == (z == Chan_Z) ? nan : inf;
    return z == Chan_Z ? kFar : 0.5f;
  });
  EXPECT_NEAR(s.render().at(35, 15, Chan_Red), 0.5f, 1e-5f);
  Row row(5, 5), reversed(8, 2);
  s.node->engine(3, 5, 5, rgbaz(), row);
  s.node->engine(3, 8, 2, rgbaz(), reversed);
  Scene empty(std::make_unique<host::FlatImage>(Format(8, 8), Box(0, 0, 0, 0), rgbaz()));
  EXPECT_EQ(empty.render(Box(0, 0, 8, 8)).at(4, 4, Chan_Red), 0.0f);
}

TEST(FlatThreads, SameImageOnOneAndOnManyThreads) {
  const std::vector<float> n = noise(48 * 32 * 6, 11, 2.0f);
  Scene s(48, 32, [&](int x, int y, Channel z) {
    const float v = n[static_cast<std::size_t>((y * 48 + x) * 6 + z)];
    return z == Chan_Z ? 99.0f + v : v;  // depths across the whole focus region
  });
  setKnob(*s.node, "bloom", 0.3);
  setKnob(*s.node, "kChrAbb", 4);
  EXPECT_TRUE(s.render(1) == s.render(4));
}
