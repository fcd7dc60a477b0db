#pragma once
// What splatPixel needs from the node, gathered once per engine call, so that the per-source-pixel
// work walks a short list of channels instead of a 1024-slot channel set.

#include <vector>

#include "DDImage/Box.h"
#include "DDImage/ChannelSet.h"
#include "engines/Slices.h"
#include "lens/Kernel.h"
#include "node/NodeParameters.h"

class tzVorel;

namespace vorel {

struct SplatContext {
  // `channels` is the row's request; only those also in the node's vorelChannels are kept.
  SplatContext(const tzVorel& node, const DD::Image::ChannelSet& channels);
  // The same from the pieces, for code that holds them without a node.
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
};

// Copies the shared channel's weights to the other channels of every slice over [x, r).
void shareWeights(const SplatContext& context, const SliceAccumulators& slices, int x, int r);

// splatPixel with the node's part and the channel walk prepared by the caller: same arguments in
// the same order (less the channel set), same sums. Allocates nothing.
void splatPixel(const SplatContext& context, int pixelX, int pixelY, int rowLeft, int rowY,
                int rowRight, int sourceX, int sourceY, float coc, unsigned slice,
                float sampleWeight, const float* colours, const ChannelPlanes* sliceColourPlanes,
                const ChannelPlanes* sliceWeightPlanes, float bloomMatte, float chromaticMatte);

}  // namespace vorel
