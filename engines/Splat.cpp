#include "engines/Splat.h"

#include "engines/SplatContext.h"
#include "engines/LaneSplat.h"
#include "engines/Frame.h"

using DD::Image::Channel;
using DD::Image::ChannelSet;

namespace vorel {

using namespace splatcore;

namespace {

// The one row of a row's accumulators, by channel number.
struct SliceLines {
  const ChannelPlanes* colours;
  const ChannelPlanes* weights;
  AccumulatorLines operator()(int, unsigned slice, std::size_t, Channel c) const {
    return {colours[slice][c], weights[slice][c]};
  }
  std::ptrdiff_t rowStride() const { return 0; }
};

// A band's accumulators, by listed channel.
struct BandLines {
  const BandAccumulators& band;
  AccumulatorLines operator()(int y, unsigned slice, std::size_t k, Channel) const {
    return {band.colour(y, slice, k), band.weight(y, slice, k)};
  }
  std::ptrdiff_t rowStride() const { return band.rowStride(); }
};

}  // namespace

int chromaticShift(const NodeParameters& p, int position, Channel c, float spread) {
  return shiftedPosition(p, position, c, spread);
}

VOREL_WIDE_VECTORS
void accumulateKernelRow(float* P, float* Q, const float* K, float cw, float w, int count) {
  accumulate(P, Q, K, cw, w, count);
}

VOREL_WIDE_VECTORS
void accumulateKernelRowColour(float* P, const float* K, float cw, int count) {
  accumulateColour(P, K, cw, count);
}

SplatContext::SplatContext(const NodeParameters& parameters, const std::vector<Kernel>& kernelBank,
                           const DD::Image::Box& formatBox, const ChannelSet& channels)
    : params(parameters),
      bank(kernelBank.data()),
      bankSize(static_cast<unsigned>(kernelBank.size())),
      format(formatBox) {
  foreach (c, channels) {
    if (parameters.vorelChannels.contains(c))
      channelList.push_back(c);
  }
  kernelPlanes.reserve(kernelBank.size() * channelList.size());
  for (const Kernel& entry : kernelBank)
    for (Channel c : channelList)
      kernelPlanes.push_back(entry.plane(c));
}

SplatContext::SplatContext(const Frame& frame, const ChannelSet& channels)
    : SplatContext(frame.params, frame.kernelBank, frame.format, channels) {
  // Every channel lands at the same place with the same kernel values.
  const bool alike = frame.kernelPlanesAlike && frame.params.kChrAbb == 0.0f;
  if (alike && channelList.size() > 1)
    sharedWeightChannel = channelList.front();
  laneForm = alike && !channelList.empty() && channelList.size() < kLanes;
}

void shareWeights(const SplatContext& context, const SliceAccumulators& slices, int x, int r) {
  const Channel shared = context.sharedWeightChannel;
  if (shared == DD::Image::Chan_Black || r <= x)
    return;
  for (const ChannelPlanes& planes : slices.weightPlanes) {
    const float* weights = planes[shared];
    for (Channel c : context.channelList)
      if (c != shared && planes[c])
        std::copy(weights + x, weights + r, planes[c] + x);
  }
}

VOREL_WIDE_VECTORS
void splatPixel(const SplatContext& context, const SourceSample& sample, const RowSpan& row,
                const SliceAccumulators& slices) {
  const PreparedWalk walk{context.channelList.data(), context.channelList.size(),
                          context.kernelPlanes.data()};
  const SliceLines lines{slices.colourPlanes.data(), slices.weightPlanes.data()};
  splat(context.params, context.bank, context.bankSize, context.format, sample,
        BandSpan{row.left, row.right, row.y, row.y}, lines, walk, context.sharedWeightChannel);
}

VOREL_WIDE_VECTORS
void splatBand(const SplatContext& context, const SourceSample& sample, const BandSpan& span,
               const BandAccumulators& band) {
  if (const LaneBand* lanes = band.lanes()) {
    splatLanes(context.params, context.bank, context.bankSize, context.format, sample, span, *lanes,
               context.channelList.data(), context.channelList.size(), context.kernelPlanes.data());
    return;
  }
  const PreparedWalk walk{context.channelList.data(), context.channelList.size(),
                          context.kernelPlanes.data()};
  const BandLines lines{band};
  splat(context.params, context.bank, context.bankSize, context.format, sample, span, lines, walk,
        context.sharedWeightChannel);
}

}  // namespace vorel
