#pragma once
// The skeleton both row engines share: the pass-through copy of input 0, the band of rows the
// requested row belongs to (served from the frame's band cache, or the row alone when the frame
// has none or the row lies outside the box), one accumulator per row, slice and requested effect
// channel, the spreading of every source sample within reach, and the merge. The engines differ
// only in how they make their source samples.

#include <algorithm>
#include <cstddef>

#include "DDImage/ChannelSet.h"
#include "DDImage/Iop.h"
#include "DDImage/Row.h"
#include "engines/BandCache.h"
#include "engines/Frame.h"
#include "engines/Slices.h"
#include "engines/SplatContext.h"

namespace vorel {

// One strip of a band: `spreadSources(context, area, accumulators)` splats every source sample
// within reach of the area; false means the render is aborted, and nothing is merged.
template <class SpreadSources>
bool defocusBand(const Frame& frame, const SplatContext& context, const BandArea& area,
                 BandAccumulators& accumulators, const BandCache::StripOutput& out,
                 const SpreadSources& spreadSources) {
  accumulators.reset(area.y0, area.y1, area.left, area.right, accumulatorSlices(frame.params.correctiveSlices),
                     context.channelList.size(), context.laneForm);
  if (!spreadSources(context, area, static_cast<const BandAccumulators&>(accumulators)))
    return false;
  if (LaneBand* lanes = accumulators.lanes())
    lanes->merge(out);
  else
    mergeBand(accumulators, context.sharedWeightChannel != DD::Image::Chan_Black, out);
  return true;
}

// Row y over [x, r). `side` tells the passes of one engine apart in the band cache;
// `narrowStrips` says whether the sources can tell which pixels reach a strip of columns (without,
// a strip would read and work out every pixel of the request, and a band is one strip).
template <class SpreadSources>
void defocusRow(const Frame& frame, int y, int x, int r, const DD::Image::ChannelSet& channels,
                DD::Image::Row& out, int side, bool narrowStrips, const SpreadSources& spreadSources) {
  const NodeParameters& p = frame.params;
  // Channels outside the effect are finished here; the merge overwrites the others.
  if (DD::Image::Iop* input = frame.inputs.source) {
    DD::Image::Row inRow(x, r);
    inRow.get(*input, y, x, r, channels);
    out.copy(inRow, channels, x, r);
  }

  // Only requested channels are ever spread or merged: the others need no accumulators.
  DD::Image::ChannelSet spread = channels;
  spread &= p.vorelChannels;
  if (spread.empty() || r <= x)
    return;
  const SplatContext context(frame, channels);
  auto compute = [&](const BandArea& area, BandAccumulators& accumulators, const BandCache::StripOutput& o) {
    return defocusBand(frame, context, area, accumulators, o, spreadSources);
  };

  const DD::Image::Box& box = frame.box;
  if (frame.bands && y >= box.y() && y < box.t()) {
    frame.bands->serveRow(y, box.y(), box.t(), BandKey{0, x, r, side, channels}, narrowStrips, context.channelList,
                          compute, out);
    return;
  }
  BandAccumulators accumulators;
  compute(BandArea{y, y + 1, x, r, x, r}, accumulators,
          [&](int, std::size_t k) { return out.writable(context.channelList[k]); });
}

// How many rows apart a source row and the output row are.
inline int rowDistance(int sourceY, int y) { return sourceY > y ? sourceY - y : y - sourceY; }

// How many rows a source row is from the nearest row of [y0, y1).
inline int bandDistance(int sourceY, int y0, int y1) {
  return sourceY < y0 ? y0 - sourceY : sourceY >= y1 ? sourceY - (y1 - 1) : 0;
}

// Far more than any kernel reaches: how far a pixel may reach when no frame table says.
constexpr int kReachUnknown = 1 << 29;

// The source columns of [first, last) whose kernels, reaching `reach` columns, can land in the
// strip; empty when none can.
struct SourceColumns {
  int left, right;
};
inline SourceColumns stripSourceColumns(const BandArea& area, int first, int last, long long reach) {
  return {static_cast<int>(std::max<long long>(first, area.left - reach)),
          static_cast<int>(std::min<long long>(last, area.right + reach))};
}

// Whether a pixel at column x reaching `reach` reaches the band's nearest row, `distance` away,
// and the strip's columns.
inline bool reachesStrip(const BandArea& area, int x, int reach, int distance) {
  return reach >= distance && x + reach >= area.left && x - reach < area.right;
}

// The band's rows a sample at row sourceY adds to: within `radius`, as a row by itself would
// read it, and within its reach.
inline BandSpan bandRowsFrom(const BandArea& area, int radius, int sourceY, int reach) {
  const int rows = std::min(radius, reach);
  return {area.left, area.right, std::max(area.y0, sourceY - rows), std::min(area.y1 - 1, sourceY + rows)};
}

}  // namespace vorel
