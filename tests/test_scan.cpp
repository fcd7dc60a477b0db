// The whole-image CoC scan that sizes the bank at open, and the filter shape output.
#include <gtest/gtest.h>

#include <limits>
#include <string>

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
    return z != Chan_Z ? 0.5f : (x == px && y == py ? depth : 100.0f);
  });
}

void open(tzVorel& node, Iop* image) {
  host::connect(node, 0, image);
  host::prepare(node, Box(0, 0, std::max(1, node.format().w()), std::max(1, node.format().h())), rgbaz());
}

}  // namespace

TEST(ScanFlat, LargestCoCGivesMaxCoCAndReachCappedWithAWarning) {
  // The one out-of-focus pixel sits in a different place each time, corners included, and beyond
  // the region (depth 0 or 500), where it is clamped to the region's edge.
  struct Case {
    float multiplier;
    int maxKernelSize, width, height, px, py;
    float depth;
    int maxCoC, kernelRadius;
    const char* found;  // the value the warning names, if any: the one found, not the cap
  };
  for (const Case& c : {Case{0.2f, 256, 24, 10, 17, 6, 130.0f, 1, 2, nullptr},
                        Case{7.0f, 256, 24, 10, 0, 0, 500.0f, 7, 5, nullptr},
                        Case{7.5f, 256, 24, 10, 23, 9, 130.0f, 8, 6, nullptr},
                        Case{2.0f, 256, 24, 10, 5, 5, 0.0f, 2, 3, nullptr},
                        Case{0.0f, 256, 24, 10, 5, 5, 0.0f, 0, 2, nullptr},
                        Case{300.5f, 256, 8, 8, 0, 7, 0.0f, 256, 130, "301"},
                        Case{300.0f, 255, 8, 8, 7, 0, 500.0f, 255, 129, "300"},
                        Case{12.0f, 12, 8, 8, 3, 3, 500.0f, 12, 8, nullptr},  // reaching the cap is no overflow
                        Case{9.0f, 256, 8, 0, 3, 0, 500.0f, 0, 2, nullptr}}) {
    auto node = artisticNode(c.multiplier);
    setKnob(*node, "max_kernelsize", c.maxKernelSize);
    auto image = focusedImage(c.width, c.height, c.px, c.py, c.depth);
    open(*node, image.get());
    EXPECT_EQ(node->frame()->maxCoC, c.maxCoC) << c.multiplier;
    EXPECT_EQ(node->frame()->kernelRadius, c.kernelRadius) << c.multiplier;
    EXPECT_EQ(node->frame()->kernelBank.size(), static_cast<std::size_t>(c.maxCoC + 5)) << c.multiplier;
    std::vector<std::string> expected;
    if (c.found)
      expected.push_back("Max kernel size is less than the maximum coc in the result, you may want to consider "
                         "increasing the max kernel size above " + std::string(c.found) + ".");
    EXPECT_EQ(host::warnings(*node), expected) << c.multiplier;
  }
}

TEST(ScanFlat, DepthIsConditionedAndClampedFirst) {
  // A NaN is the far limit, clamped to the region's far edge: back side, so the back factor applies.
  auto node = artisticNode(3.0f);
  setKnob(*node, "backmultiplier", 2.0);
  auto nan = focusedImage(6, 6, 2, 4, std::numeric_limits<float>::quiet_NaN());
  open(*node, nan.get());
  EXPECT_EQ(node->frame()->maxCoC, 6);

  // "1/z": samples of 0.01 are the depth 100, in focus; the one of 100 is the depth 0.01, clamped
  // to the near edge.
  auto inverse = artisticNode(3.0f);
  setKnob(*inverse, "frontmultiplier", 1.5);
  setKnob(*inverse, "depthStyle", 1);
  auto inverted = flatImage(6, 6, rgbaz(), [](int x, int y, Channel z) {
    return z != Chan_Z ? 0.5f : (x == 4 && y == 1 ? 100.0f : 0.01f);
  });
  open(*inverse, inverted.get());
  EXPECT_EQ(inverse->frame()->maxCoC, 5);  // ceil(4.5)
}

TEST(ScanFlat, OnlyTheFormatFromItsOwnCorner) {
  // Format 16 x 8 from x = 10: the scan reads columns 10 to 25, whatever the box holds beyond.
  for (const int far : {20, 5}) {
    auto node = artisticNode(9.0f);
    host::FlatImage image(Format(26, 8, 10, 0, 26, 8), Box(0, 0, 40, 8), rgbaz());
    image.fill([far](int x, int, Channel z) {
      return z != Chan_Z ? 0.5f : x == 12 ? 100.5f : x == far ? 200.0f : 100.0f;  // CoC 4.5 and 9
    });
    host::connect(*node, 0, &image);
    host::prepare(*node, Box(10, 0, 26, 8), rgbaz());
    EXPECT_EQ(node->frame()->maxCoC, far == 20 ? 9 : 5) << far;
  }
}

