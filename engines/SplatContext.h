#pragma once
// What splatPixel needs from the node, gathered once per engine call, so that the per-source-pixel
// work walks a short list of channels instead of a 1024-slot channel set.

#include <vector>

#include "DDImage/Box.h"
#include "DDImage/ChannelSet.h"
#include "engines/Slices.h"
#include "lens/Kernel.h"
#include "lens/NodeParameters.h"

namespace vorel {

struct Frame;

// One source sample to spread: where its colour comes from, where it spreads from, and what it
// carries.
struct SourceSample {
  int pixelX, pixelY;    // the pixel read, clamped into the format: where bloom is measured
  int x, y;              // the position the kernel is centred on
  float coc;             // after the matte and the floor of 1.0
  unsigned slice;
  float weight;          // 1 for a flat pixel; a deep piece's share of the pixel
  const float* colours;  // indexed by channel number
  float bloomMatte, chromaticMatte;
};

// The output row the accumulators stand for: columns [left, right) of row y.
struct RowSpan {
  int left, y, right;
};

// The output rows a sample may add to, [lo, hi], over columns [left, right).
struct BandSpan {
  int left, right, lo, hi;
};

struct SplatContext {
  // `channels` is the row's request; only those also in the frame's vorelChannels are kept.
  SplatContext(const Frame& frame, const DD::Image::ChannelSet& channels);
  // The same from the pieces, each channel with weights of its own.
  SplatContext(const NodeParameters& params, const std::vector<Kernel>& kernelBank,
               const DD::Image::Box& format, const DD::Image::ChannelSet& channels);

  const NodeParameters& params;
  const Kernel* bank;
  unsigned bankSize;
  DD::Image::Box format;
  // Ascending: the channels of the request that have kernel planes and accumulators.
  std::vector<DD::Image::Channel> channelList;
  // The plane of each bank entry for each channel of channelList: [entry * size + k], or null.
  std::vector<const float*> kernelPlanes;
  // When every channel lands at the same place with the same kernel values, the weights of all
  // channels are the same sums: only this channel accumulates them, and shareWeights copies them
  // to the others before the merge. Chan_Black when each channel keeps its own.
  DD::Image::Channel sharedWeightChannel = DD::Image::Chan_Black;
  // Every channel lands at the same place with the same kernel values, and they fit the lanes of
  // a lane band (LaneBand.h) beside their one weight: bands are accumulated in lane form.
  bool laneForm = false;
};

// Copies the shared channel's weights to the other channels of every slice over [x, r).
void shareWeights(const SplatContext& context, const SliceAccumulators& slices, int x, int r);

// Spreads one source sample into the slice accumulators of one output row. Allocates nothing.
void splatPixel(const SplatContext& context, const SourceSample& sample, const RowSpan& row,
                const SliceAccumulators& slices);
// The same into rows [span.lo, span.hi] of a band, the sample's values worked out once for all.
void splatBand(const SplatContext& context, const SourceSample& sample, const BandSpan& span,
               const BandAccumulators& band);

}  // namespace vorel
