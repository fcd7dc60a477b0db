#pragma once
// The body of splatPixel, inline, for the row engines' pixel loops and for the out-of-line forms
// in Splat.cpp. Only engine sources include this.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "DDImage/Box.h"
#include "DDImage/Channel.h"
#include "engines/OpticalArtefacts.h"
#include "engines/Slices.h"
#include "engines/SplatContext.h"
#include "lens/Kernel.h"
#include "lens/KernelBank.h"
#include "lens/NodeParameters.h"

// Where the machine has AVX2 the accumulation runs eight floats wide, chosen once at load. Each
// element is still one multiply and one add, rounded separately (no FMA: contraction is off), so
// both clones give the same sums as the scalar loop.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define VOREL_WIDE_VECTORS __attribute__((target_clones("avx2", "default")))
#else
#define VOREL_WIDE_VECTORS
#endif

namespace vorel {
namespace splatcore {

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

inline float shiftBase(const NodeParameters& p, DD::Image::Channel c) {
  const float a = p.kChrAbb;
  switch (c) {
    case DD::Image::Chan_Red: return std::fabs(a * p.kChrAbbOff[0]);
    case DD::Image::Chan_Green: return a > 0.0f ? std::fabs(a * p.kChrAbbOff[1]) : 0.0f;
    case DD::Image::Chan_Blue: return a < 0.0f ? std::fabs(a * p.kChrAbbOff[2]) : 0.0f;
    default: return 0.0f;
  }
}

inline int shiftedPosition(const NodeParameters& p, int position, DD::Image::Channel c, float spread) {
  if (p.kChrAbb == 0.0f)
    return position;
  // The same shift goes to the column and the row: channels move along the image's diagonal.
  const float shift = (shiftBase(p, c) - std::fabs(p.kChrAbb) * 0.5f) * spread * 0.1f;
  return truncatePosition(static_cast<float>(position) + shift);
}

// The part of one kernel row that lands on the output row: kernel row dy + h of a kernel centred
// on (x, y), clipped to the row's span. count <= 0 when nothing lands.
struct KernelRowClip {
  int start;         // first output column
  int kernelOffset;  // index of the kernel value that lands there
  int count;
};

inline KernelRowClip clipKernelRow(int x, int y, int h, int width, const RowSpan& row) {
  const int dy = y - row.y;
  if (dy > h || dy < -h || x - row.right > h || row.left - x > h)
    return {0, 0, 0};
  const int left = std::min(x - row.left - h, 0);
  const int koff = (dy + h) * width - left;
  const int start = std::max(x - h, row.left);
  int count = width + left;
  if (start + count > row.right)
    count = row.right - start;
  return {start, koff, count};
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

// The colour accumulator alone, for a channel whose weights another channel accumulates.
template <class V>
inline void accumulateColourVector(float* P, const float* K, V cw, int j) {
  V k, p;
  std::memcpy(&k, K + j, sizeof(V));
  std::memcpy(&p, P + j, sizeof(V));
  p += cw * k;
  std::memcpy(P + j, &p, sizeof(V));
}

inline void accumulateColour(float* __restrict P, const float* __restrict K, float cw, int count) {
  int j = 0;
  const Floats8 cw8 = {cw, cw, cw, cw, cw, cw, cw, cw};
  for (; j + 8 <= count; j += 8)
    accumulateColourVector(P, K, cw8, j);
  if (j + 4 <= count) {
    const Floats4 cw4 = {cw, cw, cw, cw};
    accumulateColourVector(P, K, cw4, j);
    j += 4;
  }
  for (; j < count; ++j)
    P[j] += cw * K[j];
}

// The colour and weight lines one sample adds to, addressed by absolute column; null when there
// are none.
struct AccumulatorLines {
  float* colour;
  float* weight;
};

// One channel's kernel rows into output rows [lo, hi]: row y takes kernel row centreY - y + h, and
// the accumulators of the next row are lines.rowStride() on. A colour-only channel leaves the
// weights to the channel that shares them.
template <class Lines>
__attribute__((always_inline)) inline void addKernelRows(const Lines& lines, int lo, int hi, unsigned slice,
                                                         std::size_t k, DD::Image::Channel c, const float* K,
                                                         const KernelRowClip& clip, int centreY, int width,
                                                         float cw, float w, bool colourOnly) {
  const float* Krow = K + clip.kernelOffset + static_cast<std::ptrdiff_t>(centreY - lo) * width;
  AccumulatorLines a = lines(lo, slice, k, c);
  if (!a.colour || !a.weight)
    return;
  const std::ptrdiff_t stride = lines.rowStride();
  float* P = a.colour + clip.start;
  float* Q = a.weight + clip.start;
  for (int y = lo; y <= hi; ++y, Krow -= width, P += stride, Q += stride) {
    if (colourOnly)
      accumulateColour(P, Krow, cw, clip.count);
    else
      accumulate(P, Q, Krow, cw, w, clip.count);
  }
}

// What a sample spreads in each channel: its colour, with bloom added (or alone) in red, green and
// blue.
class SpreadValues {
public:
  SpreadValues(const NodeParameters& p, const DD::Image::Box& format, const SourceSample& s)
      : colours_(s.colours),
        strength_((p.bloom > 0.0f ? bloomRadialFactor(p, format, s.pixelX, s.pixelY) : 0.0f) * s.bloomMatte),
        threshold_(p.bloomThreshold),
        bloomOnly_(p.outputType == OutputLensBloom) {}
  float operator()(DD::Image::Channel c) const {
    float value = colours_[c];
    if (c >= DD::Image::Chan_Red && c <= DD::Image::Chan_Blue) {
      const float b = std::max(0.0f, value - threshold_) * strength_;
      value = bloomOnly_ ? b : value + b;
    }
    return value;
  }

private:
  const float* colours_;
  float strength_, threshold_;
  bool bloomOnly_;
};

// Walk: walk(entry, body) calls body(k, channel, plane) for each channel to splat, in ascending
// order, k counting them, with that channel's plane of kernelBank[entry] (null when the entry has
// none). Lines: lines(y, slice, k, channel) gives the accumulators of output row y (null for all
// rows or none), lines.rowStride() how far on those of the next row are. The sample
// adds to rows [span.lo, span.hi] of columns [span.left, span.right): its lens, blend, bloom and
// spread values are worked out once, then each kernel row that lands is added to its row. Each
// output element gets the same additions in the same order as it would with one row at a time
// (passes, then channels, for each sample). Always inlined, so that the AVX2 clone of its caller
// runs the accumulation eight wide.
template <class Walk, class Lines>
__attribute__((always_inline)) inline void splat(
    const NodeParameters& p, const Kernel* bank, unsigned n, const DD::Image::Box& format,
    const SourceSample& s, const BandSpan& span, const Lines& lines, const Walk& walk,
    DD::Image::Channel sharedWeightChannel = DD::Image::Chan_Black) {
  if (n == 0 || span.hi < span.lo)
    return;
  const SpreadValues spreadValue(p, format, s);
  const KernelBlend blend = kernelBlend(bank, n, s.coc, s.weight);

  const float spread = std::max(s.coc * s.chromaticMatte * 0.5f - 1.0f, 0.0f);
  const bool shifted = p.kChrAbb != 0.0f;

  for (unsigned pass = 0; pass < blend.count; ++pass) {
    const unsigned e = blend.pass[pass].entry;
    const float w = blend.pass[pass].weight;
    const int h = bank[e].half;
    const int width = bank[e].width;

    if (!shifted) {
      // Every channel has the same position, so the culling and clipping are worked out once;
      // most samples that don't reach these rows leave here, before the channel walk.
      const int lo = std::max(span.lo, s.y - h);
      const int hi = std::min(span.hi, s.y + h);
      if (lo > hi)
        continue;
      const KernelRowClip clip = clipKernelRow(s.x, s.y, h, width, RowSpan{span.left, s.y, span.right});
      if (clip.count <= 0)
        continue;
      walk(e, [&](std::size_t k, DD::Image::Channel c, const float* K) __attribute__((always_inline)) {
        if (!K)
          return;
        const bool colourOnly = sharedWeightChannel != DD::Image::Chan_Black && c != sharedWeightChannel;
        addKernelRows(lines, lo, hi, s.slice, k, c, K, clip, s.y, width, spreadValue(c) * w, w, colourOnly);
      });
      continue;
    }

    walk(e, [&](std::size_t k, DD::Image::Channel c, const float* K) __attribute__((always_inline)) {
      // Truncation toward zero is not the same at every position: it is taken from the format's
      // corner, so that where the image stands doesn't change where a channel lands.
      const int sx = shiftedPosition(p, s.x - format.x(), c, spread) + format.x();
      const int sy = shiftedPosition(p, s.y - format.y(), c, spread) + format.y();
      if (!K)
        return;
      const int lo = std::max(span.lo, sy - h);
      const int hi = std::min(span.hi, sy + h);
      if (lo > hi)
        return;
      const KernelRowClip clip = clipKernelRow(sx, sy, h, width, RowSpan{span.left, sy, span.right});
      if (clip.count <= 0)
        return;
      addKernelRows(lines, lo, hi, s.slice, k, c, K, clip, sy, width, spreadValue(c) * w, w, false);
    });
  }
}

// The walk over a channel list prepared once per row, with a table of every bank entry's plane
// for each listed channel: no channel set and no plane lookup in the pixel loop.
struct PreparedWalk {
  const DD::Image::Channel* channels;
  std::size_t count;
  const float* const* planes;  // planes[entry * count + k]
  template <class Body> __attribute__((always_inline)) void operator()(unsigned entry, Body&& body) const {
    const float* const* row = planes + static_cast<std::size_t>(entry) * count;
    for (std::size_t k = 0; k < count; ++k)
      body(k, channels[k], row[k]);
  }
};

}  // namespace splatcore
}  // namespace vorel
