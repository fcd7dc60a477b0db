// Where the windows of the inputs stand, and how large they claim to be: moving every window of
// every input by the same offset moves the output by it and changes nothing else, and a display
// window far larger than the data costs no more than the data.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "DDImage/Host.h"
#include "lens/MasterKernel.h"
#include "support/TestScenes.h"

using namespace DD::Image;
using namespace vorel;
using namespace vorel::test;

namespace {

struct Placement {
  Box format, box;
};

Box shifted(Box b, int dx, int dy) {
  b.move(dx, dy);
  return b;
}

Format formatOf(const Box& b) { return Format(b.w(), b.h(), b.x(), b.y(), b.r(), b.t()); }

// Colour and depth as functions of the position within the data window, so that a shifted scene
// holds the same pixels.
float sceneValue(const Box& box, int x, int y, Channel z) {
  const int u = x - box.x(), v = y - box.y();
  switch (z) {
    case Chan_Red: return 0.1f + 0.05f * static_cast<float>((u * 7 + v * 3) % 17);
    case Chan_Green: return 0.2f + 0.03f * static_cast<float>((u + 2 * v) % 11);
    case Chan_Blue: return ((u / 3 + v / 3) % 2) ? 1.9f : 0.1f;
    case Chan_Alpha: return 1.0f;
    default: return 90.0f + 4.0f * static_cast<float>(u % 7) + 3.0f * static_cast<float>(v % 5);
  }
}

// The scene of a placement moved by (dx, dy): a flat input 0, and a deep input 3 when asked for,
// with a half-transparent sample in front of an opaque one at every other pixel.
struct PlacedScene {
  PlacedScene(const Placement& p, int dx, int dy, bool deep)
      : format(shifted(p.format, dx, dy)), box(shifted(p.box, dx, dy)),
        flat(std::make_unique<host::FlatImage>(formatOf(format), box, rgbaz())), node(makeNode()) {
    const Box b = box;
    flat->fill([b](int x, int y, Channel z) { return sceneValue(b, x, y, z); });
    EXPECT_TRUE(host::connect(*node, 0, flat.get()));
    if (!deep)
      return;
    deepImage = std::make_unique<host::DeepImage>(formatOf(format), box, ChannelSet(Mask_RGBA));
    for (int y = box.y(); y < box.t(); ++y)
      for (int x = box.x(); x < box.r(); ++x) {
        const float z = sceneValue(box, x, y, Chan_Z);
        if ((x - box.x()) % 2 == 0)
          deepImage->addSample(x, y, {{Chan_DeepFront, z - 12.0f}, {Chan_DeepBack, z - 11.0f}, {Chan_Alpha, 0.5f},
                                      {Chan_Red, 0.5f * sceneValue(box, x, y, Chan_Red)}, {Chan_Green, 0.1f},
                                      {Chan_Blue, 0.2f}});
        deepImage->addSample(x, y, {{Chan_DeepFront, z}, {Chan_DeepBack, z + 1.0f}, {Chan_Alpha, 1.0f},
                                    {Chan_Red, 0.3f}, {Chan_Green, sceneValue(box, x, y, Chan_Green)},
                                    {Chan_Blue, sceneValue(box, x, y, Chan_Blue)}});
      }
    deepImage->finish();
    EXPECT_TRUE(host::connect(*node, 3, deepImage.get()));
  }

