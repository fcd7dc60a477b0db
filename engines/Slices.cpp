#include "engines/Slices.h"

#include <algorithm>

using DD::Image::Channel;
using DD::Image::ChannelSet;
using DD::Image::Row;

namespace vorel {

SliceAccumulators::SliceAccumulators(int slices, int x, int r, const ChannelSet& vorelChannels) {
  // Every slice index the lookup can give must have tables, even for a slice count below 1.
  const std::size_t count = static_cast<std::size_t>(std::max(1, slices));
  const int right = std::max(x, r);
  colourRows.reserve(count);
  weightRows.reserve(count);
  colourPlanes.assign(count, ChannelPlanes{});
  weightPlanes.assign(count, ChannelPlanes{});
  for (std::size_t s = 0; s < count; ++s) {
    colourRows.push_back(std::make_unique<Row>(x, right));
    weightRows.push_back(std::make_unique<Row>(x, right));
    foreach (c, vorelChannels) {
      float* colour = colourRows[s]->writable(c);
      float* weight = weightRows[s]->writable(c);
      std::fill(colour + x, colour + right, 0.0f);
      std::fill(weight + x, weight + right, 0.0f);
      colourPlanes[s][c] = colour;
      weightPlanes[s][c] = weight;
    }
  }
}

void BandAccumulators::reset(int y0, int y1, int left, int right, std::size_t slices, std::size_t channels,
                             bool lanes) {
  lanesInUse_ = lanes;
  if (lanes) {
    lanes_.reset(y0, y1, left, right, slices, channels);
    return;
  }
  y0_ = y0;
  y1_ = std::max(y0, y1);
  left_ = left;
  width_ = static_cast<std::size_t>(std::max(0, right - left));
  constexpr std::size_t kLineFloats = 16;
  stride_ = (width_ + kLineFloats - 1) / kLineFloats * kLineFloats;
  if ((stride_ / kLineFloats) % 2 == 0)
    stride_ += kLineFloats;
  slices_ = slices;
  channels_ = channels;
  const std::size_t count = static_cast<std::size_t>(y1_ - y0_) * slices * channels * 2 * stride_;
  // assign keeps the capacity: a band no larger than the last allocates nothing.
  values_.assign(count, 0.0f);
}

void mergeSliceColumns(const float* const* colours, const float* const* sliceWeights, std::size_t sliceCount,
                       float* o, float* coverage, int x, int r) {
  if (r <= x)
    return;
  std::fill(o + x, o + r, 0.0f);
  std::fill(coverage, coverage + (r - x), 0.0f);
  for (std::size_t s = 0; s < sliceCount; ++s) {
    const float* colour = colours[s];
    const float* weights = sliceWeights[s];
    if (!colour || !weights)
      continue;
    for (int X = x; X < r; ++X)
      o[X] += takeSliceShare(coverage[X - x], weights[X]) * colour[X];
  }
  for (int X = x; X < r; ++X) {
    const float covered = coverage[X - x];
    if (covered > 0.0f)
      o[X] = o[X] / covered;
  }
}

void mergeBand(const BandAccumulators& band, bool sharedWeights,
               const std::function<float*(int y, std::size_t k)>& out) {
  const int x = band.left(), r = band.right();
  if (r <= x)
    return;
  const std::size_t sliceCount = band.slices();
  std::vector<float> coverage(static_cast<std::size_t>(r - x));
  std::vector<const float*> colours(sliceCount), weights(sliceCount);
  for (int y = band.y0(); y < band.y1(); ++y)
    for (std::size_t k = 0; k < band.channels(); ++k) {
      for (std::size_t s = 0; s < sliceCount; ++s) {
        colours[s] = band.colour(y, s, k);
        weights[s] = band.weight(y, s, sharedWeights ? 0 : k);
      }
      mergeSliceColumns(colours.data(), weights.data(), sliceCount, out(y, k), coverage.data(), x, r);
    }
}

void mergeSlices(const SliceAccumulators& slices, Row& out, int x, int r, const ChannelSet& channels,
                 const ChannelSet& vorelChannels) {
  if (r <= x)
    return;
  const std::size_t sliceCount = slices.colourPlanes.size();
  std::vector<float> coverage(static_cast<std::size_t>(r - x));
  std::vector<const float*> colours(sliceCount), weights(sliceCount);
  foreach (c, channels) {
    if (!vorelChannels.contains(c))
      continue;
    for (std::size_t s = 0; s < sliceCount; ++s) {
      colours[s] = slices.colourPlanes[s][c];
      weights[s] = slices.weightPlanes[s][c];
    }
    mergeSliceColumns(colours.data(), weights.data(), sliceCount, out.writable(c), coverage.data(), x, r);
  }
}

}  // namespace vorel
