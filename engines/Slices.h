#pragma once
// Per-slice accumulators of one output row, and the merge that lays the slices over one another
// from near to far. Shared by the flat and the deep row engine.

#include <array>
#include <memory>
#include <vector>

#include "DDImage/ChannelSet.h"
#include "DDImage/Row.h"

namespace vorel {

// Float pointers into a slice's rows, indexed by channel number and addressed by absolute column;
// null for channels outside vorelChannels.
using ChannelPlanes = std::array<float*, 1024>;

struct SliceAccumulators {
  // `slices` colour and weight rows over [x, r), zeroed for every channel of `vorelChannels`.
  SliceAccumulators(int slices, int x, int r, const DD::Image::ChannelSet& vorelChannels);
  std::vector<std::unique_ptr<DD::Image::Row>> colourRows, weightRows;
  std::vector<ChannelPlanes> colourPlanes, weightPlanes;
};

// Writes columns [x, r) of `out` for every channel of `channels` that `vorelChannels` holds.
void mergeSlices(const SliceAccumulators& slices, DD::Image::Row& out, int x, int r,
                 const DD::Image::ChannelSet& channels, const DD::Image::ChannelSet& vorelChannels);

}  // namespace vorel
