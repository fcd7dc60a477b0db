// Lens kernels: the master kernel's shapes and sampling, and the bank of resampled, normalised sizes.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <algorithm>
#include <functional>
#include <numeric>
#include <vector>

#include "DDImage/Host.h"
#include "DDImage/Thread.h"
#include "lens/KernelBank.h"
#include "lens/MasterKernel.h"

using namespace vorel;
using namespace DD::Image;

namespace {

const Box kFormat2K(0, 0, 2048, 1556);
const ChannelSet kRGBA(Mask_RGBA);

// A kernel of the given type and size, raw shape (softness 1) unless `tweak` says otherwise.
NodeParameters params(int type, int size, const std::function<void(NodeParameters&)>& tweak = {}) {
  NodeParameters p;
  p.kernelType = type;
  p.max_kernelsize = size;
  p.kSoftness = 1.0f;
  if (tweak)
    tweak(p);
  return p;
}

Kernel build(const NodeParameters& p, Iop* image = nullptr, bool filterShape = false, const Box& format = kFormat2K) {
  return buildMasterKernel(p, format, image, filterShape);
}

float at(const Kernel& k, Channel z, int x, int y) { return k.planes[z][static_cast<std::size_t>(y * k.width + x)]; }

float planeSum(const Kernel& k, Channel z) { return std::accumulate(k.planes[z].begin(), k.planes[z].end(), 0.0f); }

// A kernel whose planes in `channels` all hold `values`, row 0 first.
Kernel handMade(int w, const std::vector<float>& values, const ChannelSet& channels = ChannelSet(Chan_Red)) {
  Kernel k;
  k.allocate(channels, w, w);
  foreach (z, channels)
    k.planes[z] = values;
  return k;
}

Kernel resampled(const Kernel& master, int size) {
  Kernel k;
  k.allocate(ChannelSet(Chan_Red), size, size);
  resampleKernel(k, size, Chan_Red, master);
  return k;
}

std::unique_ptr<host::FlatImage> image(const Box& format, const Box& box, const ChannelSet& channels,
                                       const std::function<float(int, int, Channel)>& f) {
  auto im = std::make_unique<host::FlatImage>(Format(format.r(), format.t()), box, channels);
  im->fill(f);
  im->validate(true);
  return im;
}

}  // namespace

TEST(FormulaKernel, DiscIsSymmetricPeaksInTheMiddleAndIsTheSameInEveryChannel) {
  const Kernel four = build(params(KernelCircular, 4));
  for (Channel z : {Chan_Green, Chan_Blue, Chan_Alpha})
    EXPECT_EQ(four.planes[z], four.planes[Chan_Red]);
  EXPECT_TRUE(four.planes[Chan_Z].empty());

  // Odd sizes peak on the centre pixel (value 1); even ones on the four round the centre corner.
  for (int n : {4, 9, 256}) {
    const Kernel k = build(params(KernelCircular, n));
    ASSERT_EQ(k.width, n);
    EXPECT_EQ(k.half, n / 2);
    const int c = n / 2;
    const float top = at(k, Chan_Red, c, c);
    EXPECT_EQ(top, *std::max_element(k.planes[Chan_Red].begin(), k.planes[Chan_Red].end())) << n;
    if (n % 2) {
      EXPECT_EQ(top, 1.0f);
    }
    EXPECT_EQ(at(k, Chan_Red, 0, 0), 0.0f);
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x) {
        const float v = at(k, Chan_Red, x, y);
        const bool mirrored = v == at(k, Chan_Red, n - 1 - x, y) && v == at(k, Chan_Red, x, n - 1 - y) &&
                              v == at(k, Chan_Red, y, x);
        const bool peak = n % 2 ? (x == c && y == c) : ((x == c || x == c - 1) && (y == c || y == c - 1));
        ASSERT_TRUE(mirrored && (peak ? v == top : (v >= 0.0f && v < top))) << n << ": " << x << "," << y;
      }
  }
}

