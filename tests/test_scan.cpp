// The whole-image CoC scan that sizes the bank at open, and the filter shape output.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "DDImage/Row.h"
#include "lens/CircleOfConfusion.h"
#include "support/TestScenes.h"

using namespace DD::Image;
using namespace vorel;
using namespace vorel::test;

namespace {

// Artistic model with focal plane 100 and a region of 2: a depth of 101 or more (or 99 or less)
// reaches `multiplier` times the side factor.
std::unique_ptr<tzVorel> artisticNode(float multiplier) {
  auto node = makeNode();
  setKnob(*node, "focalPlane", 100.0);
  setKnob(*node, "focusRegionSize", 2.0);
  setKnob(*node, "multiplier", multiplier);
  return node;
}

// Depth 100 everywhere (in focus) but at one pixel.
std::unique_ptr<host::FlatImage> focusedImage(int w, int h, int px, int py, float depth) {
  return flatImage(w, h, rgbaz(), [=](int x, int y, Channel z) {
    if (z != Chan_Z)
      return 0.5f;
    return x == px && y == py ? depth : 100.0f;
  });
}

void open(tzVorel& node) {
  host::prepare(node, node.formatBox().w() > 0 ? node.formatBox() : Box(0, 0, 1, 1), rgbaz());
}

const std::string kWarningHead =
    "Max kernel size is less than the maximum coc in the result, you may want to consider increasing the "
    "max kernel size above ";

}  // namespace

// ---------------------------------------------------------------------------------------------
// Flat scan

TEST(ScanFlat, LargestCoCIsRoundedUpAndGivesTheReach) {
  struct Case {
    float largest;
    int maxCoC, kernelRadius;
  };
  for (const Case& c : {Case{0.2f, 1, 2}, Case{7.0f, 7, 5}, Case{7.5f, 8, 6}, Case{0.0f, 0, 2}, Case{1.0f, 1, 2},
                        Case{2.0f, 2, 3}}) {
    auto node = artisticNode(c.largest);
    auto image = focusedImage(24, 10, 17, 6, 130.0f);  // clamped to the region's far edge
    host::connect(*node, 0, image.get());
    open(*node);
    EXPECT_EQ(node->maxCoC, c.maxCoC) << c.largest;
    EXPECT_EQ(node->kernelRadius, c.kernelRadius) << c.largest;
    EXPECT_EQ(node->kernelBank.size(), static_cast<std::size_t>(c.maxCoC + 5)) << c.largest;
    EXPECT_TRUE(host::warnings(*node).empty());
  }
}

TEST(ScanFlat, CapAtMaxKernelSizeWithItsWarning) {
  {
    auto node = artisticNode(300.5f);
    auto image = focusedImage(8, 8, 0, 7, 0.0f);  // near side, clamped to the region's near edge
    host::connect(*node, 0, image.get());
    open(*node);
    EXPECT_EQ(node->maxCoC, 256);
    EXPECT_EQ(node->kernelRadius, 130);
    EXPECT_EQ(node->kernelBank.size(), 261u);
    const std::vector<std::string> warnings = host::warnings(*node);
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0], kWarningHead + "301.");  // the value found, not the cap
  }
  {
    auto node = artisticNode(300.0f);
    setKnob(*node, "max_kernelsize", 255);
    auto image = focusedImage(8, 8, 7, 0, 500.0f);
    host::connect(*node, 0, image.get());
    open(*node);
    EXPECT_EQ(node->maxCoC, 255);
    EXPECT_EQ(node->kernelRadius, 129);
    ASSERT_EQ(host::warnings(*node).size(), 1u);
    EXPECT_EQ(host::warnings(*node)[0], kWarningHead + "300.");
  }
  {
    // Reaching the cap exactly is no overflow.
    auto node = artisticNode(12.0f);
    setKnob(*node, "max_kernelsize", 12);
    auto image = focusedImage(8, 8, 3, 3, 500.0f);
    host::connect(*node, 0, image.get());
    open(*node);
    EXPECT_EQ(node->maxCoC, 12);
    EXPECT_EQ(node->kernelRadius, 8);
    EXPECT_TRUE(host::warnings(*node).empty());
  }
}

