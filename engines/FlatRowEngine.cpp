#include "engines/FlatRowEngine.h"

#include <algorithm>
#include <vector>

#include "DDImage/Box.h"
#include "DDImage/Iop.h"
#include "engines/DefocusRow.h"
#include "engines/FlatSourceTable.h"
#include "engines/OpticalArtefacts.h"
#include "engines/SplatContext.h"
#include "lens/ReadWindow.h"

using DD::Image::Channel;
using DD::Image::ChannelSet;
using DD::Image::Iop;
using DD::Image::Row;

namespace vorel {

namespace {

float readOr(const float* plane, int column, float fallback) {
  return plane ? plane[column] : fallback;
}

// The span of a request reads source columns [left, right): whether the frame's table holds them.
bool flatTableServes(const Frame& frame, int left, int right) {
  const FlatSourceTable& table = frame.flatSources;
  const DD::Image::Box& input = frame.inputs.source->info();
  return table.ready && left >= table.left && right <= table.right && table.bottom == input.y() &&
         table.top == input.t();
}

// The flat input's source samples for one strip of a band of output rows: every pixel of the
// rows within reach, read from the frame's table where it has one, else worked out from the
// inputs. Each is read and worked out once and spread into every row of the band it can reach.
class FlatSources {
public:
  FlatSources(const Frame& frame, const SplatContext& context, const ChannelSet& channels, const BandArea& area);
  // False when the render is aborted.
  bool spread(const BandAccumulators& band);

private:
  void fetchRow(int fy, int left, int right);
  void takeColours(int sx);
  void spreadTabledRow(int sy, int fy, int distance, int left, int right, const BandAccumulators& band);
  void spreadComputedRow(int sy, int fy, int left, int right, const BandAccumulators& band);
  float depthAt(int fy, int cx);
  BandSpan rowsFrom(int sy, int reach) const { return bandRowsFrom(area_, radius_, sy, reach); }

