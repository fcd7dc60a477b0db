// The node against the host's behaviour where the real host is stricter than a forgiving one
// would be: kernels across requests, which op holds the data, metadata, the bounding box, reads
// clamped to what was requested, request counts, interests, opening from worker threads, proxy
// scale, knob_changed, deep fetches that fail, rows that are not cleared, and errors that abort.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "DDImage/CameraOp.h"
#include "DDImage/Knob.h"
#include "DDImage/MetaData.h"
#include "DDImage/OutputContext.h"
#include "DDImage/Row.h"
#include "DDImage/Thread.h"
#include "support/TestScenes.h"

using namespace DD::Image;

namespace vorel {
namespace test {
namespace {

constexpr int kWidth = 40;
constexpr int kHeight = 30;

// A wall far behind the focal plane on the right, the focal plane on the left, a near band at
// the bottom: blur of every size, and colours that differ from pixel to pixel.
float sceneValue(int x, int y, Channel z) {
  if (z == Chan_Z)
    return y < 4 ? 60.0f : (x < 12 ? 100.0f : 100.0f + 40.0f * float(x - 12));
  if (z == Chan_Alpha)
    return 1.0f;
  return 0.1f * float(int(z)) + 0.03f * float((x * 7 + y * 5) % 11);
}

std::unique_ptr<host::FlatImage> scene() { return flatImage(kWidth, kHeight, rgbaz(), sceneValue); }

// Knobs that give a strong blur over a small kernel, so every scene renders in milliseconds.
void blurry(tzVorel& node) {
  setKnob(node, "max_kernelsize", 12);
  setKnob(node, "multiplier", 40);
  setKnob(node, "focusRegionSize", 10);
}

bool sameBits(const std::vector<float>& a, const std::vector<float>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

bool sameImage(const Image& a, const Image& b) {
  if (!(a.area == b.area) || !(a.channels == b.channels))
    return false;
  foreach (z, a.channels)
    if (!sameBits(a.planes[z], b.planes[z]))
      return false;
  return true;
}

std::vector<float> rowOf(tzVorel& node, int y, Channel z) {
  Row row(0, kWidth);
  node.engine(y, 0, kWidth, ChannelSet(Mask_RGBA), row);
  return std::vector<float>(row[z], row[z] + kWidth);
}

std::vector<float> rowOf(const Image& image, int y, Channel z) {
  const auto begin = image.planes[z].begin() + static_cast<std::ptrdiff_t>(y - image.area.y()) * image.area.w();
  return std::vector<float>(begin, begin + image.area.w());
}

// ---- the call protocol --------------------------------------------------------------------------

TEST(RealHostProtocol, KernelsStayBuiltForASecondRequestWithoutANewOpen) {
  auto image = scene();
  auto node = makeNode();
  ASSERT_TRUE(host::connect(*node, 0, image.get()));
  blurry(*node);
  const Image first = render(*node, ChannelSet(Mask_RGBA));

  // A second consumer (a viewer pan) asks again; the host does not open the node again.
  node->request(Box(5, 5, 20, 20), ChannelSet(Mask_RGBA), 1);
  node->open();
  for (int y : {0, 12, kHeight - 1})
    EXPECT_TRUE(sameBits(rowOf(*node, y, Chan_Red), rowOf(first, y, Chan_Red))) << "row " << y;

  // An edit invalidates: what was built for the old values goes.
  setKnob(*node, "multiplier", 20);
  EXPECT_FALSE(node->frame()->kernelsReady);
}

TEST(RealHostProtocol, AnErrorAbortsTheNodeAndItsOpenIsSkipped) {
  auto image = scene();
  auto node = makeNode();
  ASSERT_TRUE(host::connect(*node, 0, image.get()));
  setKnob(*node, "kernelType", 0);  // an image kernel, with nothing on the Kernel input
  host::prepare(*node, Box(0, 0, kWidth, kHeight), ChannelSet(Mask_RGBA));
  EXPECT_TRUE(host::hasError(*node) && node->aborted() && !node->frame()->kernelsReady);

  Row row(0, kWidth);
  float* red = row.writable(Chan_Red);
  std::fill(red, red + kWidth, 7.0f);
  node->engine(3, 0, kWidth, ChannelSet(Mask_RGBA), row);
  EXPECT_EQ(row[Chan_Red][5], 7.0f);  // an aborted node leaves the row alone

  // Connecting the kernel and validating again lifts the abort.
  auto kernel = flatImage(9, 9, ChannelSet(Mask_RGBA), [](int, int, Channel) { return 1.0f; });
  ASSERT_TRUE(host::connect(*node, 1, kernel.get()));
  host::prepare(*node, Box(0, 0, kWidth, kHeight), ChannelSet(Mask_RGBA));
  EXPECT_TRUE(!host::hasError(*node) && !node->aborted() && node->frame()->kernelsReady);
}

TEST(RealHostProtocol, InputsAreOpenBeforeTheOpenSpawnsWorkersThatReadThem) {
  auto image = scene();
  auto mattes = flatImage(kWidth, kHeight, ChannelSet(Mask_RGBA), [](int x, int, Channel) { return x < 20 ? 1.0f : 0.5f; });
  auto node = makeNode();
  ASSERT_TRUE(host::connect(*node, 0, image.get()) && host::connect(*node, 4, mattes.get()));
  blurry(*node);
  setChannelKnob(*node, "defocusMatteChannel", Chan_Alpha);
  const unsigned cpus = Thread::numCPUs;
  Thread::numCPUs = 3;
  host::prepare(*node, Box(0, 0, kWidth, kHeight), ChannelSet(Mask_RGBA));
  Thread::numCPUs = cpus;
  EXPECT_FALSE(host::hasError(*mattes)) << host::errorText(*mattes);
  EXPECT_FALSE(host::hasError(*image)) << host::errorText(*image);
}

TEST(RealHostProtocol, RowsTakeNoInterestInTheirInput) {
  auto image = scene();
  auto node = makeNode();
  ASSERT_TRUE(host::connect(*node, 0, image.get()));
  blurry(*node);
  for (int type = 0; type <= 4; ++type) {
    setKnob(*node, "outputType", type);
    render(*node, ChannelSet(Mask_RGBA), 2);
  }
  EXPECT_EQ(host::interests(*image), 0);
}

// ---- what is read, and what was asked for ------------------------------------------------------

TEST(RealHostRequests, EverythingReadWasRequested) {
  for (bool deep : {false, true}) {
    SCOPED_TRACE(deep ? "deep" : "flat");
    auto image = scene();
    auto mattes = flatImage(kWidth, kHeight, ChannelSet(Mask_RGBA), [](int x, int, Channel) { return x < 20 ? 1.0f : 0.5f; });
    auto deepImage = std::make_unique<host::DeepImage>(Format(kWidth, kHeight), Box(0, 0, kWidth, kHeight),
                                                       ChannelSet(Mask_RGBA));
    for (int y = 0; y < kHeight; ++y)
      for (int x = 0; x < kWidth; ++x)
        deepImage->addSample(x, y, {{Chan_DeepFront, sceneValue(x, y, Chan_Z)}, {Chan_Alpha, 1.0f},
                                    {Chan_Red, sceneValue(x, y, Chan_Red)}});
    deepImage->finish();
    auto node = makeNode();
    ASSERT_TRUE(host::connect(*node, 0, image.get()) && host::connect(*node, 4, mattes.get()));
    if (deep) {
      ASSERT_TRUE(host::connect(*node, 3, deepImage.get()));
    }
    blurry(*node);
    setKnob(*node, "kChrAbb", 8);
    setChannelKnob(*node, "defocusMatteChannel", Chan_Alpha);
    setChannelKnob(*node, "chromicAberrationMatteChannel", Chan_Red);

    // A crop far from the strongest blur: the open still reads the whole image.
    render(*node, Box(1, 20, 6, 24), ChannelSet(Mask_RGBA));
    EXPECT_EQ(host::unrequestedReads(*image), 0);
    EXPECT_EQ(host::unrequestedReads(*mattes), 0);
    EXPECT_EQ(host::unrequestedReads(*deepImage), 0);
  }
}

TEST(RealHostRequests, TheCountSaysHowOftenEachInputRowIsRead) {
  auto image = scene();
  auto node = makeNode();
  ASSERT_TRUE(host::connect(*node, 0, image.get()));
  blurry(*node);
  render(*node, ChannelSet(Mask_RGBA));
  // Each output row reads 2R+1 rows of input 0; a count of 1 would keep them out of the cache.
  ASSERT_FALSE(host::requests(*image).empty());
  EXPECT_GE(host::requests(*image).back().count, 2 * node->frame()->kernelRadius + 1);
}

TEST(RealHostRequests, TheCameraAndTheDeepDataComeFromTheOpsThatHoldTheRender) {
  // node_input gives the graph's op; only input() holds the values of this render.
  host::Camera render, graph;
  render.setFocalLength(85);
  render.setFstop(2.8);
  render.setFocalPoint(300);
  graph.setFocalLength(20);
  auto image = scene();
  auto node = makeNode();
  ASSERT_TRUE(host::connect(*node, 0, image.get()) && host::connect(*node, 2, &render, &graph));
  node->validate(true);
  EXPECT_EQ(node->frame()->params.focalLength, 85.0f);  // validated by the node before it was read
  EXPECT_EQ(node->frame()->params.fStop, 2.8f);
  EXPECT_EQ(node->frame()->params.focalPlane, 300.0f);

  auto deepRender = std::make_unique<host::DeepImage>(Format(kWidth, kHeight), Box(0, 0, kWidth, kHeight),
                                                      ChannelSet(Mask_RGBA));
  auto deepGraph = std::make_unique<host::DeepImage>(Format(kWidth, kHeight), Box(0, 0, kWidth, kHeight),
                                                     ChannelSet(Mask_RGBA));
  deepRender->addSample(4, 4, {{Chan_DeepFront, 50.0f}, {Chan_Alpha, 1.0f}});
  deepRender->finish();
  auto matte = makeNode();
  ASSERT_TRUE(host::connect(*matte, 0, image.get()) && host::connect(*matte, 3, deepRender.get(), deepGraph.get()));
  setKnob(*matte, "outputType", 4);  // the focus matte: green where a sample is in front
  const Image out = vorel::test::render(*matte, Box(0, 0, kWidth, kHeight), ChannelSet(Mask_RGB));
  EXPECT_EQ(out.at(4, 4, Chan_Green), 1.0f);
  EXPECT_EQ(out.at(5, 4, Chan_Green), 0.0f);
}

TEST(RealHostRequests, AFailedDeepFetchStopsTheRow) {
  auto image = scene();
  auto deep = std::make_unique<host::DeepImage>(Format(kWidth, kHeight), Box(0, 0, kWidth, kHeight),
                                                ChannelSet(Mask_RGBA));
  for (int y = 0; y < kHeight; ++y)
    for (int x = 0; x < kWidth; ++x)
      deep->addSample(x, y, {{Chan_DeepFront, sceneValue(x, y, Chan_Z)}, {Chan_Alpha, 1.0f}});
  deep->finish();
  auto node = makeNode();
  ASSERT_TRUE(host::connect(*node, 0, image.get()) && host::connect(*node, 3, deep.get()));
  blurry(*node);
  host::prepare(*node, Box(0, 0, kWidth, kHeight), ChannelSet(Mask_RGBA));
  ASSERT_GT(node->frame()->kernelRadius, 0);

  // false means the render is aborted: asking again for the next source row is wasted work.
  deep->setEngineFails(true);
  deep->resetEngineCalls();
  Row row(0, kWidth);
  node->engine(10, 0, kWidth, ChannelSet(Mask_RGBA), row);
  EXPECT_EQ(deep->engineCalls(), 1);
}

// ---- what the node tells the host ----------------------------------------------------------------

TEST(RealHostOutput, InputMetadataIsHandedOn) {
  auto image = scene();
  image->metadata().setData("input/filename", "shot.exr");
  auto node = makeNode();
  ASSERT_TRUE(host::connect(*node, 0, image.get()));
  node->validate(true);
  EXPECT_EQ(node->fetchMetaData(nullptr).getString("input/filename"), "shot.exr");
}

TEST(RealHostOutput, TheBoxGrowsPastAFullFrameInput) {
  auto image = scene();
  auto node = makeNode();
  ASSERT_TRUE(host::connect(*node, 0, image.get()));
  setKnob(*node, "max_kernelsize", 10);
  setKnob(*node, "expandBBoxToMaxKernelSize", 1);
  node->validate(true);
  EXPECT_EQ(node->info().box(), Box(-5, -5, kWidth + 4, kHeight + 4));
}

TEST(RealHostOutput, TheProxyScaleIsTheRendersAndBoundsTheKernel) {
  auto image = scene();
  auto node = makeNode();
  ASSERT_TRUE(host::connect(*node, 0, image.get()));
  setKnob(*node, "max_kernelsize", 40);
  OutputContext half;
  half.setProxyscale(0.5f);
  node->setOutputContext(half);  // the panel's context stays at full size
  node->validate(true);
  EXPECT_EQ(node->frame()->params.uiScale, 0.5f);
  EXPECT_EQ(node->frame()->maxCoC, 20);
  EXPECT_EQ(node->frame()->kernelRadius, 10);
}

// ---- the panel ---------------------------------------------------------------------------------

TEST(RealHostPanel, HandledKnobsKeepBeingToldAndThePanelIsSetUpWhenItOpens) {
  auto node = makeNode();
  Knob* range = node->knob("depthSlicesNearAndFar");
  for (bool on : {true, false, true}) {
    setKnob(*node, "overrideNearAndFarForSlices", on);
    EXPECT_EQ(range->isEnabled(), on);
  }

  // A panel made afresh while a camera is connected shows the camera's knobs as taken.
  host::Camera camera;
  ASSERT_TRUE(host::connect(*node, 2, &camera));
  host::makeKnobs(*node);
  EXPECT_NE(host::showPanel(*node), 0);
  EXPECT_FALSE(node->knob("focalLength")->isEnabled());
  EXPECT_FALSE(node->knob("apertureWidth")->isEnabled());
  EXPECT_TRUE(node->knob("filmFormat")->isEnabled());
}

TEST(RealHostPanel, AFilmFormatFromASavedScriptGivesItsFilmBack) {
  // A script sets knobs without knob_changed: the film back follows from the format at validation.
  auto loaded = makeNode();
  ASSERT_TRUE(host::loadKnob(*loaded, "filmFormat", 3));
  auto typed = makeNode();
  setKnob(*typed, "filmFormat", 9);
  setKnob(*typed, "apertureWidth", 24.89);
  setKnob(*typed, "apertureHeight", 18.67);
  for (tzVorel* node : {loaded.get(), typed.get()})
    node->validate(true);
  EXPECT_EQ(loaded->frame()->params.pixelsPerMillimetre, typed->frame()->params.pixelsPerMillimetre);
}

// ---- rows ----------------------------------------------------------------------------------------

TEST(RealHostRows, NoOutputCountsOnFreshRowBuffersBeingZero) {
  auto image = scene();
  auto deep = std::make_unique<host::DeepImage>(Format(kWidth, kHeight), Box(0, 0, kWidth, kHeight),
                                                ChannelSet(Mask_RGBA));
  for (int x = 0; x < kWidth; x += 2)
    deep->addSample(x, 10, {{Chan_DeepFront, 50.0f + float(x)}, {Chan_Alpha, 0.5f}, {Chan_Red, 0.4f}});
  deep->finish();
  for (bool withDeep : {false, true}) {
    for (int type = 0; type <= 4; ++type) {
      for (int separate = 0; separate <= (withDeep ? 1 : 0); ++separate) {
        SCOPED_TRACE(testing::Message() << (withDeep ? "deep" : "flat") << " outputType " << type
                                        << " separate " << separate);
        Image renders[2];
        for (bool nan : {false, true}) {
          auto node = makeNode();
          ASSERT_TRUE(host::connect(*node, 0, image.get()));
          if (withDeep) {
            ASSERT_TRUE(host::connect(*node, 3, deep.get()));
          }
          blurry(*node);
          setKnob(*node, "outputType", type);
          setKnob(*node, "integrateFrontAndBackSeperately", separate);
          setKnob(*node, "focusOutput", separate ? 2 : 0);
          host::setFreshRowsNaN(nan);
          renders[nan] = render(*node, Box(-3, 8, kWidth + 2, 13), ChannelSet(Mask_RGBA));
        }
        host::setFreshRowsNaN(true);
        EXPECT_TRUE(sameImage(renders[0], renders[1]));
      }
    }
  }
}

}  // namespace
}  // namespace test
}  // namespace vorel
