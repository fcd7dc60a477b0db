#include "engines/Splat.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "engines/OpticalArtefacts.h"
#include "engines/SplatContext.h"
#include "node/tzVorel.h"

using DD::Image::Channel;
using DD::Image::ChannelSet;

// Where the machine has AVX2 the accumulation runs eight floats wide, chosen once at load. Each
// element is still one multiply and one add, rounded separately (no FMA: contraction is off), so
// both clones give the same sums as the scalar loop.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define VOREL_WIDE_VECTORS __attribute__((target_clones("avx2", "default")))
#else
#define VOREL_WIDE_VECTORS
#endif

namespace vorel {

namespace {

// A moved position is kept within this distance of 0, so that a NaN or huge shift (a bad matte or
// CoC) lands far outside every span instead of overflowing the integer arithmetic behind it.
constexpr int kPositionLimit = 1 << 30;

inline int truncatePosition(float v) {
  if (!(v > -static_cast<float>(kPositionLimit)))
    return -kPositionLimit;
  if (!(v < static_cast<float>(kPositionLimit)))
    return kPositionLimit;
  return static_cast<int>(v);
}

// The hot loop: both accumulators in one sweep, eight floats at a time, then four, then at most
// three one by one. Each element is one multiply and one add as in the scalar loop, so every
// width gives the same sums. Kernel rows are short (tens of floats), which is why the tail is cut
// down to a four-wide step rather than left to a scalar loop of up to seven.
typedef float Floats8 __attribute__((vector_size(32)));
typedef float Floats4 __attribute__((vector_size(16)));

template <class V>
inline void accumulateVector(float* P, float* Q, const float* K, V cw, V w, int j) {
  V k, p, q;
  std::memcpy(&k, K + j, sizeof(V));
  std::memcpy(&p, P + j, sizeof(V));
  std::memcpy(&q, Q + j, sizeof(V));
  p += cw * k;
  q += w * k;
  std::memcpy(P + j, &p, sizeof(V));
  std::memcpy(Q + j, &q, sizeof(V));
}

inline void accumulate(float* __restrict P, float* __restrict Q, const float* __restrict K, float cw,
                       float w, int count) {
  int j = 0;
  const Floats8 cw8 = {cw, cw, cw, cw, cw, cw, cw, cw};
  const Floats8 w8 = {w, w, w, w, w, w, w, w};
  for (; j + 8 <= count; j += 8)
    accumulateVector(P, Q, K, cw8, w8, j);
  if (j + 4 <= count) {
    const Floats4 cw4 = {cw, cw, cw, cw};
    const Floats4 w4 = {w, w, w, w};
    accumulateVector(P, Q, K, cw4, w4, j);
    j += 4;
  }
  for (; j < count; ++j) {
    const float k = K[j];
    P[j] += cw * k;
    Q[j] += w * k;
  }
}

inline float shiftBase(const NodeParameters& p, Channel c) {
  const float a = p.kChrAbb;
  switch (c) {
    case DD::Image::Chan_Red: return std::fabs(a * p.kChrAbbOff[0]);
    case DD::Image::Chan_Green: return a > 0.0f ? std::fabs(a * p.kChrAbbOff[1]) : 0.0f;
    case DD::Image::Chan_Blue: return a < 0.0f ? std::fabs(a * p.kChrAbbOff[2]) : 0.0f;
    default: return 0.0f;
  }
}

// Walk: a callable that calls its argument once per channel to splat, in ascending order.
template <class Walk>
inline void splatCore(const NodeParameters& p, const Kernel* bank, unsigned n, const DD::Image::Box& format,
                      int pixelX, int pixelY, int rowLeft, int rowY, int rowRight, int sourceX,
                      int sourceY, float coc, unsigned slice, float sampleWeight, const float* colours,
                      const ChannelPlanes* sliceColourPlanes, const ChannelPlanes* sliceWeightPlanes,
                      float bloomMatte, float chromaticMatte, Walk walk) {
  if (n == 0)
    return;
  const float strength = bloomRadialFactor(p, format, pixelX, pixelY) * bloomMatte;

  // floor(coc) taken unsigned: negative, NaN and too large all mean "the last entry, alone".
  unsigned i = n - 1;
  int passes = 1;
  float w0 = 1.0f;
  const float index = floorf(coc);
  if (index >= 0.0f && index < static_cast<float>(n)) {
    i = static_cast<unsigned>(index);
    passes = 2;
    w0 = 1.0f - (coc - static_cast<float>(bank[i].width)) * 0.5f;
  }

  const float spread = std::max(coc * chromaticMatte * 0.5f - 1.0f, 0.0f);
  const bool shifted = p.kChrAbb != 0.0f;
  const bool bloomOnly = p.outputType == OutputLensBloom;
  const float threshold = p.bloomThreshold;
  const ChannelPlanes& colourPlanes = sliceColourPlanes[slice];
  const ChannelPlanes& weightPlanes = sliceWeightPlanes[slice];

  for (int pass = 0; pass < passes; ++pass) {
    const float w = (pass == 0 ? w0 : 1.0f - w0) * sampleWeight;
    if (w <= 0.0f) {
      i += 2;
      continue;
    }
    unsigned e = i;
    if (e >= n)
      e = n - 1;
    if (e == 0)
      e = 1;  // entry 0 is never spread
    if (e >= n)
      e = n - 1;  // a one-entry bank has nothing else to offer
    const Kernel& kernel = bank[e];
    i = e + 2;
    const int h = kernel.half;
    const int width = kernel.width;

    // Without chromatic aberration every channel shares the position: most sources that don't
    // reach this row leave here, before the channel walk.
    if (!shifted) {
      const int dy = sourceY - rowY;
      if (dy > h || dy < -h || sourceX - rowRight > h || rowLeft - sourceX > h)
        continue;
    }

    walk([&](Channel c) {
      int sx = sourceX;
      int sy = sourceY;
      if (shifted) {
        sx = chromaticShift(p, sourceX, c, spread);
        sy = chromaticShift(p, sourceY, c, spread);
      }
      const int dy = sy - rowY;
      if (dy > h || dy < -h || sx - rowRight > h || rowLeft - sx > h)
        return;

      const int left = std::min(sx - rowLeft - h, 0);
      const int koff = (dy + h) * width - left;
      const int start = std::max(sx - h, rowLeft);
      int count = width + left;
      if (start + count > rowRight)
        count = rowRight - start;
      if (count <= 0)
        return;

      const float* K = kernel.plane(c);
      float* P = colourPlanes[c];
      float* Q = weightPlanes[c];
      if (!K || !P || !Q)
        return;

      float value = colours[c];
      if (c >= DD::Image::Chan_Red && c <= DD::Image::Chan_Blue) {
        const float b = std::max(0.0f, value - threshold) * strength;
        value = bloomOnly ? b : value + b;
      }
      accumulate(P + start, Q + start, K + koff, value * w, w, count);
    });
  }
}

}  // namespace

int chromaticShift(const NodeParameters& p, int position, Channel c, float spread) {
  if (p.kChrAbb == 0.0f)
    return position;
  // The same shift goes to the column and the row: channels move along the image's diagonal.
  const float shift = (shiftBase(p, c) - std::fabs(p.kChrAbb) * 0.5f) * spread * 0.1f;
  return truncatePosition(static_cast<float>(position) + shift);
}

VOREL_WIDE_VECTORS
void accumulateKernelRow(float* P, float* Q, const float* K, float cw, float w, int count) {
  accumulate(P, Q, K, cw, w, count);
}

SplatContext::SplatContext(const NodeParameters& parameters, const std::vector<Kernel>& kernelBank,
                           const DD::Image::Box& formatBox, const ChannelSet& channels)
    : params(parameters),
      bank(kernelBank.data()),
      bankSize(static_cast<unsigned>(kernelBank.size())),
      format(formatBox) {
  foreach (c, channels) {
    if (parameters.vorelChannels.contains(c))
      channelList.push_back(c);
  }
}

SplatContext::SplatContext(const tzVorel& node, const ChannelSet& channels)
    : SplatContext(node.params, node.kernelBank, node.formatBox(), channels) {}

VOREL_WIDE_VECTORS
void splatPixel(const SplatContext& context, int pixelX, int pixelY, int rowLeft, int rowY,
                int rowRight, int sourceX, int sourceY, float coc, unsigned slice,
                float sampleWeight, const float* colours, const ChannelPlanes* sliceColourPlanes,
                const ChannelPlanes* sliceWeightPlanes, float bloomMatte, float chromaticMatte) {
  const Channel* first = context.channelList.data();
  const Channel* last = first + context.channelList.size();
  splatCore(context.params, context.bank, context.bankSize, context.format, pixelX, pixelY, rowLeft,
            rowY, rowRight, sourceX, sourceY, coc, slice, sampleWeight, colours, sliceColourPlanes,
            sliceWeightPlanes, bloomMatte, chromaticMatte, [first, last](auto&& body) {
              for (const Channel* c = first; c != last; ++c)
                body(*c);
            });
}

void splatPixel(const tzVorel& node, int pixelX, int pixelY, int rowLeft, int rowY, int rowRight,
                int sourceX, int sourceY, float coc, unsigned slice, float sampleWeight,
                const float* colours, const ChannelPlanes* sliceColourPlanes,
                const ChannelPlanes* sliceWeightPlanes, const ChannelSet& channels,
                float bloomMatte, float chromaticMatte) {
  const ChannelSet& vorelChannels = node.params.vorelChannels;
  splatCore(node.params, node.kernelBank.data(), static_cast<unsigned>(node.kernelBank.size()),
            node.formatBox(), pixelX, pixelY, rowLeft, rowY, rowRight, sourceX, sourceY, coc, slice,
            sampleWeight, colours, sliceColourPlanes, sliceWeightPlanes, bloomMatte, chromaticMatte,
            [&channels, &vorelChannels](auto&& body) {
              foreach (c, channels) {
                if (vorelChannels.contains(c))
                  body(c);
              }
            });
}

}  // namespace vorel