TEST(ScanFlat, DepthIsConditionedAndClampedFirst) {
  // A NaN sample is the far limit, clamped to the region's far edge: back side, so the back
  // factor applies.
  auto node = artisticNode(3.0f);
  setKnob(*node, "backmultiplier", 2.0);
  auto image = focusedImage(6, 6, 2, 4, std::numeric_limits<float>::quiet_NaN());
  host::connect(*node, 0, image.get());
  open(*node);
  EXPECT_EQ(node->maxCoC, 6);

  // "1/z": samples of 0.01 are the depth 100, in focus; the one sample of 100 is the depth 0.01,
  // clamped to the near edge.
  auto inverse = artisticNode(3.0f);
  setKnob(*inverse, "frontmultiplier", 1.5);
  setKnob(*inverse, "depthStyle", 1);
  auto inverted = flatImage(6, 6, rgbaz(), [](int x, int y, Channel z) {
    return z != Chan_Z ? 0.5f : (x == 4 && y == 1 ? 100.0f : 0.01f);
  });
  host::connect(*inverse, 0, inverted.get());
  open(*inverse);
  EXPECT_EQ(inverse->maxCoC, 5);  // ceil(4.5)
}

TEST(ScanFlat, OnlyTheFormatCountedFromZero) {
  // Format 16 x 8 from x = 10: the scan reads columns 0 to 15, whatever the origin and the box.
  auto node = artisticNode(9.0f);
  auto image = std::make_unique<host::FlatImage>(Format(26, 8, 10, 0, 26, 8), Box(0, 0, 40, 8), rgbaz());
  image->fill([](int x, int, Channel z) {
    if (z != Chan_Z)
      return 0.5f;
    if (x == 5)
      return 100.5f;   // CoC 4.5: inside columns 0..15
    if (x == 20)
      return 200.0f;   // CoC 9: inside the format, beyond its width counted from 0
    return 100.0f;
  });
  host::connect(*node, 0, image.get());
  host::prepare(*node, Box(10, 0, 26, 8), rgbaz());
  EXPECT_EQ(node->maxCoC, 5);
  EXPECT_EQ(node->kernelRadius, 4);
}

TEST(ScanFlat, RealLensModel) {
  auto node = makeNode();
  setKnob(*node, "realWorldLens", 1);
  setKnob(*node, "focalPlane", 100.0);
  // A small film back, so that a small image still gets CoCs of several pixels.
  setKnob(*node, "filmFormat", kCustomFilmFormat);
  setKnob(*node, "apertureWidth", 0.22);
  setKnob(*node, "apertureHeight", 0.16);
  auto image = flatImage(32, 4, rgbaz(), [](int x, int y, Channel z) {
    if (z != Chan_Z)
      return 0.5f;
    if (y == 1 && x == 3)
      return 200.0f;   // behind the focal plane: the largest CoC
    if (y == 2 && x == 9)
      return -50.0f;   // negative depth: negative CoC, ignored
    if (y == 3)
      return std::numeric_limits<float>::infinity();  // far limit: the largest CoC so far
    return 100.0f;
  });
  host::connect(*node, 0, image.get());
  open(*node);
  DepthSide side;
  const float far = depthToCoC(node->params, 0, 200.0f, side);
  ASSERT_GT(far, 5.0f);
  EXPECT_EQ(node->maxCoC, static_cast<int>(std::ceil(far)));
  EXPECT_EQ(node->kernelRadius, node->maxCoC / 2 + 2);
}

TEST(ScanFlat, EmptyFormat) {
  auto node = artisticNode(9.0f);
  auto image = flatImage(8, 0, rgbaz(), [](int, int, Channel) { return 500.0f; });
  host::connect(*node, 0, image.get());
  host::prepare(*node, Box(0, 0, 8, 1), rgbaz());
  EXPECT_EQ(node->maxCoC, 0);
  EXPECT_EQ(node->kernelRadius, 2);
  EXPECT_EQ(node->kernelBank.size(), 5u);
}

