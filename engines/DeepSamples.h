#pragma once
// Turns a deep pixel into non-overlapping pieces, nearest first, for the front-to-back walk.

#include <cstddef>

#include "DDImage/ChannelSet.h"
#include "DDImage/DeepPixel.h"

namespace vorel {

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