TEST(ScanDeep, NearestSamplesBackDepthUnclampedAndFailedFetches) {
  struct Sample { int x, y; float front, back; };
  auto scan = [](std::vector<Sample> samples, bool fails = false) {
    auto node = artisticNode(10.0f);
    auto flat = focusedImage(8, 4, -1, -1, 0.0f);
    host::DeepImage deep(Format(8, 4), Box(0, 0, 8, 4), ChannelSet(Mask_RGBA));
    for (const Sample& s : samples)
      deep.addSample(s.x, s.y, {{Chan_DeepFront, s.front}, {Chan_DeepBack, s.back}, {Chan_Alpha, 0.5f}});
    deep.setEngineFails(fails);
    deep.finish();
    host::connect(*node, 3, &deep);
    open(*node, flat.get());
    EXPECT_TRUE(node->frame()->params.hasDeepInput);
    EXPECT_TRUE(host::warnings(*node).empty());
    return std::make_pair(node->frame()->maxCoC, node->frame()->kernelRadius);
  };
  // The nearest sample's back (100.5) gives CoC 5; its front (100) and the far sample (CoC 10) don't count.
  EXPECT_EQ(scan({{2, 1, 150.0f, 160.0f}, {2, 1, 100.0f, 100.5f}, {5, 3, 100.2f, 100.2f}}), std::make_pair(5, 4));
  // Unclamped, the far limit meets the near-infinite rule: the largest CoC so far, not the
  // multiplier that the region's far edge would give.
  EXPECT_EQ(scan({{1, 0, kFarLimit, kFarLimit}, {6, 2, 100.25f, 100.25f}}).first, 3);
  EXPECT_EQ(scan({{1, 0, kFarLimit, kFarLimit}}).first, 0);
  EXPECT_EQ(scan({}), std::make_pair(0, 2));
  EXPECT_EQ(scan({{1, 1, 300.0f, 300.0f}}, true).first, 0);
}

TEST(FilterShape, DiscInTheCornerOfA2KFormatAndNothingOutsideIt) {
  auto node = makeNode();
  setKnob(*node, "outputType", OutputFilterShape);
  setKnob(*node, "max_kernelsize", 32);  // has no say in the filter shape's size
  auto image = flatImage(2048, 1556, rgbaz(), [](int, int, Channel z) { return z == Chan_Z ? 7.0f : 0.25f; });
  host::connect(*node, 0, image.get());
  for (const Box& area : {Box(1500, 776, 2048, 780), Box(-8, -3, 8, 2), Box(1550, 1552, 1560, 1560)}) {
    const Image rows = render(*node, area, rgbaz());
    ASSERT_EQ(node->frame()->masterKernel.width, 1556);
    const float* plane = node->frame()->masterKernel.plane(Chan_Red);
    for (int y = area.y(); y < area.t(); ++y)
      for (int x = area.x(); x < area.r(); ++x) {
        const bool inside = x >= 0 && x < 1556 && y >= 0 && y < 1556;
        const float expected = inside ? plane[static_cast<std::size_t>(y) * 1556 + x] : 0.0f;
        // depth.Z isn't a kernel channel: 0, although the input has it.
        ASSERT_TRUE(rows.at(x, y, Chan_Red) == expected && rows.at(x, y, Chan_Alpha) == expected &&
                    rows.at(x, y, Chan_Z) == 0.0f)
            << x << "," << y;
      }
  }
  // The disc's centre is the corner shared by pixels 777 and 778, not the format's centre.
  const Image centre = render(*node, Box(776, 776, 780, 780), rgbaz());
  for (int y : {777, 778})
    for (int x : {777, 778})
      EXPECT_EQ(centre.at(x, y, Chan_Green), 1.0f) << x << "," << y;
}

TEST(FilterShape, EmptyKernelShowsNothing) {
  auto node = makeNode();
  setKnob(*node, "outputType", OutputFilterShape);
  setKnob(*node, "kernelType", KernelInput);
  auto image = flatImage(40, 30, rgbaz(), [](int, int, Channel) { return 1.0f; });
  host::FlatImage emptyKernel(Format(12, 16), Box(3, 3, 3, 3), ChannelSet(Mask_RGBA));
  host::connect(*node, 0, image.get());
  host::connect(*node, 1, &emptyKernel);
  const Image nothing = render(*node, Box(0, 0, 20, 14), ChannelSet(Mask_RGBA));
  EXPECT_TRUE(node->frame()->masterKernel.empty());
  foreach (z, nothing.channels)
    EXPECT_EQ(nothing.planes[z], std::vector<float>(nothing.planes[z].size(), 0.0f));
}
