// The kernels a node keeps from one frame to the next: whatever changes between two renders of
// one node, the second must be what a new node makes of the same knobs and inputs. A key that
// misses something the kernels are made from shows here as a kept node that renders the old
// kernel.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

#include "DDImage/Knob.h"
#include "support/TestScenes.h"

using namespace DD::Image;
using namespace vorel;
using namespace vorel::test;

namespace {

const ChannelSet kRendered = rgbaz();

// Bit for bit, NaNs included.
bool sameImage(const Image& a, const Image& b) {
  if (a.area != b.area || !(a.channels == b.channels))
    return false;
  foreach (z, a.channels)
    if (a.planes[z].size() != b.planes[z].size() ||
        std::memcmp(a.planes[z].data(), b.planes[z].data(), a.planes[z].size() * sizeof(float)) != 0)
      return false;
  return true;
}

// Colour that shows the kernel's shape, depth from 60 at the left to 300 at the right.
std::unique_ptr<host::FlatImage> scene() {
  return flatImage(20, 14, rgbaz(), [](int x, int y, Channel z) {
    if (z == Chan_Z)
      return 60.0f + 240.0f * float(x) / 19.0f;
    if (z == Chan_Alpha)
      return 1.0f;
    return (x % 5 == 2 && y % 4 == 1) ? 4.0f : 0.1f * float(z);
  });
}

// An aperture that is neither round nor symmetric, without alpha, so missingKernelChannel counts.
std::unique_ptr<host::FlatImage> kernelImage(float bright) {
  return flatImage(7, 7, ChannelSet(Mask_RGB), [=](int x, int y, Channel z) {
    return (x + 2 * y) % 3 == 0 ? bright * float(z) : (x > y ? 0.3f : 0.0f);
  });
}

struct Inputs {
  std::unique_ptr<host::FlatImage> image = scene();
  std::unique_ptr<host::FlatImage> kernel = kernelImage(1.0f);
};

// A node that blurs the scene with small kernels of the given type.
std::unique_ptr<tzVorel> nodeFor(const Inputs& in, int kernelType) {
  auto node = makeNode();
  setKnob(*node, "max_kernelsize", 9);
  setKnob(*node, "focalPlane", 100.0);
  setKnob(*node, "focusRegionSize", 10.0);
  setKnob(*node, "multiplier", 4.0);
  setKnob(*node, "kernelType", kernelType);
  host::connect(*node, 0, in.image.get());
  host::connect(*node, 1, in.kernel.get());
  return node;
}

// A change of the knob's value that the knob accepts: the next entry, the other state, more of a
// number, another channel, fewer channels.
void change(tzVorel& node, const Knob& k) {
  const char* name = k.name_c_str();
  switch (k.kind()) {
    case BOOL_KNOB: setKnob(node, name, k.get_value() != 0.0 ? 0.0 : 1.0); break;
    case ENUMERATION_KNOB: {
      const double n = double(std::max<std::size_t>(1, k.enumerationEntries().size()));
      setKnob(node, name, std::fmod(k.get_value() + 1.0, n));
      break;
    }
    case INT_KNOB: setKnob(node, name, k.get_value() + 3.0); break;
    case FLOAT_KNOB:
    case COLOR_KNOB: setKnob(node, name, k.get_value() * 1.5 + 0.25); break;
    case CHANNEL_KNOB:
      setChannelKnob(node, name, *static_cast<const Channel*>(k.field()) == Chan_Red ? Chan_Green : Chan_Red);
      break;
    case CHANNEL_MASK_KNOB: setChannelsKnob(node, name, ChannelSet(Mask_RGB)); break;
    default: break;
  }
}

}  // namespace

TEST(KernelCache, AnyKnobChangedAfterAFrameRendersAsANewNodeWould) {
  // Each kernel type reads knobs of its own (blades and rotation, the kernel image's channels).
  for (int type : {KernelCircular, KernelApertureBlades, KernelInput}) {
    Inputs in;
    auto probe = nodeFor(in, type);
    for (const Knob* k : host::knobs(*probe)) {
      if (!k->field())
        continue;
      auto kept = nodeFor(in, type);
      render(*kept, kRendered);
      ASSERT_TRUE(kept->frame()->kernelsReady) << k->name();
      change(*kept, *k);
      const Image again = render(*kept, kRendered);

      auto fresh = nodeFor(in, type);
      change(*fresh, *k);
      EXPECT_TRUE(sameImage(again, render(*fresh, kRendered))) << k->name() << ", kernel type " << type;
    }
  }
}

