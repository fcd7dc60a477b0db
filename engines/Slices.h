#pragma once
// Per-slice accumulators of one output row, and the merge that lays the slices over one another
// from near to far. Shared by the flat and the deep row engine.

#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "DDImage/ChannelSet.h"
#include "DDImage/Row.h"
#include "engines/LaneBand.h"

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

// How many slices the accumulators hold: every slice index the lookup can give, even for a slice
// count below 1.
inline std::size_t accumulatorSlices(int slices) { return static_cast<std::size_t>(slices < 1 ? 1 : slices); }

// The accumulators of a band of output rows [y0, y1) over columns [left, right): for each row,
// slice and listed channel k one colour and one weight line, addressed by absolute column. Kept
// and reused from band to band; reset zeroes what the next band uses.
class BandAccumulators {
public:
  // With `lanes` the band is held in lane form (LaneBand.h) and the lines below are not used.
  void reset(int y0, int y1, int left, int right, std::size_t slices, std::size_t channels, bool lanes = false);
  const LaneBand* lanes() const { return lanesInUse_ ? &lanes_ : nullptr; }
  LaneBand* lanes() { return lanesInUse_ ? &lanes_ : nullptr; }
  float* colour(int y, std::size_t slice, std::size_t k) const { return line(y, slice, k) - left_; }
  float* weight(int y, std::size_t slice, std::size_t k) const { return line(y, slice, k) + stride_ - left_; }
  // From a row's line to the same line of the next row.
  std::ptrdiff_t rowStride() const { return static_cast<std::ptrdiff_t>(channels_ * 2 * stride_); }
  int y0() const { return y0_; }
  int y1() const { return y1_; }
  int left() const { return left_; }
  int right() const { return left_ + static_cast<int>(width_); }
  std::size_t slices() const { return slices_; }
  std::size_t channels() const { return channels_; }

private:
  float* line(int y, std::size_t slice, std::size_t k) const {
    // Slice first: neighbouring samples mostly share a slice, and so the same few lines.
    const std::size_t rows = static_cast<std::size_t>(y1_ - y0_);
    const std::size_t index = (slice * rows + static_cast<std::size_t>(y - y0_)) * channels_ + k;
    return const_cast<float*>(values_.data()) + index * 2 * stride_;
  }
  std::vector<float> values_;
  LaneBand lanes_;
  bool lanesInUse_ = false;
  int y0_ = 0, y1_ = 0, left_ = 0;
  // stride_: floats from one line to the next, an odd number of cache lines, so that the lines
  // one sample adds to don't all fall into the same few cache sets.
  std::size_t width_ = 0, stride_ = 0, slices_ = 0, channels_ = 0;
};

// Near to far: a slice gets the share of the pixel that the nearer ones left free (1 - covered),
// and one with more weight than that is scaled down as a whole, colour and weight alike. Returns
// the factor for the slice's colour and adds the weight it keeps to `covered`.
inline float takeSliceShare(float& covered, float weight) {
  const float remaining = 1.0f - covered;
  float scale = 1.0f;
  if (weight > remaining) {
    scale = remaining / weight;
    weight = remaining;
  }
  covered += weight;
  return scale;
}

// One channel of one output row, the slices laid near to far over columns [x, r): colours[s] and
// weights[s] are addressed by absolute column (a null pair is skipped), `out` too; `coverage`
// holds r - x floats.
void mergeSliceColumns(const float* const* colours, const float* const* weights, std::size_t sliceCount,
                       float* out, float* coverage, int x, int r);

// Writes every row and listed channel of a band into out(y, k) (addressed by absolute column).
// With `sharedWeights` every channel is merged with the weights of channel 0.
void mergeBand(const BandAccumulators& band, bool sharedWeights,
               const std::function<float*(int y, std::size_t k)>& out);

// Writes columns [x, r) of `out` for every channel of `channels` that `vorelChannels` holds.
void mergeSlices(const SliceAccumulators& slices, DD::Image::Row& out, int x, int r,
                 const DD::Image::ChannelSet& channels, const DD::Image::ChannelSet& vorelChannels);

}  // namespace vorel