// ---------------------------------------------------------------------------------------------
// Deep scan

namespace {

struct DeepScene {
  std::unique_ptr<tzVorel> node;
  std::unique_ptr<host::FlatImage> flat;
  std::unique_ptr<host::DeepImage> deep;
};

DeepScene deepScene(float multiplier, int w = 8, int h = 4) {
  DeepScene s;
  s.node = artisticNode(multiplier);
  s.flat = focusedImage(w, h, -1, -1, 0.0f);
  s.deep = std::make_unique<host::DeepImage>(Format(w, h), Box(0, 0, w, h), ChannelSet(Mask_RGBA));
  return s;
}

void openDeep(DeepScene& s) {
  s.deep->finish();
  host::connect(*s.node, 0, s.flat.get());
  host::connect(*s.node, 3, s.deep.get());
  open(*s.node);
  EXPECT_TRUE(s.node->params.hasDeepInput);
}

}  // namespace

TEST(ScanDeep, OnlyTheNearestSamplesBackDepthCounts) {
  DeepScene s = deepScene(10.0f);
  // The nearest sample's back is 100.5: CoC 5. Its front (100) and the far sample (CoC 10) don't count.
  s.deep->addSample(2, 1, {{Chan_DeepFront, 150.0f}, {Chan_DeepBack, 160.0f}, {Chan_Alpha, 1.0f}});
  s.deep->addSample(2, 1, {{Chan_DeepFront, 100.0f}, {Chan_DeepBack, 100.5f}, {Chan_Alpha, 0.5f}});
  s.deep->addSample(5, 3, {{Chan_DeepFront, 100.2f}, {Chan_DeepBack, 100.2f}, {Chan_Alpha, 0.5f}});
  openDeep(s);
  EXPECT_EQ(s.node->maxCoC, 5);
  EXPECT_EQ(s.node->kernelRadius, 4);
}

TEST(ScanDeep, DepthIsNotClamped) {
  // The far limit unclamped meets the near-infinite rule: the largest CoC so far, not the
  // multiplier that the region's far edge would give.
  DeepScene s = deepScene(10.0f);
  s.deep->addSample(1, 0, {{Chan_DeepFront, kFarLimit}, {Chan_DeepBack, kFarLimit}});
  s.deep->addSample(6, 2, {{Chan_DeepFront, 100.25f}, {Chan_DeepBack, 100.25f}});
  openDeep(s);
  EXPECT_EQ(s.node->maxCoC, 3);  // ceil(2.5)

  DeepScene alone = deepScene(10.0f);
  alone.deep->addSample(1, 0, {{Chan_DeepFront, kFarLimit}, {Chan_DeepBack, kFarLimit}});
  openDeep(alone);
  EXPECT_EQ(alone.node->maxCoC, 0);
}

TEST(ScanDeep, EmptyPixelsAndFailedFetches) {
  DeepScene empty = deepScene(10.0f);
  openDeep(empty);
  EXPECT_EQ(empty.node->maxCoC, 0);
  EXPECT_EQ(empty.node->kernelRadius, 2);

  DeepScene failing = deepScene(10.0f);
  failing.deep->addSample(1, 1, {{Chan_DeepFront, 300.0f}, {Chan_DeepBack, 300.0f}});
  failing.deep->setEngineFails(true);
  openDeep(failing);
  EXPECT_EQ(failing.node->maxCoC, 0);
  EXPECT_TRUE(host::warnings(*failing.node).empty());
}

// ---------------------------------------------------------------------------------------------
// Filter shape output

namespace {

std::unique_ptr<tzVorel> filterShapeNode() {
  auto node = makeNode();
  setKnob(*node, "outputType", OutputFilterShape);
  return node;
}

}  // namespace