TEST(FormulaKernel, SoftnessAndAspectRatio) {
  // A softer edge is never darker and lights at least as much; 0 counts as the hardest edge.
  const Kernel raw = build(params(KernelCircular, 32));
  const Kernel soft = build(params(KernelCircular, 32, [](NodeParameters& p) { p.kSoftness = 0.5f; }));
  for (std::size_t i = 0; i < raw.count; ++i)
    ASSERT_GE(soft.planes[Chan_Red][i], raw.planes[Chan_Red][i]);
  EXPECT_GT(planeSum(soft, Chan_Red), planeSum(raw, Chan_Red));
  EXPECT_EQ(build(params(KernelCircular, 32, [](NodeParameters& p) { p.kSoftness = 0.0f; })).planes[Chan_Red],
            build(params(KernelCircular, 32, [](NodeParameters& p) { p.kSoftness = 0.001f; })).planes[Chan_Red]);

  // Lit pixels along the row and the column through the centre of a size 64 kernel.
  struct Case { float ratio; int across, up; };
  for (const Case& c : {Case{2.0f, 32, 64}, Case{0.5f, 64, 32}}) {
    const Kernel k = build(params(KernelCircular, 64, [&](NodeParameters& p) { p.kAspectRatio = c.ratio; }));
    int across = 0, up = 0;
    for (int i = 0; i < 64; ++i) {
      across += at(k, Chan_Red, i, 31) > 0.0f;
      up += at(k, Chan_Red, 31, i) > 0.0f;
    }
    EXPECT_EQ(across, c.across) << c.ratio;
    EXPECT_EQ(up, c.up) << c.ratio;
  }
}

TEST(FormulaKernel, SphericalAberration) {
  auto aberrated = [](int type, float sphAbb, float softness) {
    return build(params(type, 33, [=](NodeParameters& p) {
      p.kSphAbb = sphAbb;
      p.kSoftness = softness;
      p.kCurvature = 0.0f;
    }));
  };
  // Soft edge and full hollowing cancel exactly; with a hard edge a ring is left.
  EXPECT_EQ(aberrated(KernelCircular, 1.0f, 1.0f).planes[Chan_Red], std::vector<float>(33 * 33, 0.0f));
  const Kernel ring = aberrated(KernelCircular, 1.0f, 0.01f);
  EXPECT_EQ(at(ring, Chan_Red, 16, 16), 0.0f);
  EXPECT_GT(at(ring, Chan_Red, 24, 16), 0.0f);
  EXPECT_GT(at(ring, Chan_Red, 32, 16), std::max(0.9f, at(ring, Chan_Red, 24, 16)));

  // Negative: the rim is dimmed and the centre kept.
  const Kernel dimmed = aberrated(KernelCircular, -1.0f, 1.0f);
  const Kernel plain = build(params(KernelCircular, 33));
  EXPECT_EQ(at(dimmed, Chan_Red, 16, 16), at(plain, Chan_Red, 16, 16));
  for (std::size_t i = 0; i < plain.count; ++i)
    ASSERT_LE(dimmed.planes[Chan_Red][i], plain.planes[Chan_Red][i]);
  EXPECT_LT(at(dimmed, Chan_Red, 26, 16), 0.5f * at(plain, Chan_Red, 26, 16));

  // Straight blades under a hard edge: the aberration must not push values out of 0..1.
  const Kernel blades = aberrated(KernelApertureBlades, 0.5f, 0.05f);
  for (float v : blades.planes[Chan_Red])
    ASSERT_TRUE(v >= 0.0f && v <= 1.0f) << v;
}

TEST(ApertureBlades, CornersReachFurtherThanMidBlade) {
  // Four blades on a size 64 kernel: at the same distance from the centre, a corner direction
  // (angle 0) is brighter than the middle of a blade (45 degrees); an eighth turn swaps them.
  const float d = 10.0f / std::sqrt(2.0f);
  auto shape = [](float x, float y, float rotation) {
    return apertureBladesShape(x, y, 64, 64, 1024.0f, 1.0f, 4, 0.0f, rotation);
  };
  EXPECT_GT(shape(42, 32, 0), shape(32 + d, 32 + d, 0));
  EXPECT_LT(shape(42, 32, 0.125f), shape(32 + d, 32 + d, 0.125f));
  EXPECT_NEAR(shape(32 + d, 32 + d, 0), shape(32 + d, 32 - d, 0), 1e-6f);  // negative angles wrap
  EXPECT_EQ(shape(0, 0, 0), 0.0f);  // far outside: 0, never negative
}

