#include "engines/DeepRowEngine.h"

#include <algorithm>
#include <array>
#include <vector>

#include "DDImage/Box.h"
#include "DDImage/Channel.h"
#include "DDImage/DeepOp.h"
#include "DDImage/DeepPixel.h"
#include "DDImage/DeepPlane.h"
#include "DDImage/Iop.h"
#include "engines/DeepSamples.h"
#include "engines/DeepSourceTable.h"
#include "engines/DefocusRow.h"
#include "engines/OpticalArtefacts.h"
#include "engines/SplatContext.h"
#include "lens/ReadWindow.h"

using namespace DD::Image;

namespace vorel {

namespace {

// A set as a plain list, so the pixel loops don't walk the set's bit words.
void listChannels(const ChannelSet& set, std::vector<Channel>& list) {
  list.clear();
  foreach (c, set)
    list.push_back(c);
}

// Whether the frame's table holds the source columns [left, right) of a request.
bool deepTableServes(const Frame& frame, int left, int right) {
  const DeepSourceTable& table = frame.deepSources;
  return table.ready && left >= table.left && right <= table.right &&
         table.window == deepReadWindow(frame.format, frame.inputs.deep->deepInfo().box());
}

// The deep input's source samples for one strip of a band of output rows: the pieces of every
// deep pixel within reach, front to back, and what they leave uncovered as transparent black at
// the far limit. Each pixel is cut into pieces once and spread into every row of the band.
class DeepSources {
public:
  DeepSources(const Frame& frame, const SplatContext& context, const ChannelSet& channels, const BandArea& area,
              int side);
  // False when the render is aborted.
  bool spread(const BandAccumulators& band);

private:
  bool fetchRow(int pixelY, int left, int right);
  void spreadPixel(int sourceX, int sourceY, int pixelX, int pixelY, const BandSpan& rows,
                   const BandAccumulators& band);
  BandSpan rowsFrom(int sourceY, int reach) const { return bandRowsFrom(area_, radius_, sourceY, reach); }

