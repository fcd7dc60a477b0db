#include "lens/Scan.h"

#include <cmath>
#include <cstdint>
#include <vector>

#include "DDImage/Box.h"
#include "DDImage/Channel.h"
#include "DDImage/ChannelSet.h"
#include "DDImage/DeepOp.h"
#include "DDImage/DeepPixel.h"
#include "DDImage/DeepPlane.h"
#include "DDImage/Iop.h"
#include "DDImage/Row.h"
#include "lens/BoxArea.h"
#include "lens/CircleOfConfusion.h"
#include "lens/ReadWindow.h"

using namespace DD::Image;

namespace vorel {

namespace {

// The CoC rounded up to a whole pixel. A NaN counts as nothing and values beyond the integer
// range saturate, so a runaway CoC still trips the size cap instead of wrapping around.
int roundedUpCoC(float coc) {
  const float up = ceilf(coc);
  if (!(up == up))
    return 0;
  if (up >= 2147483648.0f)
    return INT32_MAX;
  if (up <= -2147483648.0f)
    return INT32_MIN;
  return static_cast<int>(up);
}

// One step of the walk over a stretch of the format that reads the same pixel again and again:
// outside the input's box every read repeats an edge pixel. A step only ever raises the running
// maximum and depends on nothing else, so once a repeat changes nothing no later one will, and
// the stretch costs what its distinct pixels cost, with the same result as the whole walk.
template <typename Step>
void repeatStep(long long times, int& maxCoC, const Step& step) {
  for (long long i = 0; i < times; ++i) {
    const int before = maxCoC;
    step(maxCoC);
    if (maxCoC == before)
      return;
  }
}

// A stretch of reads [lo, hi) of the format along one axis, clamped into the box's [boxLo, boxHi):
// what lies before the box reads its first pixel, what lies beyond it its last.
struct ClampedStretch {
  long long before = 0, after = 0;  // reads of the first and of the last pixel of the box
  int first = 0, last = 0;          // the box's pixels read once each: [first, last)
  int low = 0, high = 0;            // the pixels read at all: [low, high)
};

ClampedStretch clampedStretch(int lo, int hi, int boxLo, int boxHi) {
  ClampedStretch s;
  if (hi <= lo)
    return s;
  s.before = std::max(0LL, static_cast<long long>(std::min(hi, boxLo)) - lo);
  s.after = std::max(0LL, static_cast<long long>(hi) - std::max(lo, boxHi));
  s.first = std::max(lo, boxLo);
  s.last = std::max(s.first, std::min(hi, boxHi));
  s.low = clampInto(lo, boxLo, boxHi);
  s.high = clampInto(hi - 1, boxLo, boxHi) + 1;
  return s;
}

// Every read of one row of the format, in the walk's order: the box's left edge pixel for the
// columns before it, the box's own columns, its right edge pixel for the columns beyond it.
void scanFlatRow(const NodeParameters& p, Iop& source, int y, const ClampedStretch& columns, int& maxCoC) {
  Row row(columns.low, columns.high);
  ChannelSet depthOnly;
  depthOnly += p.depthChannel;
  row.get(source, y, columns.low, columns.high, depthOnly);
  const float* depth = row[p.depthChannel];
  if (!depth)
    return;
  const std::vector<float> noSlices;
  auto pixel = [&](int x) {
    return [&, x](int& m) {
      const int c = roundedUpCoC(lensSample(p, noSlices, m, depth[x], DepthSource::FlatChannel).coc);
      if (c > m)
        m = c;
    };
  };
  repeatStep(columns.before, maxCoC, pixel(columns.low));
  for (int x = columns.first; x < columns.last; ++x)
    pixel(x)(maxCoC);
  repeatStep(columns.after, maxCoC, pixel(columns.high - 1));
}

// The format's rows and columns as the host reads them from input 0: only what differs is read.
void scanFlat(const NodeParameters& p, const Box& format, Iop& source, int& maxCoC) {
  Box box = source.info().box();
  // An input without data reads 0 everywhere: any one pixel stands for all of them.
  if (isEmptyArea(box))
    box = Box(format.x(), format.y(), format.x() + 1, format.y() + 1);
  const ClampedStretch columns = clampedStretch(format.x(), format.r(), box.x(), box.r());
  const ClampedStretch rows = clampedStretch(format.y(), format.t(), box.y(), box.t());
  auto row = [&](int y) { return [&, y](int& m) { scanFlatRow(p, source, y, columns, m); }; };
  repeatStep(rows.before, maxCoC, row(rows.low));
  for (int y = rows.first; y < rows.last; ++y)
    row(y)(maxCoC);
  repeatStep(rows.after, maxCoC, row(rows.high - 1));
}

// False when the deep input reports the render aborted.
bool scanDeepRow(const NodeParameters& p, DeepOp& deep, int y, int left, int right, int& maxCoC) {
  ChannelSet depths;
  depths += Chan_DeepFront;
  depths += Chan_DeepBack;
  DeepPlane plane;
  if (!deep.deepEngine(Box(left, y, right, y + 1), depths, plane))
    return false;
  const std::vector<float> noSlices;
  for (int x = left; x < right; ++x) {
    const DeepPixel pixel = plane.getPixel(y, x);
    const std::size_t count = pixel.getSampleCount();
    if (count == 0)
      continue;
    // The highest ordered index is the nearest sample; only it decides the pixel's reach.
    const float d = pixel.getOrderedSample(count - 1, Chan_DeepBack);
    const int c = roundedUpCoC(lensSample(p, noSlices, maxCoC, d, DepthSource::DeepNearest).coc);
    if (c > maxCoC)
      maxCoC = c;
  }
  return true;
}

// The deep window's pixels with samples, in the walk's order: those without add nothing, so only
// the deep data is read.
void scanDeep(const NodeParameters& p, const Box& format, DeepOp& deep, int& maxCoC) {
  const Box& data = deep.deepInfo().box();
  Box walked = deepReadWindow(format, data);
  if (isEmptyArea(walked))
    return;
  walked = commonArea(walked, data);
  for (int y = walked.y(); walked.r() > walked.x() && y < walked.t(); ++y)
    if (!scanDeepRow(p, deep, y, walked.x(), walked.r(), maxCoC))
      return;
}

}  // namespace

ScanResult scanMaxCoC(const NodeParameters& p, const Box& format, Iop* source, DeepOp* deep) {
  ScanResult result;
  int maxCoC = 0;
  if (!isEmptyArea(format)) {
    if (p.hasDeepInput) {
      if (deep)
        scanDeep(p, format, *deep, maxCoC);
    } else if (source) {
      scanFlat(p, format, *source, maxCoC);
    }
  }

  // At a proxy scale the cap shrinks with the image.
  const int limit = kernelSizeLimit(p.max_kernelsize, p.uiScale);
  result.found = maxCoC;
  if (maxCoC > limit) {
    result.capped = true;
    maxCoC = limit;
  }
  result.maxCoC = maxCoC;
  result.kernelRadius = kernelRadiusFor(maxCoC, true);
  return result;
}

}  // namespace vorel