TEST(ApertureBlades, CurvatureOneIsTheCircleAndAFullTurnChangesNothing) {
  auto shaped = [](int type, float curvature, float rotation) {
    return build(params(type, 48, [=](NodeParameters& p) {
      p.kAspectRatio = 1.5f;
      p.kSphAbb = 0.3f;
      p.kNumSides = 7;
      p.kCurvature = curvature;
      p.kRotation = rotation;
    })).planes[Chan_Red];
  };
  const std::vector<float> circle = shaped(KernelCircular, 0.0f, 0.0f);
  EXPECT_EQ(shaped(KernelApertureBlades, 1.0f, 0.3f), circle);
  EXPECT_NE(shaped(KernelApertureBlades, 0.2f, 0.3f), circle);

  auto largestChange = [&](float rotation) {
    const std::vector<float> still = shaped(KernelApertureBlades, 0.0f, 0.0f);
    const std::vector<float> turned = shaped(KernelApertureBlades, 0.0f, rotation);
    float largest = 0.0f;
    for (std::size_t i = 0; i < still.size(); ++i)
      largest = std::max(largest, std::fabs(turned[i] - still[i]));
    return largest;
  };
  EXPECT_LT(largestChange(1.0f), 1e-5f);
  EXPECT_GT(largestChange(1.0f / 14.0f), 0.05f);  // half a blade
}

TEST(MasterKernel, SizeFromFormatAndDegenerateSizes) {
  const NodeParameters p = params(KernelCircular, 64);
  const Kernel shape = build(p, nullptr, true);  // the filter shape takes the format's smaller side
  EXPECT_EQ(shape.width, 1556);
  EXPECT_EQ(build(p, nullptr, true, Box(100, 50, 400, 1000)).width, 300);
  EXPECT_TRUE(build(params(KernelCircular, -3)).empty());
  EXPECT_TRUE(build(p, nullptr, true, Box(0, 0, 0, 0)).empty());
  // "Input" with nothing connected: empty.
  const Kernel k = build(params(KernelInput, 16));
  EXPECT_TRUE(k.empty());
  EXPECT_EQ(k.plane(Chan_Red), nullptr);
}

TEST(ImageKernel, ScaleFactorsSqueezeAndBoxPlacement) {
  // Scale 2: sample centre (x + 0.5) * 2 lies exactly on image pixel 2x + 1.
  auto large = image(Box(0, 0, 512, 512), Box(0, 0, 512, 512), kRGBA,
                     [](int x, int y, Channel z) { return 0.001f * x + 0.01f * y + static_cast<float>(z); });
  const Kernel k = build(params(KernelInput, 256), large.get());
  ASSERT_EQ(k.width, 256);
  for (int y = 0; y < 256; y += 17)
    for (int x = 0; x < 256; x += 13)
      for (Channel z : {Chan_Red, Chan_Alpha})
        ASSERT_EQ(at(k, z, x, y), large->value(2 * x + 1, 2 * y + 1, z)) << x << "," << y;

  // 100 x 50 is squeezed, not cropped: size 50, scale 2 across and 1 up. The spline reproduces a
  // linear ramp; the edge rows repeat the edge pixel.
  const ChannelSet red(Chan_Red);
  const NodeParameters p = params(KernelInput, 256, [&](NodeParameters& q) { q.vorelChannels = red; });
  auto wide = image(Box(0, 0, 100, 50), Box(0, 0, 100, 50), red, [](int x, int y, Channel) { return x + 100.0f * y; });
  const Kernel squeezed = build(p, wide.get());
  ASSERT_EQ(squeezed.width, 50);
  for (int x : {0, 10, 49}) {
    EXPECT_NEAR(at(squeezed, Chan_Red, x, 20), (2 * x + 1) + 100.0f * 20.5f, 1e-3f);
    EXPECT_NEAR(at(squeezed, Chan_Red, x, 0), (2 * x + 1) + 43.75f, 1e-3f);  // rows 0, 0, 100, 200
  }
  EXPECT_NEAR(at(squeezed, Chan_Red, 10, 49), 21.0f + 4906.25f, 1e-2f);  // rows 48, 49, 49, 49

  // Only the box counts, wherever it stands; at scale 1 each value lies halfway between pixels.
  auto offset = image(Box(0, 0, 200, 200), Box(10, 20, 74, 84), red,
                      [](int x, int y, Channel) { return 0.5f * x + 3.0f * y; });
  const Kernel boxed = build(p, offset.get());
  ASSERT_EQ(boxed.width, 64);
  EXPECT_NEAR(at(boxed, Chan_Red, 30, 40), 0.5f * 40.5f + 3.0f * 60.5f, 1e-4f);

  // A small image is not enlarged; in the filter shape the format's side caps it instead.
  auto small = image(Box(0, 0, 10, 12), Box(0, 0, 10, 12), red, [](int, int, Channel) { return 1.0f; });
  EXPECT_EQ(build(p, small.get()).width, 10);
  EXPECT_EQ(build(p, small.get(), true, Box(0, 0, 8, 6)).width, 6);
}

