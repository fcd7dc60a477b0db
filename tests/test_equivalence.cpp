// Rows served in bands from the frame tables built at open, with weights accumulated once for
// channels that share a kernel and kernel rows added through their runs, against the same node's
// straightforward rows, one at a time, which recompute every source visit from the inputs and add
// every kernel value to every channel's own lines. The bound is 1e-5 x max(1, |reference|) per
// value. Where nothing is added through runs (a chromatic shift, kernel planes that differ) the
// band path keeps the order of every addition, and is checked to be the same float, bit for bit.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "DDImage/Row.h"
#include "engines/BandCache.h"
#include "engines/SplatContext.h"
#include "support/TestScenes.h"

using namespace DD::Image;

namespace vorel {
namespace test {
namespace {

constexpr int kWidth = 52;
constexpr int kHeight = 40;

float hash01(int x, int y, int salt) {
  std::uint32_t h = std::uint32_t(x) * 374761393u + std::uint32_t(y) * 668265263u + std::uint32_t(salt) * 2246822519u;
  h = (h ^ (h >> 13)) * 1274126177u;
  return float(h >> 8) * (1.0f / 16777216.0f);
}

// Depth in centimetres: a far wall, a floor coming closer, two discs, a hole of "infinitely far"
// and a NaN; colours with highlights well above the bloom threshold, one NaN and one infinite.
float sceneDepth(int x, int y) {
  if (x == 7 && y == 9)
    return NAN;
  if (x >= 44 && y >= 33)
    return INFINITY;
  if ((x - 14) * (x - 14) + (y - 24) * (y - 24) < 49)
    return 90.0f;
  if ((x - 33) * (x - 33) + (y - 12) * (y - 12) < 36)
    return 450.0f;
  if (y < 14)
    return 120.0f + 50.0f * float(y);
  return 800.0f;
}

float sceneValue(int x, int y, Channel z) {
  if (z == Chan_Z)
    return sceneDepth(x, y);
  if (z == Chan_Alpha)
    return 0.5f + 0.5f * hash01(x, y, 9);
  // Values that zero kernel columns must not hide: 0 times them is NaN.
  if (x == 25 && y == 20)
    return z == Chan_Red ? NAN : INFINITY;
  const float v = hash01(x, y, int(z));
  return (x * 7 + y * 3) % 23 == 0 ? 4.0f + 16.0f * v : v;
}

struct Variant {
  std::string name;
  std::vector<std::pair<const char*, double>> knobs;
  bool mattes = false;
  bool kernelImage = false;  // the Kernel input, with planes that differ from channel to channel
};

std::vector<Variant> variants() {
  const std::vector<std::pair<const char*, double>> lens = {
      {"realWorldLens", 1}, {"focalLength", 50}, {"fStop", 2.8}, {"focalPlane", 200},
      {"worldScale", 1},    {"max_kernelsize", 16}};
  auto with = [&](std::vector<std::pair<const char*, double>> extra) {
    auto k = lens;
    k.insert(k.end(), extra.begin(), extra.end());
    return k;
  };
  return {
      {"lens", with({}), false},
      {"lens_bloom_chromatic", with({{"bloom", 1.5}, {"kChrAbb", 10}}), false},
      {"lens_negative_chromatic", with({{"kChrAbb", -6}, {"bloomCurvature", 0}, {"bloom", 0.5}}), false},
      {"lens_blades", with({{"kernelType", 2}, {"kNumSides", 5}, {"kRotation", 20}}), false},
      {"lens_front", with({{"focusOutput", 1}}), false},
      {"lens_back", with({{"focusOutput", 2}, {"correctiveSlices", 3}}), false},
      {"lens_one_slice", with({{"correctiveSlices", 1}}), false},
      {"lens_mattes", with({{"bloom", 1}, {"kChrAbb", 8}}), true},
      {"lens_kernel_image", with({{"kernelType", 0}, {"bloom", 1}}), false, true},
      {"lens_kernel_image_chromatic", with({{"kernelType", 0}, {"kChrAbb", 6}}), false, true},
      {"artistic", {{"focalPlane", 300}, {"focusRegionSize", 50}, {"multiplier", 5}, {"max_kernelsize", 12}}, false},
      // Blur wide enough for kernels with zero corners.
      {"artistic_wide", {{"focalPlane", 100}, {"focusRegionSize", 200}, {"multiplier", 15}, {"max_kernelsize", 16}}, false},
      {"artistic_wide_blades",
       {{"focalPlane", 100}, {"focusRegionSize", 200}, {"multiplier", 15}, {"max_kernelsize", 16}, {"kernelType", 2},
        {"kChrAbb", 4}, {"bloom", 1}},
       false},
      {"artistic_inverse_depth",
       {{"depthStyle", 1}, {"focalPlane", 0.004}, {"focusRegionSize", 0.001}, {"max_kernelsize", 10}},
       false},
  };
}

struct Scene {
  std::unique_ptr<host::FlatImage> flat, mattes, kernel;
  std::unique_ptr<host::DeepImage> deep;
};

Scene makeScene(bool deep) {
  Scene s;
  s.flat = flatImage(kWidth, kHeight, rgbaz(), sceneValue);
  s.mattes = flatImage(kWidth, kHeight, ChannelSet(Mask_RGB), [](int x, int y, Channel z) {
    return z == Chan_Red ? 2.0f * hash01(x, y, 21) : hash01(x, y, 22 + int(z));
  });
  // A ring in red, a disc in green, a slope in blue.
  s.kernel = flatImage(11, 11, ChannelSet(Mask_RGBA), [](int x, int y, Channel z) {
    const float r = std::hypot(float(x - 5), float(y - 5));
    switch (z) {
      case Chan_Red: return r > 3.0f && r < 5.0f ? 1.0f : 0.0f;
      case Chan_Green: return r < 5.0f ? 1.0f : 0.0f;
      case Chan_Blue: return r < 5.5f ? float(x + 1) : 0.0f;
      default: return r < 5.0f ? 0.5f : 0.0f;
    }
  });
  if (deep) {
    s.deep = std::make_unique<host::DeepImage>(Format(kWidth, kHeight), Box(0, 0, kWidth, kHeight), ChannelSet(Mask_RGBA));
    for (int y = 0; y < kHeight; ++y)
      for (int x = 0; x < kWidth; ++x) {
        const int count = int(hash01(x, y, 30) * 4.0f);  // 0 to 3 samples, some overlapping
        for (int i = 0; i < count; ++i) {
          const float front = sceneDepth(x, y) * (0.3f + 0.4f * float(i)) + hash01(x, y, 40 + i) * 30.0f;
          const float back = front + (i == 1 ? 60.0f : 0.0f);
          const float a = i == count - 1 && x % 3 == 0 ? 1.0f : 0.2f + 0.7f * hash01(x, y, 50 + i);
          s.deep->addSample(x, y,
                            {{Chan_Red, a * sceneValue(x, y, Chan_Red)},
                             {Chan_Green, a * hash01(x, y, 61 + i)},
                             {Chan_Blue, a * hash01(x, y, 71 + i)},
                             {Chan_Alpha, a},
                             {Chan_DeepFront, front},
                             {Chan_DeepBack, back}});
        }
      }
    s.deep->finish();
  }
  return s;
}

std::unique_ptr<tzVorel> makeVariantNode(const Scene& scene, const Variant& v, int outputType) {
  auto node = makeNode();
  host::connect(*node, 0, scene.flat.get());
  if (scene.deep)
    host::connect(*node, 3, scene.deep.get());
  if (v.kernelImage)
    host::connect(*node, 1, scene.kernel.get());
  if (v.mattes) {
    host::connect(*node, 4, scene.mattes.get());
    setChannelKnob(*node, "defocusMatteChannel", Chan_Red);
    setChannelKnob(*node, "bloomMatteChannel", Chan_Green);
    setChannelKnob(*node, "chromicAberrationMatteChannel", Chan_Blue);
  }
  for (const auto& k : v.knobs)
    setKnob(*node, k.first, k.second);
  setKnob(*node, "outputType", outputType);
  return node;
}

// The frame less its tables and bands, with every channel accumulating its own weights: rows one
// at a time, every source visit worked out from the inputs.
Frame straightforward(const Frame& frame) {
  Frame plain = frame;
  plain.flatSources.clear();
  plain.deepSources.clear();
  plain.kernelPlanesAlike = false;
  plain.bands.reset();
  return plain;
}

// The frame with a band cache of its own.
Frame banded(const Frame& frame, BandShape shape) {
  Frame f = frame;
  f.bands = std::make_shared<BandCache>(shape);
  return f;
}

// Rows of the frame over the area's columns, asked in `order` (a row asked again keeps the last
// answer) by `threads` threads taking requests in turn.
Image rowsOf(const Frame& frame, const Box& area, const ChannelSet& channels, const std::vector<int>& order,
             unsigned threads = 1) {
  Image image = emptyImage(area, channels);
  std::atomic<std::size_t> next{0};
  std::mutex mutex;
  auto work = [&] {
    for (std::size_t i = next++; i < order.size(); i = next++) {
      const int y = order[i];
      Row row(area.x(), area.r());
      frameRow(frame, y, area.x(), area.r(), channels, row);
      std::lock_guard<std::mutex> lock(mutex);
      foreach (z, channels)
        std::copy(row[z] + area.x(), row[z] + area.r(),
                  image.planes[z].begin() + static_cast<std::ptrdiff_t>(y - area.y()) * area.w());
    }
  };
  std::vector<std::thread> pool;
  for (unsigned t = 1; t < threads; ++t)
    pool.emplace_back(work);
  work();
  for (std::thread& t : pool)
    t.join();
  return image;
}

std::vector<int> rowsInOrder(const Box& area) {
  std::vector<int> order;
  for (int y = area.y(); y < area.t(); ++y)
    order.push_back(y);
  return order;
}

// Every row `times` times, shuffled.
std::vector<int> rowsShuffled(const Box& area, int times, unsigned seed) {
  std::vector<int> order;
  for (int k = 0; k < times; ++k)
    for (int y = area.y(); y < area.t(); ++y)
      order.push_back(y);
  std::shuffle(order.begin(), order.end(), std::mt19937(seed));
  return order;
}

Image reference(const Frame& frame, const Box& area, const ChannelSet& channels) {
  return rowsOf(straightforward(frame), area, channels, rowsInOrder(area));
}

struct Differences {
  int outsideBound = 0;  // fails the test
  int notIdentical = 0;  // within the bound, but not the same float
  std::string first;
};

bool withinBound(float got, float ref) {
  if (std::isnan(got) || std::isnan(ref))
    return std::isnan(got) && std::isnan(ref);
  return got == ref || std::fabs(got - ref) <= 1e-5f * std::max(1.0f, std::fabs(ref));
}

Differences compare(const Image& got, const Image& ref) {
  Differences d;
  const Box& a = ref.area;
  foreach (z, ref.channels)
    for (int y = a.y(); y < a.t(); ++y)
      for (int x = a.x(); x < a.r(); ++x) {
        const float g = got.at(x, y, z), r = ref.at(x, y, z);
        if (std::memcmp(&g, &r, sizeof(float)) == 0)
          continue;
        const bool bounded = withinBound(g, r);
        (bounded ? d.notIdentical : d.outsideBound) += 1;
        if (d.first.empty() || (!bounded && d.outsideBound == 1))
          d.first = std::string("channel ") + getName(z) + " at " + std::to_string(x) + "," + std::to_string(y) + ": " +
                    std::to_string(g) + " against " + std::to_string(r);
      }
  return d;
}

void expectMatch(const Image& got, const Image& ref, const std::string& what, bool identical = false) {
  const Differences d = compare(got, ref);
  EXPECT_EQ(d.outsideBound, 0) << what << ": " << d.first;
  if (identical) {
    EXPECT_EQ(d.notIdentical, 0) << what << ": " << d.first;
  }
}

// Whether the frame's bands add kernel rows in the order the straightforward rows do.
bool keepsEveryAddition(const Frame& frame) { return !frame.kernelPlanesAlike || frame.params.kChrAbb != 0.0f; }

// Rows over `area` through the host on two threads (bands, frame tables, shared weights) against
// the straightforward rows.
void expectSame(tzVorel& node, const Box& area, const ChannelSet& channels, const std::string& what) {
  const Image production = render(node, area, channels, 2);
  const Frame& frame = *node.frame();
  if (frame.params.outputType <= OutputLensBloom) {
    EXPECT_TRUE(frame.flatSources.ready || frame.deepSources.ready) << what << ": no frame table to compare";
    EXPECT_TRUE(frame.bands) << what << ": rows not served in bands";
  }
  expectMatch(production, reference(frame, area, channels), what, keepsEveryAddition(frame));
}

void checkAll(bool deep, const std::vector<std::pair<const char*, double>>& extra = {}) {
  const Scene scene = makeScene(deep);
  for (const Variant& v : variants())
    for (int type = OutputDefocusedImage; type <= OutputFocusMatte; ++type) {
      if (type == OutputFilterShape && v.name != "lens_blades" && v.name != "lens")
        continue;
      auto node = makeVariantNode(scene, v, type);
      for (const auto& k : extra)
        setKnob(*node, k.first, k.second);
      node->validate(true);
      if (v.name.rfind("artistic_wide", 0) == 0 && type == OutputDefocusedImage) {
        host::prepare(*node, node->info().box(), rgbaz());
        EXPECT_GE(node->frame()->maxCoC, 12) << v.name;
      }
      const std::string what = (deep ? "deep " : "flat ") + v.name + " type " + std::to_string(type);
      ChannelSet channels = rgbaz();
      expectSame(*node, node->info().box(), channels, what);
      // A span that reaches past the format on the left and stops short of it on the right,
      // with the depth channel itself among those spread.
      ChannelSet spread(Mask_RGBA);
      spread += Chan_Z;
      host::userEditChannels(*node, "vorelChannels", spread);
      node->validate(true);
      expectSame(*node, Box(-9, -3, kWidth - 11, kHeight + 2), channels, what + " offset span");
    }
}

TEST(Equivalence, FlatRowsMatchTheStraightforwardRows) { checkAll(false); }

TEST(Equivalence, DeepRowsMatchTheStraightforwardRows) { checkAll(true); }

TEST(Equivalence, DeepFrontAndBackMatchTheStraightforwardRows) {
  checkAll(true, {{"integrateFrontAndBackSeperately", 1}});
}

TEST(Equivalence, OnlySomeChannelsRequested) {
  const Scene scene = makeScene(false);
  auto node = makeVariantNode(scene, variants()[1], OutputDefocusedImage);
  node->validate(true);
  ChannelSet channels;
  channels += Chan_Green;
  channels += Chan_Z;
  expectSame(*node, node->info().box(), channels, "green and depth");
}

// The node's frame for a variant, opened over its box.
std::shared_ptr<const Frame> openedFrame(const Scene& scene, const Variant& v, int outputType,
                                         std::initializer_list<std::pair<const char*, double>> extra = {}) {
  auto node = makeVariantNode(scene, v, outputType);
  for (const auto& k : extra)
    setKnob(*node, k.first, k.second);
  node->validate(true);
  host::prepare(*node, node->info().box(), rgbaz());
  // The frame asks its node whether the render was aborted: the node lives as long as the frame.
  struct Opened {
    std::unique_ptr<tzVorel> node;
    std::shared_ptr<const Frame> frame;
  };
  auto opened = std::make_shared<Opened>();
  opened->frame = node->frame();
  opened->node = std::move(node);
  return std::shared_ptr<const Frame>(opened, opened->frame.get());
}

const Variant& variantNamed(const std::string& name) {
  static const std::vector<Variant> all = variants();
  for (const Variant& v : all)
    if (v.name == name)
      return v;
  throw std::logic_error("no variant " + name);
}

// Bands of several shapes (strips narrower than the image, a last band cut short by the box),
// rows asked out of order and twice, spans short of the box on both sides and odd channel sets.
TEST(Equivalence, BandsServeAnyRowOrderSpanAndChannelSet) {
  ChannelSet greenAndDepth;
  greenAndDepth += Chan_Green;
  greenAndDepth += Chan_Z;
  ChannelSet redAndAlpha;
  redAndAlpha += Chan_Red;
  redAndAlpha += Chan_Alpha;
  for (const bool deep : {false, true}) {
    const Scene scene = makeScene(deep);
    for (const char* name : {"lens_bloom_chromatic", "lens_negative_chromatic", "lens_blades", "lens_mattes",
                             "lens_back", "artistic_wide_blades", "lens_kernel_image_chromatic"})
      for (const int type : {OutputDefocusedImage, OutputLensBloom}) {
        const auto frame = openedFrame(scene, variantNamed(name), type,
                                       {{"integrateFrontAndBackSeperately", deep && type == OutputLensBloom}});
        const Box box = frame->box;
        const Box part(box.x() + 3, box.y(), box.r() - 7, box.t());
        for (const BandShape shape : {BandShape{5, 16}, BandShape{16, 7}, BandShape{}}) {
          const std::string what = std::string(deep ? "deep " : "flat ") + name + " type " + std::to_string(type) +
                                   " band " + std::to_string(shape.rows) + "x" + std::to_string(shape.stripColumns);
          expectMatch(rowsOf(banded(*frame, shape), box, rgbaz(), rowsShuffled(box, 2, 7)),
                      reference(*frame, box, rgbaz()), what, keepsEveryAddition(*frame));
          for (const ChannelSet& channels : {greenAndDepth, redAndAlpha})
            expectMatch(rowsOf(banded(*frame, shape), part, channels, rowsShuffled(part, 2, 11)),
                        reference(*frame, part, channels), what + " part", keepsEveryAddition(*frame));
        }
      }
  }
}

// The comparison must be able to fail: bands whose kernels lack their last row.
TEST(Equivalence, TheComparisonCatchesABandThatDropsAKernelRow) {
  const Scene scene = makeScene(false);
  const auto frame = openedFrame(scene, variantNamed("lens_bloom_chromatic"), OutputDefocusedImage);
  Frame faulty = banded(*frame, BandShape{});
  std::vector<Kernel> entries = faulty.kernelBank.entries();
  for (Kernel& entry : entries)
    for (std::vector<float>& plane : entry.planes)
      if (!plane.empty())
        std::fill(plane.end() - entry.width, plane.end(), 0.0f);
  faulty.kernelBank = SharedKernelBank(std::move(entries));
  const Box box = frame->box;
  const Differences d = compare(rowsOf(faulty, box, rgbaz(), rowsInOrder(box)), reference(*frame, box, rgbaz()));
  EXPECT_GT(d.outsideBound, 0);
}

// And bands in lane form whose kernel rows are added through runs that take in an edge value, or
// without the values after their runs; each fault alone in the rows of single entries, in the rows
// of entries laid over the next size, or in where the smaller of those is laid.
TEST(Equivalence, TheComparisonCatchesARunTooLongOrAnEdgeLeftOut) {
  const Scene scene = makeScene(false);
  const auto frame = openedFrame(scene, variantNamed("artistic_wide"), OutputDefocusedImage);
  ASSERT_TRUE(SplatContext(*frame, rgbaz()).laneForm);
  const Box box = frame->box;
  const Image straight = reference(*frame, box, rgbaz());
  const auto caught = [&](const std::function<void(Kernel&)>& fault) {
    Frame faulty = banded(*frame, BandShape{});
    std::vector<Kernel> entries = faulty.kernelBank.entries();
    for (Kernel& entry : entries)
      fault(entry);
    faulty.kernelBank = SharedKernelBank(std::move(entries));
    return compare(rowsOf(faulty, box, rgbaz(), rowsInOrder(box)), straight).outsideBound > 0;
  };
  const auto longerRun = [](auto& r) { r.runStart = std::max(r.first, r.runStart - 1); };
  const auto edgeLeftOut = [](auto& r) { r.last = r.runEnd > r.runStart ? r.runEnd : r.last; };
  EXPECT_TRUE(caught([&](Kernel& e) { std::for_each(e.rowShapes.begin(), e.rowShapes.end(), longerRun); }));
  EXPECT_TRUE(caught([&](Kernel& e) { std::for_each(e.rowShapes.begin(), e.rowShapes.end(), edgeLeftOut); }));
  EXPECT_TRUE(caught([&](Kernel& e) { std::for_each(e.pairShapes.begin(), e.pairShapes.end(), longerRun); }));
  EXPECT_TRUE(caught([&](Kernel& e) { std::for_each(e.pairShapes.begin(), e.pairShapes.end(), edgeLeftOut); }));
  EXPECT_TRUE(caught([](Kernel& e) {
    if (!e.pairPlane.empty())
      std::rotate(e.pairPlane.begin(), e.pairPlane.begin() + 1, e.pairPlane.end());
  }));
}

// Many threads asking for rows of the same bands, each row several times, in any order: the
// image of one thread asking for each row once.
TEST(BandThreads, ManyThreadsOnTheSameBandsGiveTheOneThreadImage) {
  for (const bool deep : {false, true}) {
    const Scene scene = makeScene(deep);
    const auto frame = openedFrame(scene, variantNamed("lens_mattes"), OutputDefocusedImage);
    const Box box = frame->box;
    const Image one = rowsOf(*frame, box, rgbaz(), rowsInOrder(box));
    for (const BandShape shape : {BandShape{8, 16}, BandShape{}}) {
      const Frame shared = banded(*frame, shape);
      expectMatch(rowsOf(shared, box, rgbaz(), rowsShuffled(box, 3, 5), 8), one, deep ? "deep" : "flat", true);
      // A row asked again after its band was served whole makes the band anew, and that one may
      // stay; but no more than a few are ever kept.
      EXPECT_LE(shared.bands->bandsHeld(), kBandsKept);
      // Bands served whole once are all let go.
      const Frame once = banded(*frame, shape);
      expectMatch(rowsOf(once, box, rgbaz(), rowsShuffled(box, 1, 9), 8), one, deep ? "deep" : "flat", true);
      EXPECT_EQ(once.bands->bandsHeld(), 0u);
    }
  }
}

// A flat input that, from its `at`th row on, aborts the render or throws.
class FailingImage : public host::FlatImage {
public:
  FailingImage(DD::Image::Op* stopped, bool throws, int at)
      : FlatImage(Format(kWidth, kHeight), rgbaz()), stopped_(stopped), throws_(throws), at_(at) {
    fill(sceneValue);
  }
  void engine(int y, int x, int r, ChannelMask channels, Row& row) override {
    if (++calls_ >= at_) {
      if (throws_)
        throw std::runtime_error("the input failed");
      stopped_->error("stopped");
    }
    FlatImage::engine(y, x, r, channels, row);
  }

private:
  DD::Image::Op* stopped_;
  bool throws_;
  int at_;
  std::atomic<int> calls_{0};
};

// An abort or an exception in the middle of a band reaches every thread waiting for its rows, and
// the band is not kept; the deep input's failed fetch the same.
TEST(BandThreads, AnAbortOrFailureMidBandLeavesNoThreadWaiting) {
  const Scene scene = makeScene(false);
  const auto frame = openedFrame(scene, variantNamed("lens"), OutputDefocusedImage);
  const Box box = frame->box;
  for (const bool throws : {false, true}) {
    host::FlatImage stopper(Format(4, 4), ChannelSet(Mask_RGBA));
    FailingImage input(&stopper, throws, 6);
    Frame f = banded(*frame, BandShape{16, 16});
    f.inputs.source = &input;
    f.inputs.owner = &stopper;
    std::atomic<int> failures{0};
    std::vector<std::thread> pool;
    for (int t = 0; t < 6; ++t)
      pool.emplace_back([&, t] {
        // All ask for rows of the first band.
        for (int y = box.y() + t; y < box.y() + 16; y += 6) {
          Row row(box.x(), box.r());
          try {
            frameRow(f, y, box.x(), box.r(), rgbaz(), row);
          } catch (const std::runtime_error&) {
            ++failures;
          }
        }
      });
    for (std::thread& t : pool)
      t.join();
    EXPECT_EQ(f.bands->bandsHeld(), 0u) << (throws ? "thrown" : "aborted");
    if (throws)
      EXPECT_EQ(failures.load(), 16);
    else
      EXPECT_TRUE(stopper.aborted());
  }

  const Scene deepScene = makeScene(true);
  const auto deepFrame = openedFrame(deepScene, variantNamed("lens"), OutputDefocusedImage);
  const Frame f = banded(*deepFrame, BandShape{16, 16});
  deepScene.deep->setEngineFails(true);
  rowsOf(f, deepFrame->box, rgbaz(), rowsShuffled(deepFrame->box, 1, 3), 6);
  EXPECT_EQ(f.bands->bandsHeld(), 0u);
  // Once fetches work again, the bands are made anew.
  deepScene.deep->setEngineFails(false);
  expectMatch(rowsOf(f, deepFrame->box, rgbaz(), rowsShuffled(deepFrame->box, 1, 3), 6),
              reference(*deepFrame, deepFrame->box, rgbaz()), "deep after failed fetches");
}

}  // namespace
}  // namespace test
}  // namespace vorel