  Box format, box;
  std::unique_ptr<host::FlatImage> flat;
  std::unique_ptr<host::DeepImage> deepImage;
  std::unique_ptr<tzVorel> node;
};

// A blur that reaches across the scene, bloom measured from the format's centre, and a chromatic
// shift: every rule that places something by the format is at work.
void blurEverything(tzVorel& node) {
  setKnob(node, "focalPlane", 100.0);
  setKnob(node, "focusRegionSize", 20.0);
  setKnob(node, "multiplier", 7.0);
  setKnob(node, "max_kernelsize", 12);
  setKnob(node, "bloom", 0.8);
  setKnob(node, "bloomThreshold", 0.5);
  setKnob(node, "kChrAbb", 6.0);
}

// The node's box rendered, and the number of values that differ from `reference` moved by (dx, dy).
std::string shiftDifference(const Image& reference, const Image& moved, int dx, int dy) {
  if (moved.area != shifted(reference.area, dx, dy))
    return "the box did not move with the inputs";
  std::size_t differ = 0, total = 0;
  foreach (z, reference.channels)
    for (std::size_t i = 0; i < reference.planes[z].size(); ++i, ++total)
      differ += reference.planes[z][i] != moved.planes[z][i];
  return differ ? std::to_string(differ) + " of " + std::to_string(total) + " values differ" : "";
}

const std::vector<std::pair<int, int>> kOffsets = {{-37, -5}, {13, 7}, {1000, -2000}};

void expectTranslationInvariance(const std::vector<Placement>& placements, bool deep, int outputType) {
  for (const Placement& p : placements) {
    PlacedScene at0(p, 0, 0, deep);
    blurEverything(*at0.node);
    setKnob(*at0.node, "outputType", outputType);
    const Image reference = render(*at0.node, rgbaz());
    for (const auto& [dx, dy] : kOffsets) {
      SCOPED_TRACE(::testing::Message() << "box " << p.box.x() << "," << p.box.y() << " offset " << dx << ","
                                        << dy << " output " << outputType);
      PlacedScene moved(p, dx, dy, deep);
      blurEverything(*moved.node);
      setKnob(*moved.node, "outputType", outputType);
      EXPECT_EQ(shiftDifference(reference, render(*moved.node, rgbaz()), dx, dy), "");
      EXPECT_EQ(moved.node->frame()->maxCoC, at0.node->frame()->maxCoC);
    }
  }
}

// The data window inside the display window, partly outside it, and wholly beside it.
const std::vector<Placement> kPlacements = {{Box(0, 0, 40, 30), Box(0, 0, 40, 30)},
                                            {Box(0, 0, 40, 30), Box(-6, 4, 34, 36)},
                                            {Box(0, 0, 40, 30), Box(50, -3, 90, 27)}};

}  // namespace

TEST(TranslationInvariance, FlatDefocusAndBloom) {
  expectTranslationInvariance(kPlacements, false, OutputDefocusedImage);
  expectTranslationInvariance(kPlacements, false, OutputLensBloom);
}

TEST(TranslationInvariance, DeepDefocus) {
  expectTranslationInvariance(kPlacements, true, OutputDefocusedImage);
}

TEST(TranslationInvariance, FilterShapeStandsInTheFormatsCorner) {
  expectTranslationInvariance({{Box(0, 0, 40, 30), Box(0, 0, 40, 30)}, {Box(0, 0, 40, 30), Box(-6, 4, 34, 36)}},
                              false, OutputFilterShape);
}

TEST(DeepBesideTheFormat, IsReadAsIfTheFormatHeldIt) {
  // Deep data wholly beside the display window: read, not lost. Without bloom and chromatic shift
  // (both measured from the format) the format only bounds where pixels are read, so a format
  // grown to hold the data gives the same image.
  const Box data(50, -3, 90, 27);
  Box grown(0, 0, 40, 30);
  grown.merge(data);
  Image images[2];
  for (int k = 0; k < 2; ++k) {
    PlacedScene scene({k ? grown : Box(0, 0, 40, 30), data}, 0, 0, true);
    blurEverything(*scene.node);
    setKnob(*scene.node, "bloom", 0.0);
    setKnob(*scene.node, "kChrAbb", 0.0);
    images[k] = render(*scene.node, rgbaz());
    float largest = 0.0f;
    for (const float v : images[k].planes[Chan_Green])
      largest = std::max(largest, v);
    EXPECT_GT(largest, 0.2f) << "the deep data came out black";
  }
  EXPECT_EQ(shiftDifference(images[0], images[1], 0, 0), "");
}

