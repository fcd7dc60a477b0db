#pragma once
// The body of splatBand for a band in lane form (see LaneBand.h), inline for its out-of-line form
// in Splat.cpp. Only engine sources include this.

#include <cmath>
#include <cstring>

#include "engines/LaneBand.h"
#include "engines/SplatCore.h"

namespace vorel {
namespace splatcore {

// Beyond this, a run's product could overflow, or a difference row lose the values it carries.
constexpr float kLargestRunProduct = 1e30f;

inline void addLaneValue(float* sums, LaneFloats cw, float k) {
  LaneFloats a;
  std::memcpy(&a, sums, sizeof a);
  a += cw * k;
  std::memcpy(sums, &a, sizeof a);
}

// Kernel columns [a, b) of a row one by one; `sums` points at kernel column 0's output column.
inline void addLaneValues(float* sums, LaneFloats cw, const float* K, int a, int b) {
  for (int j = a; j < b; ++j)
    addLaneValue(sums + static_cast<std::ptrdiff_t>(j) * static_cast<std::ptrdiff_t>(kLanes), cw, K[j]);
}

inline void addLaneDifference(double* d, LaneDoubles low, LaneDoubles high) {
  LaneDoubles a, b;
  std::memcpy(&a, d, sizeof a);
  std::memcpy(&b, d + 4, sizeof b);
  a += low;
  b += high;
  std::memcpy(d, &a, sizeof a);
  std::memcpy(d + 4, &b, sizeof b);
}

// Kernel columns [a, b) all holding `value`: the product each would add is added at a and taken
// away again at b. `differences` points at kernel column 0's output column.
inline void addLaneRun(double* differences, LaneFloats cw, float value, int a, int b) {
  const LaneFloats product = cw * value;
  const LaneDoubles low = __builtin_convertvector(__builtin_shufflevector(product, product, 0, 1, 2, 3), LaneDoubles);
  const LaneDoubles high = __builtin_convertvector(__builtin_shufflevector(product, product, 4, 5, 6, 7), LaneDoubles);
  addLaneDifference(differences + static_cast<std::ptrdiff_t>(a) * static_cast<std::ptrdiff_t>(kLanes), low, high);
  addLaneDifference(differences + static_cast<std::ptrdiff_t>(b) * static_cast<std::ptrdiff_t>(kLanes), -low, -high);
}

// One kernel row through its run: columns [a, runStart) and [runEnd, b) value by value, the run
// [runStart, runEnd) at its two ends (a <= runStart <= runEnd <= b).
__attribute__((always_inline)) inline void addLaneRow(float* sums, double* differences, LaneFloats cw,
                                                      const float* Krow, float runValue, int a, int runStart,
                                                      int runEnd, int b) {
  addLaneValues(sums, cw, Krow, a, runStart);
  if (runEnd > runStart)
    addLaneRun(differences, cw, runValue, runStart, runEnd);
  addLaneValues(sums, cw, Krow, runEnd, b);
}

// The sample into rows [span.lo, span.hi] over columns [span.left, span.right) of a lane band:
// the same products as splat with shared weights, each channel's colour in its lane and the weight
// after them. `planes` gives each bank entry's plane (all channels alike). A sample whose values
// are not finite, or too large for a difference row, adds every kernel value one by one, zeros
// too, as the straightforward rows do (a NaN or an infinity spreads over the whole square).
__attribute__((always_inline)) inline void splatLanes(const NodeParameters& p, const Kernel* bank, unsigned n,
                                                      const DD::Image::Box& format, const SourceSample& s,
                                                      const BandSpan& span, const LaneBand& lanes,
                                                      const DD::Image::Channel* channels, std::size_t count,
                                                      const float* const* planes) {
  if (n == 0 || span.hi < span.lo)
    return;
  const SpreadValues spreadValue(p, format, s);
  float values[kLanes] = {};
  for (std::size_t k = 0; k < count; ++k)
    values[k] = spreadValue(channels[k]);
  const KernelBlend blend = kernelBlend(bank, n, s.coc, s.weight);

  for (unsigned pass = 0; pass < blend.count; ++pass) {
    const unsigned e = blend.pass[pass].entry;
    const float w = blend.pass[pass].weight;
    const Kernel& entry = bank[e];
    const float* K = planes[static_cast<std::size_t>(e) * count];
    const int h = entry.half, width = entry.width;
    const int lo = std::max(span.lo, s.y - h), hi = std::min(span.hi, s.y + h);
    // Kernel column j lands on output column x0 + j; those of [j0, j1) land in the band.
    const long long x0 = static_cast<long long>(s.x) - h;
    const int j0 = static_cast<int>(std::max<long long>(0, span.left - x0));
    const int j1 = static_cast<int>(std::min<long long>(width, span.right - x0));
    if (!K || lo > hi || j0 >= j1)
      continue;

    LaneFloats cw = {};
    bool runs = entry.rowShapes.size() == static_cast<std::size_t>(entry.height);
    const float limit = kLargestRunProduct / std::max(1.0f, entry.largest);
    for (std::size_t k = 0; k < count; ++k) {
      cw[k] = values[k] * w;
      runs = runs && std::fabs(cw[k]) < limit;
    }
    cw[count] = w;
    runs = runs && w < limit;

    // Row y takes kernel row s.y - y + h; the next output row's lines are a fixed step on.
    const std::ptrdiff_t laneStep = x0 * static_cast<std::ptrdiff_t>(kLanes);
    float* sums = lanes.sums(lo, s.slice) + laneStep;
    double* differences = lanes.differences(lo, s.slice) + laneStep;
    unsigned char* used = lanes.used(lo, s.slice);
    const std::ptrdiff_t sumsStep = lanes.sumsRowStep(), differencesStep = lanes.differencesRowStep();
    const std::ptrdiff_t firstRow = s.y - lo + h;
    const float* Krow = K + firstRow * width;
    const KernelRowShape* shapes = entry.rowShapes.data();
    if (runs && j0 == 0 && j1 == width) {
      // The whole width lands in the band, as it mostly does: each row's shape as it stands.
      for (int y = lo; y <= hi; ++y, Krow -= width, sums += sumsStep, differences += differencesStep, ++used) {
        const KernelRowShape row = shapes[firstRow - (y - lo)];
        if (row.first >= row.last)
          continue;
        *used = 1;
        addLaneRow(sums, differences, cw, Krow, row.value, row.first, row.runStart, row.runEnd, row.last);
      }
      continue;
    }
    for (int y = lo; y <= hi; ++y, Krow -= width, sums += sumsStep, differences += differencesStep, ++used) {
      if (!runs) {
        *used = 1;
        addLaneValues(sums, cw, Krow, j0, j1);
        continue;
      }
      const KernelRowShape row = shapes[firstRow - (y - lo)];
      const int a = std::max(row.first, j0), b = std::min(row.last, j1);
      if (a >= b)
        continue;
      *used = 1;
      const int runStart = std::min(std::max(row.runStart, a), b);
      const int runEnd = std::min(std::max(row.runEnd, runStart), b);
      addLaneRow(sums, differences, cw, Krow, row.value, a, runStart, runEnd, b);
    }
  }
}

}  // namespace splatcore
}  // namespace vorel
