// Lens kernels: the master kernel's shapes and sampling, and the bank of resampled, normalised sizes.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "DDImage/Host.h"
#include "DDImage/Thread.h"
#include "lens/Kernel.h"
#include "lens/KernelBank.h"
#include "lens/MasterKernel.h"
#include "node/tzVorel.h"
#include "support/TestScenes.h"

using namespace vorel;
using DD::Image::Box;
using DD::Image::Chan_Alpha;
using DD::Image::Chan_Black;
using DD::Image::Chan_Blue;
using DD::Image::Chan_Green;
using DD::Image::Chan_Red;
using DD::Image::Channel;
using DD::Image::ChannelSet;
using DD::Image::Format;
using DD::Image::Thread;
using DD::Image::host::FlatImage;

namespace {

const Box kFormat2K(0, 0, 2048, 1556);

NodeParameters formulaKernel(int kernelType, int size) {
  NodeParameters p;
  p.kernelType = kernelType;
  p.max_kernelsize = size;
  p.kSoftness = 1.0f;  // the raw shape, unless a test says otherwise
  return p;
}

Kernel build(const NodeParameters& p, DD::Image::Iop* image = nullptr, bool filterShape = false,
             const Box& format = kFormat2K) {
  Kernel k;
  buildMasterKernel(k, p, format, image, filterShape);
  return k;
}

float at(const Kernel& k, Channel z, int x, int y) {
  return k.planes[z][static_cast<std::size_t>(y) * static_cast<std::size_t>(k.width) + static_cast<std::size_t>(x)];
}

float planeSum(const Kernel& k, Channel z) {
  float sum = 0.0f;
  for (float v : k.planes[z])
    sum += v;
  return sum;
}

// A kernel of one plane (red) whose values are given row by row, row 0 first.
Kernel handMade(int w, int h, const std::vector<float>& values, const ChannelSet& channels = ChannelSet(Chan_Red)) {
  Kernel k;
  k.allocate(channels, w, h);
  foreach (z, channels)
    k.planes[z] = values;
  return k;
}

// The bank as the node builds it, on `threads` threads.
void fillBank(tzVorel& node, int maxCoC, unsigned threads) {
  releaseKernelBank(node.kernelBank);
  node.kernelBank.resize(static_cast<std::size_t>(maxCoC + 5));
  Thread::spawn(kernelBankThread, threads, &node);
  Thread::wait(&node);
}

bool sameBytes(const Kernel& a, const Kernel& b) {
  if (a.width != b.width || a.height != b.height || a.half != b.half || a.count != b.count ||
      a.planes.size() != b.planes.size())
    return false;
  for (std::size_t z = 0; z < a.planes.size(); ++z) {
    if (a.planes[z].size() != b.planes[z].size())
      return false;
    if (!a.planes[z].empty() &&
        std::memcmp(a.planes[z].data(), b.planes[z].data(), a.planes[z].size() * sizeof(float)) != 0)
      return false;
  }
  return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Formula kernels

TEST(FormulaKernel, DiscValuesAtKnownPixels) {
  // Size 4: halfSize 2, sample centres at 0.5 and 1.5 from the middle.
  const Kernel k = build(formulaKernel(KernelCircular, 4));
  ASSERT_EQ(k.width, 4);
  ASSERT_EQ(k.height, 4);
  EXPECT_EQ(k.half, 2);
  EXPECT_EQ(k.count, 16u);
  EXPECT_FLOAT_EQ(at(k, Chan_Red, 1, 1), 0.875f);  // (0.25 + 0.25) / 4
  EXPECT_FLOAT_EQ(at(k, Chan_Red, 0, 1), 0.375f);  // (2.25 + 0.25) / 4
  EXPECT_EQ(at(k, Chan_Red, 0, 0), 0.0f);          // beyond the inscribed circle
  // Every channel of vorelChannels holds the same shape; others hold nothing.
  for (Channel z : {Chan_Green, Chan_Blue, Chan_Alpha})
    EXPECT_EQ(k.planes[z], k.planes[Chan_Red]);
  EXPECT_TRUE(k.planes[DD::Image::Chan_Z].empty());
}

TEST(FormulaKernel, EvenSizeIsSymmetricAboutTheSharedCorner) {
  NodeParameters p = formulaKernel(KernelCircular, 256);
  p.kSoftness = 0.1f;
  const Kernel k = build(p);
  ASSERT_EQ(k.width, 256);
  ASSERT_EQ(k.planes[Chan_Red].size(), 256u * 256u);
  for (int y = 0; y < 256; ++y)
    for (int x = 0; x < 256; ++x) {
      const float v = at(k, Chan_Red, x, y);
      ASSERT_EQ(v, at(k, Chan_Red, 255 - x, y)) << x << "," << y;
      ASSERT_EQ(v, at(k, Chan_Red, x, 255 - y)) << x << "," << y;
      ASSERT_EQ(v, at(k, Chan_Red, y, x)) << x << "," << y;
      ASSERT_GE(v, 0.0f);
      ASSERT_LE(v, 1.0f);
    }
  // The four pixels round the centre corner are the brightest; the corners are outside the disc.
  EXPECT_EQ(at(k, Chan_Red, 127, 127), 1.0f);
  EXPECT_EQ(at(k, Chan_Red, 128, 128), 1.0f);
  EXPECT_EQ(at(k, Chan_Red, 0, 0), 0.0f);
  // Next to the rim the tenfold softness factor still shows: dx = 127.5, dy = 0.5 of 128.
  EXPECT_NEAR(at(k, Chan_Red, 0, 128), 10.0f * (1.0f - 16256.5f / 16384.0f), 1e-4f);
}

TEST(FormulaKernel, OddSizeHasItsPeakOnTheCentrePixel) {
  const Kernel k = build(formulaKernel(KernelCircular, 9));
  ASSERT_EQ(k.width, 9);
  EXPECT_EQ(k.half, 4);
  EXPECT_EQ(at(k, Chan_Red, 4, 4), 1.0f);
  for (int y = 0; y < 9; ++y)
    for (int x = 0; x < 9; ++x) {
      EXPECT_EQ(at(k, Chan_Red, x, y), at(k, Chan_Red, 8 - x, 8 - y));
      EXPECT_EQ(at(k, Chan_Red, x, y), at(k, Chan_Red, y, x));
      if (x != 4 || y != 4) {
        EXPECT_LT(at(k, Chan_Red, x, y), 1.0f);
      }
    }
}

TEST(FormulaKernel, SoftnessSaturatesTheInside) {
  NodeParameters p = formulaKernel(KernelCircular, 32);
  const Kernel raw = build(p);
  p.kSoftness = 0.5f;
  const Kernel soft = build(p);
  for (std::size_t i = 0; i < raw.count; ++i)
    ASSERT_EQ(soft.planes[Chan_Red][i], std::min(1.0f, raw.planes[Chan_Red][i] * 2.0f));

  // 0 counts as 0.001, so a zero softness is a hard edge rather than a division by zero.
  p.kSoftness = 0.0f;
  const Kernel zero = build(p);
  p.kSoftness = 0.001f;
  EXPECT_EQ(zero.planes[Chan_Red], build(p).planes[Chan_Red]);
}

TEST(FormulaKernel, AspectRatioNarrowsOneAxis) {
  // Size 64: count the lit pixels along the row and the column through the centre.
  auto extents = [](float ratio, int& across, int& up) {
    NodeParameters p = formulaKernel(KernelCircular, 64);
    p.kAspectRatio = ratio;
    const Kernel k = build(p);
    across = up = 0;
    for (int i = 0; i < 64; ++i) {
      across += at(k, Chan_Red, i, 31) > 0.0f;
      up += at(k, Chan_Red, 31, i) > 0.0f;
    }
  };
  int across, up;
  extents(2.0f, across, up);
  EXPECT_EQ(across, 32);
  EXPECT_EQ(up, 64);
  extents(0.5f, across, up);
  EXPECT_EQ(across, 64);
  EXPECT_EQ(up, 32);
  extents(1.0f, across, up);
  EXPECT_EQ(across, 64);
  EXPECT_EQ(up, 64);
}

TEST(FormulaKernel, SphericalAberrationAndSoftness) {
  NodeParameters p = formulaKernel(KernelCircular, 33);

  // Soft edge and full hollowing cancel exactly.
  p.kSphAbb = 1.0f;
  const Kernel cancelled = build(p);
  for (float v : cancelled.planes[Chan_Red])
    ASSERT_EQ(v, 0.0f);

  // With a hard edge the hollowed centre leaves a bright ring.
  p.kSoftness = 0.01f;
  const Kernel ring = build(p);
  EXPECT_EQ(at(ring, Chan_Red, 16, 16), 0.0f);
  float brightest = 0.0f;
  int brightestX = 0;
  for (int x = 16; x < 33; ++x)
    if (at(ring, Chan_Red, x, 16) > brightest) {
      brightest = at(ring, Chan_Red, x, 16);
      brightestX = x;
    }
  EXPECT_GT(brightest, 0.9f);
  EXPECT_GE(brightestX, 30);
  for (int x = 17; x <= brightestX; ++x)
    EXPECT_GT(at(ring, Chan_Red, x, 16), at(ring, Chan_Red, x - 1, 16));

  // Negative: the rim is dimmed, disc - (1 - disc), which leaves a smaller disc.
  p.kSoftness = 1.0f;
  p.kSphAbb = -1.0f;
  const Kernel dimmed = build(p);
  const Kernel plain = build(formulaKernel(KernelCircular, 33));
  EXPECT_EQ(at(dimmed, Chan_Red, 16, 16), 1.0f);
  for (std::size_t i = 0; i < plain.count; ++i) {
    const float disc = plain.planes[Chan_Red][i];
    ASSERT_NEAR(dimmed.planes[Chan_Red][i], std::max(0.0f, 2.0f * disc - 1.0f), 1e-6f);
  }

  // The aberration follows the disc also for blades, and the result stays within 0..1.
  p.kernelType = KernelApertureBlades;
  p.kCurvature = 0.0f;
  p.kSphAbb = 0.5f;
  p.kSoftness = 0.05f;
  const Kernel blades = build(p);
  for (float v : blades.planes[Chan_Red]) {
    ASSERT_GE(v, 0.0f);
    ASSERT_LE(v, 1.0f);
  }
}

// ---------------------------------------------------------------------------------------------
// Aperture blades

TEST(ApertureBlades, CornersAndMidBlade) {
  // Four blades, no curvature, size 64 (halfSizeSquared 1024), radius 10 from the centre.
  const float hss = 1024.0f;
  const float base = 1.0f - 100.0f / hss;
  const float d = 10.0f / std::sqrt(2.0f);
  // Angle 0 is a corner: no pull.
  EXPECT_NEAR(apertureBladesShape(42.0f, 32.0f, 64, 64, hss, 1.0f, 4, 0.0f, 0.0f), base, 1e-6f);
  // 45 degrees is mid-blade: pulled in by (1 - curvature) / sides.
  EXPECT_NEAR(apertureBladesShape(32.0f + d, 32.0f + d, 64, 64, hss, 1.0f, 4, 0.0f, 0.0f), base - 0.25f, 1e-5f);
  EXPECT_NEAR(apertureBladesShape(32.0f + d, 32.0f + d, 64, 64, hss, 1.0f, 4, 0.5f, 0.0f), base - 0.125f, 1e-5f);
  // Negative angles are wrapped into a full turn: -45 degrees is mid-blade too.
  EXPECT_NEAR(apertureBladesShape(32.0f + d, 32.0f - d, 64, 64, hss, 1.0f, 4, 0.0f, 0.0f), base - 0.25f, 1e-5f);
  // An eighth of a turn moves the corners onto the diagonals.
  EXPECT_NEAR(apertureBladesShape(42.0f, 32.0f, 64, 64, hss, 1.0f, 4, 0.0f, 0.125f), base - 0.25f, 1e-5f);
  EXPECT_NEAR(apertureBladesShape(32.0f + d, 32.0f + d, 64, 64, hss, 1.0f, 4, 0.0f, 0.125f), base, 1e-5f);
  // Far outside: 0, never negative.
  EXPECT_EQ(apertureBladesShape(0.0f, 0.0f, 64, 64, hss, 1.0f, 4, 0.0f, 0.0f), 0.0f);
  // The aspect ratio stretches the distance in x before the shape is taken.
  EXPECT_NEAR(apertureBladesShape(37.0f, 32.0f, 64, 64, hss, 2.0f, 4, 0.0f, 0.0f), base, 1e-6f);
  EXPECT_NEAR(apertureBladesShape(32.0f, 37.0f, 64, 64, hss, 0.5f, 4, 0.0f, 0.0f),
              1.0f - std::min(1.0f, 100.0f / hss + 0.0f), 1e-5f);
}

TEST(ApertureBlades, CurvatureOneIsTheCircle) {
  NodeParameters circle = formulaKernel(KernelCircular, 48);
  circle.kAspectRatio = 1.5f;
  circle.kSoftness = 0.2f;
  circle.kSphAbb = 0.3f;
  NodeParameters blades = circle;
  blades.kernelType = KernelApertureBlades;
  blades.kCurvature = 1.0f;
  blades.kNumSides = 7;
  blades.kRotation = 0.3f;
  EXPECT_EQ(build(blades).planes[Chan_Red], build(circle).planes[Chan_Red]);

  blades.kCurvature = 0.2f;
  EXPECT_NE(build(blades).planes[Chan_Red], build(circle).planes[Chan_Red]);
}

TEST(ApertureBlades, AFullTurnOfRotationChangesNothing) {
  NodeParameters p = formulaKernel(KernelApertureBlades, 41);
  p.kCurvature = 0.0f;
  p.kNumSides = 5;
  const Kernel still = build(p);
  p.kRotation = 1.0f;
  const Kernel turned = build(p);
  for (std::size_t i = 0; i < still.count; ++i)
    ASSERT_NEAR(turned.planes[Chan_Red][i], still.planes[Chan_Red][i], 1e-5f) << i;
  // Half a blade does change it.
  p.kRotation = 0.1f;
  const Kernel half = build(p);
  float largest = 0.0f;
  for (std::size_t i = 0; i < still.count; ++i)
    largest = std::max(largest, std::fabs(half.planes[Chan_Red][i] - still.planes[Chan_Red][i]));
  EXPECT_GT(largest, 0.05f);
}

// ---------------------------------------------------------------------------------------------
// Sizes

TEST(MasterKernelSize, FilterShapeUsesTheFormatsSmallerSide) {
  NodeParameters p = formulaKernel(KernelCircular, 64);
  const Kernel shape = build(p, nullptr, true);
  EXPECT_EQ(shape.width, 1556);
  EXPECT_EQ(shape.height, 1556);
  EXPECT_EQ(build(p, nullptr, true, Box(100, 50, 400, 1000)).width, 300);
  EXPECT_EQ(build(p).width, 64);
}

TEST(MasterKernelSize, DegenerateSizesGiveAnEmptyKernel) {
  EXPECT_TRUE(build(formulaKernel(KernelCircular, 0)).empty());
  EXPECT_TRUE(build(formulaKernel(KernelCircular, -3)).empty());
  EXPECT_TRUE(build(formulaKernel(KernelCircular, 64), nullptr, true, Box(0, 0, 0, 0)).empty());
  // "Input" with nothing connected: empty, and a rebuild drops the previous shape.
  Kernel k = build(formulaKernel(KernelCircular, 16));
  buildMasterKernel(k, formulaKernel(KernelInput, 16), kFormat2K, nullptr, false);
  EXPECT_TRUE(k.empty());
  EXPECT_EQ(k.plane(Chan_Red), nullptr);
}

// ---------------------------------------------------------------------------------------------
// Kernel images

TEST(ImageKernel, LargeImageIsSampledAtOddPixels) {
  FlatImage image(Format(512, 512), ChannelSet(DD::Image::Mask_RGBA));
  image.fill([](int x, int y, Channel z) { return 0.001 * x + 0.01 * y + static_cast<int>(z); });
  image.validate(true);
  NodeParameters p = formulaKernel(KernelInput, 256);
  const Kernel k = build(p, &image);
  ASSERT_EQ(k.width, 256);
  ASSERT_EQ(k.height, 256);
  // Scale 2: sample centre (x + 0.5) * 2 lies exactly on image pixel 2x + 1.
  for (int y = 0; y < 256; y += 17)
    for (int x = 0; x < 256; x += 13)
      for (Channel z : {Chan_Red, Chan_Alpha})
        ASSERT_EQ(at(k, z, x, y), image.value(2 * x + 1, 2 * y + 1, z)) << x << "," << y;
}

TEST(ImageKernel, NonSquareImageIsSqueezedNotCropped) {
  // 100 x 50: size 50, scale 2 across and 1 up. The spline reproduces a linear ramp, so the
  // interior equals the ramp at the sample centre; the bottom row repeats the edge pixel.
  FlatImage image(Format(100, 50), ChannelSet(Chan_Red));
  image.fill([](int x, int y, Channel) { return x + 100.0 * y; });
  image.validate(true);
  NodeParameters p = formulaKernel(KernelInput, 256);
  p.vorelChannels = ChannelSet(Chan_Red);
  const Kernel k = build(p, &image);
  ASSERT_EQ(k.width, 50);
  ASSERT_EQ(k.height, 50);
  for (int x : {0, 10, 49}) {
    EXPECT_NEAR(at(k, Chan_Red, x, 20), (2 * x + 1) + 100.0f * 20.5f, 1e-3f);
    // Rows -1, 0, 1, 2 read 0, 0, 100, 200 at t = 0.5.
    EXPECT_NEAR(at(k, Chan_Red, x, 0), (2 * x + 1) + 43.75f, 1e-3f);
  }
  // The top row holds rows 48, 49, 49, 49 at t = 0.5.
  EXPECT_NEAR(at(k, Chan_Red, 10, 49), 21.0f + 4906.25f, 1e-2f);
}

TEST(ImageKernel, BoundingBoxAwayFromTheOrigin) {
  // Only the box counts, wherever it stands; at scale 1 each value lies halfway between pixels.
  FlatImage image(Format(200, 200), Box(10, 20, 74, 84), ChannelSet(Chan_Red));
  image.fill([](int x, int y, Channel) { return 0.5 * x + 3.0 * y; });
  image.validate(true);
  NodeParameters p = formulaKernel(KernelInput, 64);
  p.vorelChannels = ChannelSet(Chan_Red);
  const Kernel k = build(p, &image);
  ASSERT_EQ(k.width, 64);
  EXPECT_NEAR(at(k, Chan_Red, 5, 7), 0.5f * 15.5f + 3.0f * 27.5f, 1e-4f);
  EXPECT_NEAR(at(k, Chan_Red, 30, 40), 0.5f * 40.5f + 3.0f * 60.5f, 1e-4f);
}

TEST(ImageKernel, MissingChannelsAndValuesAboveOne) {
  FlatImage image(Format(16, 16), ChannelSet(Chan_Red));
  image.fill(Chan_Red, 5.0f);
  image.validate(true);
  NodeParameters p = formulaKernel(KernelInput, 16);

  // Without a fallback the absent channels are fetched as themselves: the host reads them as 0.
  Kernel k = build(p, &image);
  ASSERT_EQ(k.width, 16);
  for (float v : k.planes[Chan_Red])
    ASSERT_EQ(v, 5.0f);  // kept above 1: an image kernel is not limited
  for (float v : k.planes[Chan_Green])
    ASSERT_EQ(v, 0.0f);

  // With a fallback every absent channel samples it.
  p.missingKernelChannel = Chan_Red;
  k = build(p, &image);
  for (Channel z : {Chan_Green, Chan_Blue, Chan_Alpha})
    EXPECT_EQ(k.planes[z], k.planes[Chan_Red]);
}

TEST(ImageKernel, SmallImageIsNotEnlargedAndEmptyBoxGivesNothing) {
  FlatImage small(Format(10, 12), ChannelSet(Chan_Red));
  small.fill(Chan_Red, 1.0f);
  small.validate(true);
  NodeParameters p = formulaKernel(KernelInput, 256);
  const Kernel k = build(p, &small);
  EXPECT_EQ(k.width, 10);
  EXPECT_EQ(k.height, 10);
  // Filter shape: the format's side caps it as max_kernelsize would.
  EXPECT_EQ(build(p, &small, true, Box(0, 0, 8, 6)).width, 6);

  FlatImage empty(Format(16, 16), Box(4, 4, 4, 4), ChannelSet(Chan_Red));
  empty.validate(true);
  const Kernel none = build(p, &empty);
  EXPECT_TRUE(none.empty());

  // An empty master kernel gives an all-zero bank, without touching a value that isn't there.
  std::vector<Kernel> bank(9);
  for (int i = 0; i < 9; ++i) {
    fillKernelBankEntry(bank, i, none, p.vorelChannels);
    EXPECT_EQ(bank[i].width, kernelBankEntrySize(i));
    for (float v : bank[i].planes[Chan_Red])
      ASSERT_EQ(v, 0.0f);
  }
}

// ---------------------------------------------------------------------------------------------
// Kernel bank

TEST(KernelBank, EntrySizesAreOdd) {
  const int expected[] = {1, 1, 1, 3, 3, 5, 5, 7, 7, 9, 9, 11};
  for (int i = 0; i < 12; ++i)
    EXPECT_EQ(kernelBankEntrySize(i), expected[i]) << i;
  EXPECT_EQ(kernelBankEntrySize(260), 259);
  EXPECT_EQ(kernelBankEntrySize(259), 259);
}

TEST(KernelBank, SizesOfAWholeBank) {
  tzVorel node(nullptr);
  node.masterKernel = build(formulaKernel(KernelCircular, 32));

  fillBank(node, 0, 2);
  ASSERT_EQ(node.kernelBank.size(), 5u);
  const int sizes0[] = {1, 1, 1, 3, 3};
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(node.kernelBank[i].width, sizes0[i]);
    ASSERT_EQ(node.kernelBank[i].height, sizes0[i]);
    EXPECT_EQ(node.kernelBank[i].half, (sizes0[i] - 1) / 2);
    EXPECT_EQ(node.kernelBank[i].planes[Chan_Alpha].size(), static_cast<std::size_t>(sizes0[i] * sizes0[i]));
  }

  fillBank(node, 6, 2);
  ASSERT_EQ(node.kernelBank.size(), 11u);
  EXPECT_EQ(node.kernelBank[8].width, 7);
  EXPECT_EQ(node.kernelBank[9].width, 9);
  EXPECT_EQ(node.kernelBank[10].width, 9);
  EXPECT_EQ(node.kernelBank[10].half, 4);
}

TEST(KernelBank, ChannelsShareOneNormalisation) {
  // A 4 x 4 master: size 1 reads exactly pixel (2, 2) of an even master.
  std::vector<float> red(16, 0.0f), green(16, 0.0f), alpha(16, 0.0f);
  red[2 * 4 + 2] = 8.0f;
  green[2 * 4 + 2] = 4.0f;
  alpha[2 * 4 + 2] = -2.0f;
  const ChannelSet rgba(DD::Image::Mask_RGBA);
  Kernel master = handMade(4, 4, red, rgba);
  master.planes[Chan_Green] = green;
  master.planes[Chan_Blue].assign(16, 0.0f);
  master.planes[Chan_Alpha] = alpha;

  std::vector<Kernel> bank(2);
  fillKernelBankEntry(bank, 0, master, rgba);
  EXPECT_EQ(bank[0].planes[Chan_Red][0], 1.0f);
  EXPECT_EQ(bank[0].planes[Chan_Green][0], 0.5f);  // not 1: the largest sum divides all
  EXPECT_EQ(bank[0].planes[Chan_Blue][0], 0.0f);
  EXPECT_EQ(bank[0].planes[Chan_Alpha][0], -2.0f);  // a sum below 0 is left as resampled

  // Nothing positive: nothing is scaled.
  Kernel negative = handMade(4, 4, alpha);
  fillKernelBankEntry(bank, 1, negative, ChannelSet(Chan_Red));
  EXPECT_EQ(bank[1].planes[Chan_Red][0], -2.0f);
}

TEST(KernelBank, NormalisedSumsOnALargerEntry) {
  Kernel master = build(formulaKernel(KernelCircular, 64));
  for (float& v : master.planes[Chan_Green])
    v *= 0.5f;
  std::fill(master.planes[Chan_Blue].begin(), master.planes[Chan_Blue].end(), 0.0f);
  std::vector<Kernel> bank(22);
  fillKernelBankEntry(bank, 21, master, ChannelSet(DD::Image::Mask_RGBA));
  const Kernel& e = bank[21];
  ASSERT_EQ(e.width, 21);
  EXPECT_NEAR(planeSum(e, Chan_Red), 1.0f, 1e-5f);
  EXPECT_NEAR(planeSum(e, Chan_Alpha), 1.0f, 1e-5f);
  for (std::size_t i = 0; i < e.count; ++i) {
    ASSERT_EQ(e.planes[Chan_Green][i], 0.5f * e.planes[Chan_Red][i]);
    ASSERT_EQ(e.planes[Chan_Blue][i], 0.0f);
  }
}

TEST(KernelBank, ZeroRuleOfTheResampling) {
  // Size 1 from an even master takes exactly its pixel (W/2, H/2).
  std::vector<float> values(36);
  for (int i = 0; i < 36; ++i)
    values[i] = 0.1f * static_cast<float>(i) + 0.05f;
  const Kernel even = handMade(6, 6, values);
  Kernel one;
  one.allocate(ChannelSet(Chan_Red), 1, 1);
  resampleKernel(one, 1, Chan_Red, even);
  EXPECT_EQ(one.planes[Chan_Red][0], values[3 * 6 + 3]);

  // A master of size 1 has no source index from 1 up: every entry is 0.
  const Kernel single = handMade(1, 1, {7.0f});
  std::vector<Kernel> bank(12);
  for (int i = 0; i < 12; ++i) {
    fillKernelBankEntry(bank, i, single, ChannelSet(Chan_Red));
    for (float v : bank[i].planes[Chan_Red])
      ASSERT_EQ(v, 0.0f) << i;
  }

  // Same size as the master: row 0 and column 0 are 0, the rest interpolated.
  const Kernel nine = handMade(9, 9, std::vector<float>(81, 1.0f));
  Kernel same;
  same.allocate(ChannelSet(Chan_Red), 9, 9);
  resampleKernel(same, 9, Chan_Red, nine);
  for (int y = 0; y < 9; ++y)
    for (int x = 0; x < 9; ++x)
      ASSERT_EQ(at(same, Chan_Red, x, y), (x == 0 || y == 0) ? 0.0f : 1.0f) << x << "," << y;

  // The source index is taken in double precision: at size 25 from a 2 x 2 master, column 12
  // sits at 12.5 * 0.08 = 0.99999998, index 0, and is blanked; in single precision it would be 1.
  const Kernel two = handMade(2, 2, {1.0f, 1.0f, 1.0f, 1.0f});
  Kernel up;
  up.allocate(ChannelSet(Chan_Red), 25, 25);
  resampleKernel(up, 25, Chan_Red, two);
  for (int i = 0; i < 25; ++i) {
    EXPECT_EQ(at(up, Chan_Red, 12, i), 0.0f) << i;
    EXPECT_EQ(at(up, Chan_Red, i, 12), 0.0f) << i;
  }
  EXPECT_EQ(at(up, Chan_Red, 13, 13), 1.0f);
  EXPECT_EQ(at(up, Chan_Red, 24, 24), 1.0f);
}

TEST(KernelBank, AllZeroMasterGivesAllZeroEntries) {
  NodeParameters p = formulaKernel(KernelCircular, 32);
  p.kSphAbb = 1.0f;
  tzVorel node(nullptr);
  node.masterKernel = build(p);
  fillBank(node, 20, 2);
  for (const Kernel& e : node.kernelBank)
    foreach (z, node.params.vorelChannels)
      for (float v : e.planes[z])
        ASSERT_EQ(v, 0.0f);
}

TEST(KernelBank, ThreadCountDoesNotChangeTheBytes) {
  NodeParameters p = formulaKernel(KernelApertureBlades, 48);
  p.kCurvature = 0.3f;
  p.kSphAbb = -0.4f;
  p.kSoftness = 0.2f;

  tzVorel reference(nullptr);
  reference.masterKernel = build(p);
  fillBank(reference, 60, 1);
  ASSERT_EQ(reference.kernelBank.size(), 65u);
  // Entries above the master's size are upsampled and still normalised.
  EXPECT_NEAR(planeSum(reference.kernelBank[64], Chan_Red), 1.0f, 1e-5f);

  for (unsigned threads : {2u, 3u, 7u, 100u}) {
    tzVorel node(nullptr);
    node.masterKernel = build(p);
    fillBank(node, 60, threads);
    ASSERT_EQ(node.kernelBank.size(), reference.kernelBank.size());
    for (std::size_t i = 0; i < reference.kernelBank.size(); ++i)
      ASSERT_TRUE(sameBytes(node.kernelBank[i], reference.kernelBank[i])) << threads << " threads, entry " << i;
  }

  // More threads than entries: the surplus finds nothing to do.
  tzVorel few(nullptr);
  few.masterKernel = build(p);
  fillBank(few, 0, 16);
  tzVorel fewReference(nullptr);
  fewReference.masterKernel = build(p);
  fillBank(fewReference, 0, 1);
  for (std::size_t i = 0; i < 5; ++i)
    EXPECT_TRUE(sameBytes(few.kernelBank[i], fewReference.kernelBank[i])) << i;
}

TEST(KernelBank, OpenOnAnyNumberOfCPUsGivesTheSameBank) {
  // Through the node's own open: a 40 x 30 image with CoCs up to 23, blades kernel.
  auto image = test::flatImage(40, 30, test::rgbaz(), [](int x, int y, Channel z) {
    return z == DD::Image::Chan_Z ? 100.0f + 0.1f * static_cast<float>(x + y) : 0.5f;
  });
  auto bankOn = [&](unsigned cpus) {
    const unsigned saved = Thread::numCPUs;
    Thread::numCPUs = cpus;
    auto node = test::makeNode();
    test::setKnob(*node, "focalPlane", 100.0);
    test::setKnob(*node, "focusRegionSize", 8.0);
    test::setKnob(*node, "multiplier", 23.0);
    test::setKnob(*node, "kernelType", KernelApertureBlades);
    test::setKnob(*node, "max_kernelsize", 64);
    DD::Image::host::connect(*node, 0, image.get());
    DD::Image::host::prepare(*node, Box(0, 0, 40, 30), test::rgbaz());
    Thread::numCPUs = saved;
    return std::move(node->kernelBank);
  };
  const std::vector<Kernel> one = bankOn(1);
  ASSERT_EQ(one.size(), 28u);  // maxCoC 23
  for (unsigned cpus : {2u, 5u, 64u}) {
    const std::vector<Kernel> many = bankOn(cpus);
    ASSERT_EQ(many.size(), one.size());
    for (std::size_t i = 0; i < one.size(); ++i)
      ASSERT_TRUE(sameBytes(many[i], one[i])) << cpus << " CPUs, entry " << i;
  }
}
