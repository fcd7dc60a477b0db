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

// Lanes 0-3 and 4-7 in double (vectors go by reference: returned, they would change the ABI with
// the machine's vector width).
inline void widenLanes(LaneFloats v, LaneDoubles& low, LaneDoubles& high) {
  low = __builtin_convertvector(__builtin_shufflevector(v, v, 0, 1, 2, 3), LaneDoubles);
  high = __builtin_convertvector(__builtin_shufflevector(v, v, 4, 5, 6, 7), LaneDoubles);
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
  LaneDoubles low, high;
  widenLanes(cw * value, low, high);
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

// Columns [a, b) of a pair row (the smaller kernel's row, then `width` floats on the larger's),
// the two blended with weights wInner and wOuter eight columns at a time; each column's blend times
// the sample's lanes is one addition.
inline void addLanePairValues(float* sums, LaneFloats values, float wInner, float wOuter, const float* pairRow,
                              int width, int a, int b) {
  for (int j = a; j < b; j += 8) {
    LaneFloats inner, outer;
    std::memcpy(&inner, pairRow + j, sizeof inner);
    std::memcpy(&outer, pairRow + width + j, sizeof outer);
    float blend[kLanes];
    const LaneFloats blended = inner * wInner + outer * wOuter;
    std::memcpy(blend, &blended, sizeof blend);
    const int n = std::min(8, b - j);
    float* at = sums + static_cast<std::ptrdiff_t>(j) * static_cast<std::ptrdiff_t>(kLanes);
    for (int i = 0; i < n; ++i)
      addLaneValue(at + static_cast<std::ptrdiff_t>(i) * static_cast<std::ptrdiff_t>(kLanes), values, blend[i]);
  }
}

// A pair row (KernelPairRowShape), as addLaneRow does a row of one kernel.
__attribute__((always_inline)) inline void addLanePairRow(float* sums, double* differences, LaneFloats values,
                                                          float wInner, float wOuter, const float* pairRow,
                                                          int width, const KernelPairRowShape& row, int a,
                                                          int runStart, int runEnd, int b) {
  addLanePairValues(sums, values, wInner, wOuter, pairRow, width, a, runStart);
  if (runEnd > runStart)
    addLaneRun(differences, values, row.inner * wInner + row.outer * wOuter, runStart, runEnd);
  addLanePairValues(sums, values, wInner, wOuter, pairRow, width, runEnd, b);
}

// Where a kernel of half h and `width` columns, centred on the sample, lands in the band: output
// rows [lo, hi], kernel column j on output column x0 + j, and of those, [j0, j1) in the band.
struct LaneWindow {
  int lo, hi;
  long long x0;
  int j0, j1;
  bool empty() const { return lo > hi || j0 >= j1; }
  bool whole(int width) const { return j0 == 0 && j1 == width; }
};

inline LaneWindow laneWindow(const SourceSample& s, const BandSpan& span, int h, int width) {
  LaneWindow w;
  w.lo = std::max(span.lo, s.y - h);
  w.hi = std::min(span.hi, s.y + h);
  w.x0 = static_cast<long long>(s.x) - h;
  w.j0 = static_cast<int>(std::max<long long>(0, span.left - w.x0));
  w.j1 = static_cast<int>(std::min<long long>(width, span.right - w.x0));
  return w;
}

// Walks the band's rows a kernel of `height` rows lands on, top kernel row first, calling
// add(kernel row, sums, differences, a, runStart, runEnd, b) for each row with values in the band:
// the row's shape as it stands when the whole width lands (as it mostly does), else clamped to
// [j0, j1). Marks the rows it adds to as used.
template <class Shape, class AddRow>
__attribute__((always_inline)) inline void walkLaneRows(const LaneBand& lanes, unsigned slice,
                                                        const SourceSample& s, const LaneWindow& w, int h,
                                                        int width, const Shape* shapes, const AddRow& add) {
  // Row y takes kernel row s.y - y + h; the next output row's lines are a fixed step on.
  const std::ptrdiff_t laneStep = static_cast<std::ptrdiff_t>(w.x0) * static_cast<std::ptrdiff_t>(kLanes);
  float* sums = lanes.sums(w.lo, slice) + laneStep;
  double* differences = lanes.differences(w.lo, slice) + laneStep;
  unsigned char* used = lanes.used(w.lo, slice);
  const std::ptrdiff_t sumsStep = lanes.sumsRowStep(), differencesStep = lanes.differencesRowStep();
  const int firstRow = s.y - w.lo + h;
  if (w.whole(width)) {
    for (int k = firstRow; k >= firstRow - (w.hi - w.lo); --k, sums += sumsStep, differences += differencesStep, ++used) {
      const Shape& row = shapes[k];
      if (row.first >= row.last)
        continue;
      *used = 1;
      add(k, sums, differences, row.first, row.runStart, row.runEnd, row.last);
    }
    return;
  }
  for (int k = firstRow; k >= firstRow - (w.hi - w.lo); --k, sums += sumsStep, differences += differencesStep, ++used) {
    const Shape& row = shapes[k];
    const int a = std::max(row.first, w.j0), b = std::min(row.last, w.j1);
    if (a >= b)
      continue;
    *used = 1;
    const int runStart = std::min(std::max(row.runStart, a), b);
    const int runEnd = std::min(std::max(row.runEnd, runStart), b);
    add(k, sums, differences, a, runStart, runEnd, b);
  }
}

// Whether every product of a pass with weight w and the entry's values fits a difference row
// (false too when one is not finite).
inline bool fitsDifferenceRow(const float* values, std::size_t count, float w, const Kernel& entry) {
  const float limit = kLargestRunProduct / std::max(1.0f, entry.largest);
  bool fits = w < limit;
  for (std::size_t k = 0; k < count; ++k)
    fits = fits && std::fabs(values[k] * w) < limit;
  return fits;
}

// Each listed channel's colour times the pass's weight, then the weight.
inline void passLanes(LaneFloats& cw, const float* values, std::size_t count, float w) {
  cw = LaneFloats{};
  for (std::size_t k = 0; k < count; ++k)
    cw[k] = values[k] * w;
  cw[count] = w;
}

// One pass of a blend, its kernel rows through their runs; a sample whose products are not fit
// for a difference row adds every value of every row, zeros too, as the straightforward rows do
// (a NaN or an infinity spreads over the whole square).
__attribute__((always_inline)) inline void splatLanePass(const SourceSample& s, const BandSpan& span,
                                                         const LaneBand& lanes, const Kernel& entry,
                                                         const float* K, const float* values, std::size_t count,
                                                         float w) {
  const int h = entry.half, width = entry.width;
  const LaneWindow window = laneWindow(s, span, h, width);
  if (!K || window.empty())
    return;
  LaneFloats cw;
  passLanes(cw, values, count, w);
  if (entry.rowShapes.size() == static_cast<std::size_t>(entry.height) && fitsDifferenceRow(values, count, w, entry)) {
    walkLaneRows(lanes, s.slice, s, window, h, width, entry.rowShapes.data(),
                 [&](int k, float* sums, double* differences, int a, int runStart, int runEnd, int b) {
                   addLaneRow(sums, differences, cw, K + static_cast<std::ptrdiff_t>(k) * width,
                              entry.rowShapes[static_cast<std::size_t>(k)].value, a, runStart, runEnd, b);
                 });
    return;
  }
  const std::ptrdiff_t laneStep = static_cast<std::ptrdiff_t>(window.x0) * static_cast<std::ptrdiff_t>(kLanes);
  float* sums = lanes.sums(window.lo, s.slice) + laneStep;
  unsigned char* used = lanes.used(window.lo, s.slice);
  const float* Krow = K + static_cast<std::ptrdiff_t>(s.y - window.lo + h) * width;
  for (int y = window.lo; y <= window.hi; ++y, Krow -= width, sums += lanes.sumsRowStep(), ++used) {
    *used = 1;
    addLaneValues(sums, cw, Krow, window.j0, window.j1);
  }
}

// Both passes of a blend between an entry and the one two sizes up, the smaller laid over the
// larger, so each column and row is visited once; false (nothing added) when the pair cannot be
// taken this way. `outerPlane` is the larger entry's plane for the listed channels (null when it
// has none); the pair plane holds its values too.
__attribute__((always_inline)) inline bool splatLanePair(const SourceSample& s, const BandSpan& span,
                                                         const LaneBand& lanes, const Kernel& inner,
                                                         const Kernel& outer, const float* outerPlane,
                                                         const float* values, std::size_t count,
                                                         const KernelBlend& blend) {
  const int h = outer.half, width = outer.width;
  if (!outerPlane || inner.pairShapes.size() != static_cast<std::size_t>(outer.height) ||
      !fitsDifferenceRow(values, count, blend.pass[0].weight, inner) ||
      !fitsDifferenceRow(values, count, blend.pass[1].weight, outer))
    return false;
  const LaneWindow window = laneWindow(s, span, h, width);
  if (window.empty())
    return true;
  // Both passes' lanes are the colours times their weights: the blend of the two kernels' values
  // times the colours is the same sum, rounded in another order.
  LaneFloats colours;
  passLanes(colours, values, count, 1.0f);
  const KernelPairRowShape* shapes = inner.pairShapes.data();
  const float* pairPlane = inner.pairPlane.data();
  const float wInner = blend.pass[0].weight, wOuter = blend.pass[1].weight;
  walkLaneRows(lanes, s.slice, s, window, h, width, shapes,
               [&](int k, float* sums, double* differences, int a, int runStart, int runEnd, int b) {
                 addLanePairRow(sums, differences, colours, wInner, wOuter, pairPlane + pairInnerRow(width, k), width,
                                shapes[k], a, runStart, runEnd, b);
               });
  return true;
}

// The sample into rows [span.lo, span.hi] over columns [span.left, span.right) of a lane band:
// the same products as splat with shared weights, each channel's colour in its lane and the weight
// after them. `planes` gives each bank entry's plane (all channels alike).
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
  const auto plane = [&](unsigned e) { return planes[static_cast<std::size_t>(e) * count]; };
  if (blend.count == 2 && blend.pass[1].entry == blend.pass[0].entry + 2 &&
      splatLanePair(s, span, lanes, bank[blend.pass[0].entry], bank[blend.pass[1].entry],
                    plane(blend.pass[1].entry), values, count, blend))
    return;
  for (unsigned pass = 0; pass < blend.count; ++pass) {
    const unsigned e = blend.pass[pass].entry;
    splatLanePass(s, span, lanes, bank[e], plane(e), values, count, blend.pass[pass].weight);
  }
}

}  // namespace splatcore
}  // namespace vorel