  const Frame& frame_;
  const SplatContext& context_;
  const ChannelSet& channels_;
  DeepOp& deep_;
  Iop& input_;
  BandArea area_;
  int side_, left_, right_, radius_;
  // Deep pixels are read within this window; beyond it they repeat its edge pixels.
  Box window_;
  ChannelSet workChannels_, deepChannels_;
  Channel depthOfPiece_;
  LensSample background_;
  std::vector<Channel> requested_, pieceList_;
  std::array<const float*, 1024> inputPlanes_{};
  std::array<float, 1024> colours_{};
  DeepOutPixel pieces_;
  DeepPlane plane_;
  ChannelSet planeChannels_;
  // Both rows are refilled for every source row over the columns it reads.
  Row paddedInput_;
  MatteRow paddedMattes_;
};

DeepSources::DeepSources(const Frame& frame, const SplatContext& context, const ChannelSet& channels,
                         const BandArea& area, int side)
    : frame_(frame),
      context_(context),
      channels_(channels),
      deep_(*frame.inputs.deep),
      input_(*frame.inputs.source),
      area_(area),
      side_(side),
      left_(area.spanLeft - frame.kernelRadius),
      right_(area.spanRight + frame.kernelRadius),
      radius_(frame.kernelRadius),
      depthOfPiece_(sampleDepthChannel(frame.params.depthChannel)),
      paddedInput_(area.spanLeft - frame.kernelRadius, area.spanRight + frame.kernelRadius),
      paddedMattes_(area.spanLeft - frame.kernelRadius, area.spanRight + frame.kernelRadius) {
  window_ = deepReadWindow(frame.format, deep_.deepInfo().box());
  workChannels_ = channels;
  workChannels_ &= frame.params.vorelChannels;
  workChannels_ += Chan_Alpha;
  ChannelSet available = deep_.deepInfo().channels();
  available &= workChannels_;
  deepChannels_ = deepPieceChannels(available);
  // The far limit is what no piece covers: transparent black at the background's blur.
  background_ = frame.sample(kFarLimit, DepthSource::DeepPiece);
  background_.coc = std::max(background_.coc, 1.0f);
  listChannels(channels, requested_);
  pieceList_.reserve(requested_.size() + 1);
  pieces_.reserve(64);
}

bool DeepSources::spread(const BandAccumulators& band) {
  // The frame's table tells which deep pixels can reach the band at all; the others, and whole
  // source rows of them, are passed over before they are fetched or cut into pieces.
  const DeepSourceTable& table = frame_.deepSources;
  const bool tabled = deepTableServes(frame_, left_, right_);
  const std::size_t tableWidth = static_cast<std::size_t>(table.right - table.left);
  const bool allPieces = side_ == DepthSideNone;

  for (int sourceY = area_.y0 - radius_; sourceY < area_.y1 + radius_; ++sourceY) {
    if (renderAborted(frame_))
      return false;
    const int pixelY = clampInto(sourceY, window_.y(), window_.t());
    const int distance = bandDistance(sourceY, area_.y0, area_.y1);
    const std::int32_t* reach = nullptr;
    long long rowReach = kReachUnknown;
    if (tabled && pixelY >= table.bottom && pixelY < table.top) {
      const std::size_t tableRow = static_cast<std::size_t>(pixelY - table.bottom);
      rowReach = (allPieces ? table.rowReach : table.rowReachSided)[tableRow];
      if (rowReach < distance)
        continue;
      reach = (allPieces ? table.reach : table.reachSided).data() + tableRow * tableWidth;
    }
    // Only the columns whose kernels can reach the strip are read.
    const auto [left, right] = stripSourceColumns(area_, left_, right_, rowReach);
    if (left >= right)
      continue;
    // false means the render is aborted: nothing more is fetched, nothing merged.
    if (!fetchRow(pixelY, left, right))
      return false;
    const Box planeBox = plane_.box();
    for (int sourceX = left; sourceX < right; ++sourceX) {
      int pixelReach = kReachUnknown;
      if (reach) {
        pixelReach = reach[sourceX - table.left];
        if (!reachesStrip(area_, sourceX, pixelReach, distance))
          continue;
      }
      const int pixelX = clampInto(sourceX, window_.x(), window_.r());
      if (pixelX < planeBox.x() || pixelX >= planeBox.r() || pixelY < planeBox.y() || pixelY >= planeBox.t())
        continue;
      // Only a plane wider than asked for could hold a column the padded rows lack.
      if (pixelX < left_ || pixelX >= right_)
        continue;
      spreadPixel(sourceX, sourceY, pixelX, pixelY, rowsFrom(sourceY, pixelReach), band);
    }
  }
  return true;
}

// The flat row, the matte row and the deep row at pixelY for source columns [left, right): the
// pixels they clamp to; false when the deep fetch fails.
bool DeepSources::fetchRow(int pixelY, int left, int right) {
  // The columns the source columns clamp to, as far as the request reads them.
  const int pixelLeft = std::max(left_, clampInto(left, window_.x(), window_.r()));
  const int pixelRight = std::min(right_, clampInto(right - 1, window_.x(), window_.r()) + 1);
  const int fetchLeft = std::max(window_.x(), std::min(window_.r(), pixelLeft));
  const int fetchRight = std::max(fetchLeft, std::max(window_.x(), std::min(window_.r(), pixelRight)));
  if (pixelLeft < pixelRight)
    paddedInput_.get(input_, pixelY, pixelLeft, pixelRight, channels_);
  paddedMattes_.fetch(frame_, pixelY, left, right);
  if (!deep_.deepEngine(Box(fetchLeft, pixelY, fetchRight, pixelY + 1), deepChannels_, plane_))
    return false;
  planeChannels_ = plane_.channels();
  // The pieces are laid out by the plane's map, so their channels are the plane's.
  ChannelSet pieceChannels = planeChannels_;
  pieceChannels &= workChannels_;
  listChannels(pieceChannels, pieceList_);
  for (const Channel c : requested_)
    inputPlanes_[c] = paddedInput_[c];
  return true;
}

void DeepSources::spreadPixel(int sourceX, int sourceY, int pixelX, int pixelY, const BandSpan& rows,
                              const BandAccumulators& band) {
  const MatteValues matte = paddedMattes_.at(sourceX);
  // Channels the deep pixel lacks are spread with the flat input's value.
  for (const Channel c : requested_)
    colours_[c] = inputPlanes_[c][pixelX];

  pieces_.clear();
  prepareDeepSamples(planeChannels_, plane_.getPixel(pixelY, pixelX), pieces_);
  const DeepPixel view = pieces_.getPixel(plane_.channels(), DeepPixel::eZDescending);
  SourceSample sample{pixelX, pixelY, sourceX, sourceY, 0.0f, 0, 0.0f, colours_.data(), matte.bloom,
                      matte.chromatic};

  const float covered = walkFrontToBack(
      view.getSampleCount(), WalkEnd::Opaque, [&](std::size_t i) { return view.getOrderedSample(i, Chan_Alpha); },
      [&](std::size_t i, float alpha, float weight) {
        // Un-premultiplied: the weight alone carries the coverage.
        for (const Channel c : pieceList_)
          colours_[c] = view.getOrderedSample(i, c) / alpha;
        const LensSample lens = frame_.sample(view.getOrderedSample(i, depthOfPiece_), DepthSource::DeepPiece);
        if (side_ != 0 && side_ != lens.side)
          return false;
        sample.coc = std::max(lens.coc * matte.defocus, 1.0f);
        sample.slice = lens.slice;
        sample.weight = weight;
        splatBand(context_, sample, rows, band);
        return true;
      });

  if (1.0f > covered) {
    for (const Channel c : requested_)
      colours_[c] = 0.0f;
    splatBand(context_,
              SourceSample{pixelX, pixelY, sourceX, sourceY, background_.coc, background_.slice,
                           1.0f - covered, colours_.data(), 0.0f, 1.0f},
              rows, band);
  }
}

}  // namespace

void deepRowEngine(const Frame& frame, int y, int x, int r, const ChannelSet& channels, Row& row, int side) {
  if (r <= x)
    return;
  // Without kernels (not opened since the last validation) nothing can be spread.
  const bool spreads = frame.inputs.deep && frame.inputs.source && frame.kernelRadius >= 0 && !frame.kernelBank.empty();
  const bool tabled = spreads && deepTableServes(frame, x - frame.kernelRadius, r + frame.kernelRadius);
  defocusRow(frame, y, x, r, channels, row, side, tabled,
             [&](const SplatContext& context, const BandArea& area, const BandAccumulators& band) {
               if (!spreads)
                 return true;
               DeepSources sources(frame, context, channels, area, side);
               return sources.spread(band);
             });
}

}  // namespace vorel
