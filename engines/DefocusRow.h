#pragma once
// The skeleton both row engines share: the pass-through copy of input 0, one accumulator per
// slice for the requested effect channels, the spreading of every source sample within reach,
// the weights shared between channels and the merge. The engines differ only in how they make
// their source samples.

#include "DDImage/ChannelSet.h"
#include "DDImage/Iop.h"
#include "DDImage/Row.h"
#include "engines/Frame.h"
#include "engines/Slices.h"
#include "engines/SplatContext.h"

namespace vorel {

// `spreadSources(context, span, slices)` splats every source sample of the row; false means the
// render is aborted, and the row is left unfinished.
template <class SpreadSources>
void defocusRow(const Frame& frame, int y, int x, int r, const DD::Image::ChannelSet& channels,
                DD::Image::Row& out, const SpreadSources& spreadSources) {
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
  if (spread.empty())
    return;
  SliceAccumulators slices(p.correctiveSlices, x, r, spread);
  const SplatContext context(frame, channels);
  if (!spreadSources(context, RowSpan{x, y, r}, slices))
    return;
  shareWeights(context, slices, x, r);
  mergeSlices(slices, out, x, r, channels, p.vorelChannels);
}

// How many rows apart a source row and the output row are.
inline int rowDistance(int sourceY, int y) { return sourceY > y ? sourceY - y : y - sourceY; }

}  // namespace vorel