TEST(ImageKernel, MissingChannelsAndValuesAboveOne) {
  auto red = image(Box(0, 0, 16, 16), Box(0, 0, 16, 16), ChannelSet(Chan_Red), [](int, int, Channel) { return 5.0f; });
  const Kernel k = build(params(KernelInput, 16), red.get());
  EXPECT_EQ(k.planes[Chan_Red], std::vector<float>(256, 5.0f));    // not limited to 1
  EXPECT_EQ(k.planes[Chan_Green], std::vector<float>(256, 0.0f));  // no fallback: read as 0
  const NodeParameters withFallback =
      params(KernelInput, 16, [](NodeParameters& p) { p.missingKernelChannel = Chan_Red; });
  const Kernel fallback = build(withFallback, red.get());
  for (Channel z : {Chan_Green, Chan_Blue, Chan_Alpha})
    EXPECT_EQ(fallback.planes[z], k.planes[Chan_Red]);
}

TEST(KernelBank, ChannelsShareOneNormalisation) {
  // A 4 x 4 master: size 1 reads exactly pixel (2, 2) of an even master.
  Kernel master = handMade(4, std::vector<float>(16, 0.0f), kRGBA);
  master.planes[Chan_Red][10] = 8.0f;
  master.planes[Chan_Green][10] = 4.0f;
  master.planes[Chan_Alpha][10] = -2.0f;
  std::vector<Kernel> bank(1);
  fillKernelBankEntry(bank, 0, master, kRGBA);
  EXPECT_EQ(bank[0].planes[Chan_Red][0], 1.0f);
  EXPECT_EQ(bank[0].planes[Chan_Green][0], 0.5f);   // not 1: the largest sum divides all
  EXPECT_EQ(bank[0].planes[Chan_Blue][0], 0.0f);
  EXPECT_EQ(bank[0].planes[Chan_Alpha][0], -2.0f);  // a sum below 0 is left as resampled

  // Through the real resampling, downwards and upwards: sums of 1, the balance kept.
  Kernel disc = build(params(KernelCircular, 64));
  for (float& v : disc.planes[Chan_Green])
    v *= 0.5f;
  std::fill(disc.planes[Chan_Blue].begin(), disc.planes[Chan_Blue].end(), 0.0f);
  std::vector<Kernel> large(80);
  for (int i : {21, 79}) {
    fillKernelBankEntry(large, i, disc, kRGBA);
    EXPECT_NEAR(planeSum(large[i], Chan_Red), 1.0f, 1e-5f) << i;
    EXPECT_NEAR(planeSum(large[i], Chan_Green), 0.5f, 1e-5f) << i;
    EXPECT_EQ(large[i].planes[Chan_Blue], std::vector<float>(large[i].count, 0.0f)) << i;
  }
}

TEST(KernelBank, ZeroRuleOfTheResampling) {
  // Size 1 from an even master takes exactly its pixel (W/2, H/2).
  std::vector<float> values(36);
  for (int i = 0; i < 36; ++i)
    values[i] = 0.1f * static_cast<float>(i) + 0.05f;
  EXPECT_EQ(resampled(handMade(6, values), 1).planes[Chan_Red][0], values[3 * 6 + 3]);

  // Same size as the master: row 0 and column 0 are 0, the rest interpolated.
  const Kernel same = resampled(handMade(9, std::vector<float>(81, 1.0f)), 9);
  for (int y = 0; y < 9; ++y)
    for (int x = 0; x < 9; ++x)
      ASSERT_EQ(at(same, Chan_Red, x, y), (x == 0 || y == 0) ? 0.0f : 1.0f) << x << "," << y;

  // The source index is taken in double precision: at size 25 from a 2 x 2 master, column 12
  // sits at 12.5 * 0.08 = 0.99999998, index 0, and is blanked; in single precision it would be 1.
  const Kernel up = resampled(handMade(2, {1.0f, 1.0f, 1.0f, 1.0f}), 25);
  for (int i = 0; i < 25; ++i) {
    EXPECT_EQ(at(up, Chan_Red, 12, i), 0.0f) << i;
    EXPECT_EQ(at(up, Chan_Red, i, 12), 0.0f) << i;
  }
  EXPECT_EQ(at(up, Chan_Red, 13, 13), 1.0f);
  EXPECT_EQ(at(up, Chan_Red, 24, 24), 1.0f);
}

