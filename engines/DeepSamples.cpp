#include "engines/DeepSamples.h"

#include "DDImage/Channel.h"

using namespace DD::Image;

namespace vorel {

namespace {

// Below this thickness a sample counts as a point and is never cut.
constexpr float kThinSample = 1e-6f;

}  // namespace

void pushDeepPiece(const ChannelSet& channels, const DeepPixel& pixel, DeepOutPixel& out,
                   std::size_t sampleIndex, float pieceFront, float pieceBack, float fraction) {
  foreach (c, channels) {
    if (c == Chan_Z || c == Chan_DeepFront)
      out.push_back(pieceFront);
    else if (c == Chan_DeepBack)
      out.push_back(pieceBack);
    else
      out.push_back(fraction * pixel.getOrderedSample(sampleIndex, c));
  }
}

// The chain of overlapping neighbours is naturally recursive: a sample pushes its head, lets the
// sample behind it (and that one's chain) go next, then pushes its own tail. Pixels can hold many
// thousands of overlapping samples, so the recursion is unrolled. Its frames are the consecutive
// sample indices from `cursor` down to the sample that ended the chain, so the "stack" needs no
// storage: the unwinding walks those indices back up and re-reads each sample's span.
float splitDeepSample(const ChannelSet& channels, const DeepPixel& pixel, DeepOutPixel& out,
                      std::size_t& cursor) {
  const std::size_t first = cursor;

  // Descend: push the head of every sample that reaches into the one behind it.
  float innerBack = 0.0f;
  for (;;) {
    const std::size_t i = cursor;
    const float front = pixel.getOrderedSample(i, Chan_DeepFront);
    const float back = pixel.getOrderedSample(i, Chan_DeepBack);
    const float thickness = back - front;
    if (kThinSample > thickness || i == 0) {
      pushDeepPiece(channels, pixel, out, i, front, back, 1.0f);
      innerBack = back;
      break;
    }
    const float nextFront = pixel.getOrderedSample(i - 1, Chan_DeepFront);
    if (!(back > nextFront)) {
      pushDeepPiece(channels, pixel, out, i, front, back, 1.0f);
      innerBack = back;
      break;
    }
    pushDeepPiece(channels, pixel, out, i, front, nextFront, (nextFront - front) / thickness);
    --cursor;
  }

  // Unwind, nearest frame last: each sample that was cut pushes what lies behind its neighbour.
  // `innerBack` is always the back of the neighbour alone, never of the whole chain.
  for (std::size_t i = cursor; i < first;) {
    ++i;
    const float front = pixel.getOrderedSample(i, Chan_DeepFront);
    const float back = pixel.getOrderedSample(i, Chan_DeepBack);
    const float thickness = back - front;
    if (back > innerBack)
      pushDeepPiece(channels, pixel, out, i, innerBack, back, (back - innerBack) / thickness);
    innerBack = back;
  }
  return innerBack;
}

void prepareDeepSamples(const ChannelSet& channels, const DeepPixel& pixel, DeepOutPixel& out) {
  const std::size_t n = pixel.getSampleCount();
  if (n == 0)
    return;
  std::size_t cursor = n - 1;
  for (;;) {
    splitDeepSample(channels, pixel, out, cursor);
    if (cursor == 0)
      break;
    --cursor;
  }
}

}  // namespace vorel