TEST(BoundedWork, AHugeDisplayWindowScansOnlyItsData) {
  // A 16 x 16 image in a display window of 1e6 x 1e6: beyond the box every read repeats an edge
  // pixel, so the scan finds what a walk over the whole window would, without walking it. The
  // largest CoC sits on the box's right edge, which the window repeats a million times over.
  auto node = makeNode();
  setKnob(*node, "focalPlane", 100.0);
  setKnob(*node, "focusRegionSize", 20.0);
  setKnob(*node, "multiplier", 9.0);
  host::FlatImage image(Format(1000000, 1000000), Box(5, 7, 21, 23), rgbaz());
  image.fill([](int x, int y, Channel z) {
    return z != Chan_Z ? 0.5f : (x == 20 && y == 9) ? 110.0f : (x == 8 ? 104.0f : 100.0f);
  });
  host::connect(*node, 0, &image);
  host::prepare(*node, Box(5, 7, 21, 23), rgbaz());
  EXPECT_EQ(node->frame()->maxCoC, 9);
  EXPECT_EQ(node->frame()->kernelRadius, 6);
}

TEST(BoundedWork, FilterShapeOfAHugeDisplayWindowHoldsWhatItsBoxShows) {
  // The kernel is as large as the format's smaller side; the frame holds only the part the box
  // shows, and every value shown is that of the whole kernel.
  NodeParameters p;
  p.kernelType = KernelApertureBlades;
  p.kSphAbb = 0.3f;
  p.vorelChannels = ChannelSet(Mask_RGBA);
  const Box format(-20, 10, 280, 310);
  const Kernel whole = buildMasterKernel(p, format, nullptr, true);
  ASSERT_EQ(whole.width, 300);
  // Wanted, and the part of the 300x300 kernel it holds (nothing, beside the kernel).
  const std::pair<Box, Box> cases[] = {{Box(5, 7, 21, 23), Box(5, 7, 21, 23)},
                                       {Box(-9, 290, 12, 320), Box(0, 290, 12, 300)},
                                       {Box(400, 0, 410, 5), Box(0, 0, 0, 0)}};
  for (const auto& [wanted, expected] : cases) {
    const MasterKernelPart part = buildMasterKernelPart(p, format, nullptr, true, wanted);
    EXPECT_EQ(part.window, expected);
    ASSERT_EQ(part.kernel.count, static_cast<std::uint64_t>(expected.w()) * expected.h());
    for (int y = expected.y(); y < expected.t(); ++y)
      for (int x = expected.x(); x < expected.r(); ++x)
        ASSERT_EQ(part.kernel.plane(Chan_Blue)[(y - expected.y()) * expected.w() + (x - expected.x())],
                  whole.plane(Chan_Blue)[y * 300 + x])
            << x << "," << y;
  }

  // Through the node, on a display window of 1e6 x 1e6 around a 16 x 16 image.
  auto node = makeNode();
  setKnob(*node, "outputType", OutputFilterShape);
  host::FlatImage image(Format(1000000, 1000000), Box(5, 7, 21, 23), rgbaz());
  image.fill([](int, int, Channel) { return 1.0f; });
  host::connect(*node, 0, &image);
  const Image shown = render(*node, rgbaz());
  EXPECT_EQ(node->frame()->masterKernel.count, 16u * 16u);
  // Far from the disc's centre (500000, 500000), inside its square: the corner of the kernel is 0.
  for (const float v : shown.planes[Chan_Red])
    EXPECT_EQ(v, 0.0f);
}

TEST(BoundedWork, AHugeDisplayWindowRendersAsASmallOneThatHoldsTheData) {
  // Without bloom and chromatic shift the format only bounds where pixels are read; two formats
  // that hold the data and the reach around it give the same image, however large one of them.
  for (const bool deep : {false, true}) {
    Image images[2];
    for (int k = 0; k < 2; ++k) {
      PlacedScene scene({k ? Box(0, 0, 1000000, 1000000) : Box(0, 0, 64, 64), Box(5, 7, 21, 23)}, 0, 0, deep);
      blurEverything(*scene.node);
      setKnob(*scene.node, "bloom", 0.0);
      setKnob(*scene.node, "kChrAbb", 0.0);
      images[k] = render(*scene.node, rgbaz());
    }
    EXPECT_EQ(shiftDifference(images[0], images[1], 0, 0), "") << (deep ? "deep" : "flat");
  }
}