TEST(KernelBank, EntrySizesAndDegenerateMasters) {
  // Every master gives entries of the odd sizes. A master of size 1 has no source index from 1 up,
  // an empty image box gives an empty master, full hollowing an all-zero one: none of these may be
  // scaled into something, nor read out of range.
  const int expected[] = {1, 1, 1, 3, 3, 5, 5, 7, 7, 9, 9, 11};
  EXPECT_EQ(kernelBankEntrySize(259), 259);
  EXPECT_EQ(kernelBankEntrySize(260), 259);
  auto emptyBox = image(Box(0, 0, 16, 16), Box(4, 4, 4, 4), kRGBA, [](int, int, Channel) { return 1.0f; });
  const Kernel none = build(params(KernelInput, 256), emptyBox.get());
  const Kernel hollow = build(params(KernelCircular, 32, [](NodeParameters& p) { p.kSphAbb = 1.0f; }));
  const Kernel single = handMade(1, {7.0f}, kRGBA), disc = build(params(KernelCircular, 32));
  for (const Kernel* master : {&disc, &single, &none, &hollow}) {
    std::vector<Kernel> bank(12);
    for (int i = 0; i < 12; ++i) {
      fillKernelBankEntry(bank, i, *master, kRGBA);
      ASSERT_EQ(kernelBankEntrySize(i), expected[i]) << i;
      ASSERT_TRUE(bank[i].width == expected[i] && bank[i].height == expected[i] && bank[i].half == expected[i] / 2 &&
                  bank[i].count == static_cast<std::size_t>(expected[i] * expected[i]))
          << i;
      if (master != &disc) {
        foreach (z, kRGBA)
          ASSERT_EQ(bank[i].planes[z], std::vector<float>(bank[i].count, 0.0f)) << master->width << ", entry " << i;
      }
    }
  }
}

TEST(KernelBank, ThreadCountDoesNotChangeTheBytes) {
  auto bankOn = [](unsigned threads) {
    const unsigned machine = Thread::numCPUs;
    Thread::numCPUs = threads;
    std::vector<Kernel> bank = buildKernelBank(
        build(params(KernelApertureBlades, 48, [](NodeParameters& p) { p.kSphAbb = -0.4f; })), 60, kRGBA);
    Thread::numCPUs = machine;
    return bank;
  };
  const std::vector<Kernel> one = bankOn(1);
  for (unsigned threads : {2u, 7u, 100u}) {  // 100: more threads than entries
    const std::vector<Kernel> many = bankOn(threads);
    for (std::size_t i = 0; i < one.size(); ++i)
      foreach (z, kRGBA)
        ASSERT_TRUE(many[i].width == one[i].width && many[i].planes[z].size() == one[i].count &&
                    std::memcmp(many[i].planes[z].data(), one[i].planes[z].data(), one[i].count * 4) == 0)
            << threads << " threads, entry " << i;
  }
}

TEST(KernelBank, EntriesThatSpreadNothingInFocusAreNamed) {
  // The kernel of every pixel in focus is entry 1 (size 1), the master kernel's centre value.
  auto emptyInFocus = [](const NodeParameters& p, Iop* image = nullptr) {
    const std::vector<Kernel> bank = buildKernelBank(build(p, image), 6, p.vorelChannels);
    return channelsSpreadingNothing(bank, 1, p.vorelChannels);
  };
  // A disc holds its centre; a single value has no source index from 1 up; a ring image is dark
  // there.
  EXPECT_TRUE(emptyInFocus(params(KernelCircular, 64)).empty());
  EXPECT_EQ(emptyInFocus(params(KernelCircular, 1)), kRGBA);
  host::FlatImage ring(Format(16, 16), Box(0, 0, 16, 16), kRGBA);
  ring.fill([](int x, int y, Channel) { return x >= 4 && x < 12 && y >= 4 && y < 12 ? 0.0f : 1.0f; });
  EXPECT_EQ(emptyInFocus(params(KernelInput, 64), &ring), kRGBA);
  // A kernel image without alpha: alpha alone, unless missingKernelChannel stands in for it.
  host::FlatImage rgb(Format(16, 16), Box(0, 0, 16, 16), ChannelSet(Mask_RGB));
  rgb.fill([](int, int, Channel) { return 1.0f; });
  EXPECT_EQ(emptyInFocus(params(KernelInput, 64), &rgb), ChannelSet(Chan_Alpha));
  EXPECT_TRUE(emptyInFocus(params(KernelInput, 64, [](NodeParameters& p) { p.missingKernelChannel = Chan_Red; }), &rgb)
                  .empty());
  // An entry beyond the bank spreads nothing either.
  EXPECT_EQ(channelsSpreadingNothing({}, 1, kRGBA), kRGBA);
}
