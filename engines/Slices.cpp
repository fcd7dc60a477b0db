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

void mergeSlices(const SliceAccumulators& slices, Row& out, int x, int r, const ChannelSet& channels,
                 const ChannelSet& vorelChannels) {
  if (r <= x)
    return;
  const std::size_t sliceCount = slices.colourPlanes.size();
  // How much of each output pixel the slices merged so far have covered; index X - x.
  std::vector<float> coverage(static_cast<std::size_t>(r - x));

  foreach (c, channels) {
    if (!vorelChannels.contains(c))
      continue;
    float* o = out.writable(c);
    std::fill(o + x, o + r, 0.0f);
    std::fill(coverage.begin(), coverage.end(), 0.0f);

    // Near to far: each slice gets the share of the pixel that the nearer ones left free, and one
    // with more weight than that is scaled down as a whole, colour and weight alike.
    for (std::size_t s = 0; s < sliceCount; ++s) {
      const float* colour = slices.colourPlanes[s][c];
      const float* weights = slices.weightPlanes[s][c];
      if (!colour || !weights)
        continue;
      for (int X = x; X < r; ++X) {
        float& covered = coverage[static_cast<std::size_t>(X - x)];
        const float remaining = 1.0f - covered;
        float weight = weights[X];
        float scale = 1.0f;
        if (weight > remaining) {
          scale = remaining / weight;
          weight = remaining;
        }
        o[X] += scale * colour[X];
        covered += weight;
      }
    }

    for (int X = x; X < r; ++X) {
      const float covered = coverage[static_cast<std::size_t>(X - x)];
      if (covered > 0.0f)
        o[X] = o[X] / covered;
    }
  }
}

}  // namespace vorel
