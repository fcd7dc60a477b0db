#pragma once
// Spreads one source pixel (or deep piece) into the accumulators of one output row.

#include "DDImage/ChannelSet.h"
#include "engines/Slices.h"
#include "lens/NodeParameters.h"

namespace vorel {

// splatPixel itself, with the channel walk prepared once per row, is in engines/SplatContext.h.

// The diagonal source offset of channel `c` under chromatic aberration (already truncated:
// returns the moved coordinate for `position`).
int chromaticShift(const NodeParameters& p, int position, DD::Image::Channel c, float spread);

// P[j] += cw * K[j]; Q[j] += w * K[j] for j in [0, count): the hot loop, one sweep for both.
void accumulateKernelRow(float* P, float* Q, const float* K, float cw, float w, int count);
// P[j] += cw * K[j]: a channel whose weights another channel with the same kernel accumulates.
void accumulateKernelRowColour(float* P, const float* K, float cw, int count);

}  // namespace vorel
