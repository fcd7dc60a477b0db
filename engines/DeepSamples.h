#pragma once
// Turns a deep pixel into non-overlapping pieces, nearest first, for the front-to-back walk.

#include <cstddef>

#include "DDImage/ChannelSet.h"
#include "DDImage/DeepPixel.h"
#include "DDImage/DeepPlane.h"

namespace vorel {

// The channels a deep fetch asks for so that pixels can be cut into pieces and walked: `wanted`
// without depth.Z, with alpha and both deep depths.
inline DD::Image::ChannelSet deepPieceChannels(const DD::Image::ChannelSet& wanted) {
  DD::Image::ChannelSet set = wanted;
  set -= DD::Image::Chan_Z;
  set += DD::Image::Chan_Alpha;
  set += DD::Image::Chan_DeepFront;
  set += DD::Image::Chan_DeepBack;
  return set;
}

// Where the front-to-back walk through a pixel stops.
enum class WalkEnd : int {
  Opaque,     // once less than 1e-6 is left uncovered (the engines)
  Exhausted,  // once nothing is left uncovered (the previews)
};

// The front-to-back walk through `count` pieces, nearest first. Each piece's weight is its alpha
// times what the nearer pieces left uncovered, held as one minus a running sum, so that the
// weights and the remainder add up to 1. visit(i, alpha, weight) returns whether the piece takes
// its share: one passed over leaves it to the pieces behind. Returns the share covered.
template <class AlphaAt, class Visit>
float walkFrontToBack(std::size_t count, WalkEnd end, const AlphaAt& alphaAt, const Visit& visit) {
  float transmittance = 1.0f;
  float covered = 0.0f;
  for (std::size_t i = 0; i < count; ++i) {
    const float alpha = alphaAt(i);
    const float weight = alpha * transmittance;
    if (!visit(i, alpha, weight))
      continue;
    covered += weight;
    transmittance = 1.0f - covered;
    if (end == WalkEnd::Opaque ? 1e-6f > transmittance : 0.0f >= transmittance)
      break;
  }
  return covered;
}

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