TEST(KernelCache, TheKernelInputsContentTheProxyScaleAndMoreChannelsRebuild) {
  Inputs in;
  {
    // A bank made for fewer channels has no planes for the others.
    auto node = nodeFor(in, KernelCircular);
    setChannelsKnob(*node, "vorelChannels", ChannelSet(Mask_RGB));
    render(*node, kRendered);
    setChannelsKnob(*node, "vorelChannels", ChannelSet(Mask_RGBA));
    EXPECT_TRUE(sameImage(render(*node, kRendered), render(*nodeFor(in, KernelCircular), kRendered)));
  }

  auto kept = nodeFor(in, KernelInput);
  render(*kept, kRendered);

  // The same image made brighter: the host's hash of the input changes with its pixels.
  for (int x = 0; x < 7; ++x)
    in.kernel->set(x, 3, Chan_Green, 5.0f);
  kept->invalidate();
  const Image brighter = render(*kept, kRendered);
  EXPECT_FALSE(kept->frame()->openTimes.bankReused);
  EXPECT_TRUE(sameImage(brighter, render(*nodeFor(in, KernelInput), kRendered)));

  // Another image of the same content is the same kernel.
  auto copy = kernelImage(1.0f);
  for (int x = 0; x < 7; ++x)
    copy->set(x, 3, Chan_Green, 5.0f);
  host::connect(*kept, 1, copy.get());
  EXPECT_TRUE(sameImage(render(*kept, kRendered), brighter));
  EXPECT_TRUE(kept->frame()->openTimes.bankReused);

  // At half scale the cap on the kernel halves, and the master kernel with it.
  OutputContext half;
  half.setProxyscale(0.5f);
  kept->setOutputContext(half);
  kept->invalidate();
  const Image proxy = render(*kept, kRendered);
  EXPECT_FALSE(kept->frame()->openTimes.bankReused);
  auto fresh = nodeFor(in, KernelInput);
  host::connect(*fresh, 1, copy.get());
  fresh->setOutputContext(half);
  EXPECT_TRUE(sameImage(proxy, render(*fresh, kRendered)));
}

TEST(KernelCache, TheBankIsSharedAtOneSizeAndCopiedAtAnother) {
  Inputs in;
  auto kept = nodeFor(in, KernelApertureBlades);
  render(*kept, kRendered);
  const SharedKernelBank first = kept->frame()->kernelBank;
  EXPECT_FALSE(kept->frame()->openTimes.bankReused);

  // A knob outside the key: the same bank, not a copy of it.
  setKnob(*kept, "bloom", 0.5);
  render(*kept, kRendered);
  EXPECT_TRUE(kept->frame()->kernelBank.sameAs(first));
  EXPECT_TRUE(kept->frame()->openTimes.bankReused);

  // Where a CoC beyond the bank goes depends on its size, so a smaller or larger maxCoC gets a bank
  // of its own size, with the kept entries copied; only the new ones are resampled.
  for (double multiplier : {1.5, 8.0, 3.0}) {
    setKnob(*kept, "multiplier", multiplier);
    const Image image = render(*kept, kRendered);
    const Frame& f = *kept->frame();
    EXPECT_EQ(f.kernelBank.size(), std::size_t(f.maxCoC + 5)) << multiplier;
    EXPECT_FALSE(f.kernelBank.sameAs(first)) << multiplier;
    EXPECT_EQ(f.openTimes.bankReused, multiplier != 8.0) << multiplier;
    auto fresh = nodeFor(in, KernelApertureBlades);
    setKnob(*fresh, "bloom", 0.5);
    setKnob(*fresh, "multiplier", multiplier);
    EXPECT_TRUE(sameImage(image, render(*fresh, kRendered))) << multiplier;
  }
}

TEST(KernelCache, InvalidationReleasesTheFramesKernelsAndCloseTheKeptOnes) {
  Inputs in;
  auto node = nodeFor(in, KernelCircular);
  render(*node, kRendered);
  node->invalidate();
  EXPECT_TRUE(node->frame()->kernelBank.empty());
  render(*node, kRendered);
  EXPECT_TRUE(node->frame()->openTimes.bankReused);

  node->close();
  EXPECT_TRUE(node->frame()->kernelBank.empty());
  node->invalidate();
  render(*node, kRendered);
  EXPECT_FALSE(node->frame()->openTimes.bankReused);
  EXPECT_GT(node->frame()->openTimes.bank, 0.0);
}
