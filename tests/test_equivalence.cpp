// Rows served from the frame tables built at open, with weights accumulated once for channels that
// share a kernel, against the same node's straightforward rows, which recompute every source visit
// from the inputs and accumulate every channel's weights: every output value must be the same
// float, bit for bit.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "DDImage/Row.h"
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
  std::unique_ptr<host::FlatImage> flat, mattes;
  std::unique_ptr<host::DeepImage> deep;
};

Scene makeScene(bool deep) {
  Scene s;
  s.flat = flatImage(kWidth, kHeight, rgbaz(), sceneValue);
  s.mattes = flatImage(kWidth, kHeight, ChannelSet(Mask_RGB), [](int x, int y, Channel z) {
    return z == Chan_Red ? 2.0f * hash01(x, y, 21) : hash01(x, y, 22 + int(z));
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

// Rows over `area` on two threads with the frame tables and shared weights, then the same rows
// one by one without either; the first differing value of each channel is reported.
void expectSame(tzVorel& node, const Box& area, const ChannelSet& channels, const std::string& what) {
  const Image production = render(node, area, channels, 2);
  // The same frame, less its tables, and with every channel accumulating its own weights.
  Frame plain = *node.frame();
  if (plain.params.outputType <= OutputLensBloom) {
    EXPECT_TRUE(plain.flatSources.ready || plain.deepSources.ready) << what << ": no frame table to compare";
  }
  plain.flatSources.clear();
  plain.deepSources.clear();
  plain.kernelPlanesAlike = false;
  plain.bands.reset();
  for (int y = area.y(); y < area.t(); ++y) {
    Row row(area.x(), area.r());
    frameRow(plain, y, area.x(), area.r(), channels, row);
    foreach (z, channels) {
      const float* ref = row[z];
      for (int x = area.x(); x < area.r(); ++x) {
        const float got = production.at(x, y, z);
        if (std::memcmp(&got, &ref[x], sizeof(float)) != 0) {
          ADD_FAILURE() << what << ": channel " << getName(z) << " at " << x << "," << y << ": " << got
                        << " against " << ref[x];
          goto nextChannel;
        }
      }
    nextChannel:;
    }
  }
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

}  // namespace
}  // namespace test
}  // namespace vorel
