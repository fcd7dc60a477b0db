#pragma once
// Turns a deep pixel into non-overlapping pieces, nearest first, for the front-to-back walk.

#include <cstddef>

#include "DDImage/ChannelSet.h"
#include "DDImage/DeepPixel.h"
#include "DDImage/DeepPlane.h"

namespace vorel {

// The depth a deep piece is measured at: its back when the depth knob names deep.back, else its
// front (the knob's default, depth.Z, included).
inline DD::Image::Channel sampleDepthChannel(DD::Image::Channel depthChannel) {
  return depthChannel == DD::Image::Chan_DeepBack ? DD::Image::Chan_DeepBack : DD::Image::Chan_DeepFront;
}

void prepareDeepSamples(const DD::Image::ChannelSet& channels, const DD::Image::DeepPixel& pixel,
                        DD::Image::DeepOutPixel& out);

// Consumes sample `cursor` and any chain of samples it overlaps; returns the back of sample
// `cursor` as it was on entry, and leaves `cursor` on the deepest sample consumed.
float splitDeepSample(const DD::Image::ChannelSet& channels, const DD::Image::DeepPixel& pixel,
                      DD::Image::DeepOutPixel& out, std::size_t& cursor);

void pushDeepPiece(const DD::Image::ChannelSet& channels, const DD::Image::DeepPixel& pixel,
                   DD::Image::DeepOutPixel& out, std::size_t sampleIndex, float pieceFront,
                   float pieceBack, float fraction);

}  // namespace vorel