  const Frame& frame_;
  const SplatContext& context_;
  Iop& source_;
  BandArea area_;
  // The request's columns padded by the radius: the source columns a row of it reads.
  int spanLeft_, spanRight_;
  int bottom_, top_, radius_;
  ChannelSet sourceChannels_, depthOnly_;
  bool tabled_;
  float colours_[kChannelSlots] = {};
  std::vector<const float*> colourPlanes_;
  const float* depthPlane_ = nullptr;
  // One source row and one matte row, refilled over [fetchLeft_, fetchRight_) for each source
  // row: a fetch overwrites that span of every channel it asks for.
  Row sourceRow_;
  MatteRow mattes_;
  int fetchLeft_ = 0, fetchRight_ = 0;
  // The depth column is clamped to the format, so a span wholly beyond the format on one side
  // reads a column it did not fetch; there is only ever one such column per source row.
  int outsideColumn_ = 0;
  float outsideDepth_ = 0.0f;
  bool haveOutside_ = false;
};

FlatSources::FlatSources(const Frame& frame, const SplatContext& context, const ChannelSet& channels,
                         const BandArea& area)
    : frame_(frame),
      context_(context),
      source_(*frame.inputs.source),
      area_(area),
      spanLeft_(area.spanLeft - std::max(0, frame.kernelRadius)),
      spanRight_(area.spanRight + std::max(0, frame.kernelRadius)),
      radius_(std::max(0, frame.kernelRadius)),
      colourPlanes_(context.channelList.size()),
      sourceRow_(area.spanLeft - std::max(0, frame.kernelRadius), area.spanRight + std::max(0, frame.kernelRadius)),
      mattes_(area.spanLeft - std::max(0, frame.kernelRadius), area.spanRight + std::max(0, frame.kernelRadius)) {
  bottom_ = source_.info().y();
  top_ = source_.info().t();
  // Colour and depth come from the same input at the same row: one fetch serves both.
  sourceChannels_ = channels;
  sourceChannels_ += frame.params.depthChannel;
  depthOnly_ += frame.params.depthChannel;
  // With the frame's table the per-pixel lens work is done already, and a pixel whose kernel
  // cannot reach the strip is dropped before anything is read.
  tabled_ = flatTableServes(frame, spanLeft_, spanRight_);
}

bool FlatSources::spread(const BandAccumulators& band) {
  for (int sy = area_.y0 - radius_; sy < area_.y1 + radius_; ++sy) {
    if (renderAborted(frame_))
      return false;
    // Rows beyond the box repeat its edge row, but spread from their own position.
    const int fy = std::max(bottom_, std::min(top_, sy));
    const int distance = bandDistance(sy, area_.y0, area_.y1);
    long long reach = kReachUnknown;
    if (tabled_) {
      reach = frame_.flatSources.rowReach[static_cast<std::size_t>(fy - bottom_)];
      if (reach < distance)
        continue;
    }
    // Only the columns whose kernels can reach the strip are read.
    const auto [left, right] = stripSourceColumns(area_, spanLeft_, spanRight_, reach);
    if (left >= right)
      continue;
    fetchRow(fy, left, right);
    if (tabled_)
      spreadTabledRow(sy, fy, distance, left, right, band);
    else
      spreadComputedRow(sy, fy, left, right, band);
  }
  return true;
}

void FlatSources::fetchRow(int fy, int left, int right) {
  sourceRow_.get(source_, fy, left, right, sourceChannels_);
  for (std::size_t k = 0; k < colourPlanes_.size(); ++k)
    colourPlanes_[k] = sourceRow_[context_.channelList[k]];
  depthPlane_ = sourceRow_[frame_.params.depthChannel];
  mattes_.fetch(frame_, fy, left, right);
  fetchLeft_ = left;
  fetchRight_ = right;
  haveOutside_ = false;
}

void FlatSources::takeColours(int sx) {
  for (std::size_t k = 0; k < colourPlanes_.size(); ++k)
    colours_[context_.channelList[k]] = readOr(colourPlanes_[k], sx, 0.0f);
}

void FlatSources::spreadTabledRow(int sy, int fy, int distance, int left, int right,
                                  const BandAccumulators& band) {
  const FlatSourceTable& table = frame_.flatSources;
  const DD::Image::Box& format = frame_.format;
  const std::size_t rowStart = table.index(left, fy);
  const std::int32_t* reach = table.reach.data() + rowStart;
  const float* cocs = table.coc.data() + rowStart;
  const std::uint32_t* sliceOf = table.slice.data() + rowStart;
  // The pixel loop of the whole frame: what it reads is held in locals, not behind `this`.
  const std::size_t channelCount = colourPlanes_.size();
  const float* const* planes = colourPlanes_.data();
  const Channel* channels = context_.channelList.data();
  float* colours = colours_;
  SourceSample sample{0, fy, 0, sy, 0.0f, 0, 1.0f, colours, 1.0f, 1.0f};
  for (int sx = left; sx < right; ++sx) {
    const int i = sx - left;
    const int pixelReach = reach[i];
    if (!reachesStrip(area_, sx, pixelReach, distance))
      continue;
    const MatteValues matte = mattes_.at(sx);
    for (std::size_t k = 0; k < channelCount; ++k)
      colours[channels[k]] = readOr(planes[k], sx, 0.0f);
    sample.pixelX = clampInto(sx, format.x(), format.r());
    sample.x = sx;
    sample.coc = cocs[i];
    sample.slice = sliceOf[i];
    sample.bloomMatte = matte.bloom;
    sample.chromaticMatte = matte.chromatic;
    splatBand(context_, sample, rowsFrom(sy, pixelReach), band);
  }
}

float FlatSources::depthAt(int fy, int cx) {
  if (cx >= fetchLeft_ && cx < fetchRight_)
    return readOr(depthPlane_, cx, 0.0f);
  if (!haveOutside_ || outsideColumn_ != cx) {
    Row column(cx, cx + 1);
    column.get(source_, fy, cx, cx + 1, depthOnly_);
    outsideDepth_ = readOr(column[frame_.params.depthChannel], cx, 0.0f);
    outsideColumn_ = cx;
    haveOutside_ = true;
  }
  return outsideDepth_;
}

void FlatSources::spreadComputedRow(int sy, int fy, int left, int right, const BandAccumulators& band) {
  const DD::Image::Box& format = frame_.format;
  const BandSpan rows = rowsFrom(sy, radius_);
  for (int sx = left; sx < right; ++sx) {
    const int cx = clampInto(sx, format.x(), format.r());
    const LensSample lens = frame_.sample(depthAt(fy, cx), DepthSource::FlatChannel);
    if (!flatFocusGatePasses(frame_.params.focusOutput, lens.side))
      continue;
    // Mattes are read where the source pixel is, not at the clamped column.
    const MatteValues matte = mattes_.at(sx);
    takeColours(sx);
    const float coc = std::max(lens.coc * matte.defocus, 1.0f);
    splatBand(context_, SourceSample{cx, fy, sx, sy, coc, lens.slice, 1.0f, colours_, matte.bloom, matte.chromatic},
              rows, band);
  }
}

}  // namespace

bool flatFocusGatePasses(int focusOutput, DepthSide side) {
  switch (focusOutput) {
    case FocusFront: return side == DepthSideFront;
    case FocusBack: return side != DepthSideFront;
    default: return true;
  }
}

void flatRowEngine(const Frame& frame, int y, int x, int r, const ChannelSet& channels, Row& out) {
  if (!frame.inputs.source || r <= x)
    return;
  const int radius = std::max(0, frame.kernelRadius);
  defocusRow(frame, y, x, r, channels, out, 0, flatTableServes(frame, x - radius, r + radius),
             [&](const SplatContext& context, const BandArea& area, const BandAccumulators& band) {
               FlatSources sources(frame, context, channels, area);
               return sources.spread(band);
             });
}

}  // namespace vorel