TEST(FilterShape, DiscInTheCornerOfA2KFormat) {
  auto node = filterShapeNode();
  setKnob(*node, "max_kernelsize", 32);  // has no say in the filter shape's size
  auto image = flatImage(2048, 1556, rgbaz(), [](int, int, Channel z) { return z == Chan_Z ? 7.0f : 0.25f; });
  host::connect(*node, 0, image.get());
  const Image rows = render(*node, Box(1500, 776, 2048, 780), rgbaz());
  ASSERT_EQ(node->masterKernel.width, 1556);
  const float* plane = node->masterKernel.plane(Chan_Red);
  ASSERT_NE(plane, nullptr);
  for (int y = 776; y < 780; ++y)
    for (int x = 1500; x < 2048; ++x)
      for (Channel z : {Chan_Red, Chan_Alpha}) {
        const float expected = x < 1556 ? plane[static_cast<std::size_t>(y) * 1556 + x] : 0.0f;
        ASSERT_EQ(rows.at(x, y, z), expected) << x << "," << y;
      }
  // The disc's centre is the corner shared by pixels 777 and 778, not the format's centre.
  EXPECT_EQ(rows.at(1500, 777, Chan_Red), rows.at(1500, 778, Chan_Red));
  const Image centre = render(*node, Box(770, 777, 786, 778), rgbaz());
  EXPECT_EQ(centre.at(777, 777, Chan_Green), 1.0f);
  EXPECT_EQ(centre.at(778, 777, Chan_Green), 1.0f);
  // depth.Z isn't a kernel channel: 0, although the input has it.
  for (int x = 770; x < 786; ++x)
    EXPECT_EQ(centre.at(x, 777, Chan_Z), 0.0f);
}

TEST(FilterShape, OutsideTheKernelIsZero) {
  auto node = filterShapeNode();
  auto image = flatImage(64, 48, rgbaz(), [](int, int, Channel) { return 1.0f; });
  host::connect(*node, 0, image.get());
  const Image below = render(*node, Box(-8, -3, 60, 0), rgbaz());
  const Image above = render(*node, Box(-8, 48, 60, 52), rgbaz());
  const Image left = render(*node, Box(-8, 20, 0, 28), rgbaz());
  for (const Image* part : {&below, &above, &left})
    foreach (z, part->channels)
      for (float v : part->planes[z])
        ASSERT_EQ(v, 0.0f);
  ASSERT_EQ(node->masterKernel.width, 48);
  const Image middle = render(*node, Box(40, 24, 56, 25), rgbaz());
  EXPECT_GT(middle.at(40, 24, Chan_Blue), 0.0f);
  for (int x = 48; x < 56; ++x)
    EXPECT_EQ(middle.at(x, 24, Chan_Blue), 0.0f);
}

TEST(FilterShape, KernelImageShownUnscaledAndEmptyKernelShowsNothing) {
  auto node = filterShapeNode();
  setKnob(*node, "kernelType", KernelInput);
  auto image = flatImage(40, 30, rgbaz(), [](int, int, Channel) { return 1.0f; });
  auto kernel = flatImage(12, 16, ChannelSet(Mask_RGBA), [](int, int, Channel) { return 3.0f; });
  host::connect(*node, 0, image.get());
  host::connect(*node, 1, kernel.get());
  const Image shown = render(*node, Box(0, 0, 20, 14), ChannelSet(Mask_RGBA));
  for (int y = 0; y < 14; ++y)
    for (int x = 0; x < 20; ++x)
      ASSERT_EQ(shown.at(x, y, Chan_Red), y < 12 && x < 12 ? 3.0f : 0.0f) << x << "," << y;

  auto emptyKernel = std::make_unique<host::FlatImage>(Format(12, 16), Box(3, 3, 3, 3), ChannelSet(Mask_RGBA));
  host::connect(*node, 1, emptyKernel.get());
  const Image nothing = render(*node, Box(0, 0, 20, 14), ChannelSet(Mask_RGBA));
  EXPECT_TRUE(node->masterKernel.empty());
  foreach (z, nothing.channels)
    for (float v : nothing.planes[z])
      ASSERT_EQ(v, 0.0f);
}
