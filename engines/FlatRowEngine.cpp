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

// The flat input's source samples for one output row: every pixel of the rows within reach, read
// from the frame's table where it has one, else worked out from the inputs.
class FlatSources {
public:
  FlatSources(const Frame& frame, const SplatContext& context, const ChannelSet& channels, int y, int x,
              int r);
  void spread(const RowSpan& span, const SliceAccumulators& slices);

private:
  void fetchRow(int fy);
  void takeColours(int sx);
  void spreadTabledRow(int sy, int fy, int distance, const RowSpan& span, const SliceAccumulators& slices);
  void spreadComputedRow(int sy, int fy, const RowSpan& span, const SliceAccumulators& slices);
  float depthAt(int fy, int cx);

  const Frame& frame_;
  const SplatContext& context_;
  Iop& source_;
  int y_, left_, right_, bottom_, top_, radius_;
  ChannelSet sourceChannels_, depthOnly_;
  bool tabled_;
  float colours_[kChannelSlots] = {};
  std::vector<const float*> colourPlanes_;
  const float* depthPlane_ = nullptr;
  // One source row and one matte row, refilled for each source row: a fetch overwrites the whole
  // span of every channel it asks for.
  Row sourceRow_;
  MatteRow mattes_;
  // The depth column is clamped to the format, so a span wholly beyond the format on one side
  // reads a column it did not fetch; there is only ever one such column per source row.
  int outsideColumn_ = 0;
  float outsideDepth_ = 0.0f;
  bool haveOutside_ = false;
};

FlatSources::FlatSources(const Frame& frame, const SplatContext& context, const ChannelSet& channels, int y,
                         int x, int r)
    : frame_(frame),
      context_(context),
      source_(*frame.inputs.source),
      y_(y),
      radius_(std::max(0, frame.kernelRadius)),
      colourPlanes_(context.channelList.size()),
      sourceRow_(x - std::max(0, frame.kernelRadius), r + std::max(0, frame.kernelRadius)),
      mattes_(x - std::max(0, frame.kernelRadius), r + std::max(0, frame.kernelRadius)) {
  left_ = x - radius_;
  right_ = r + radius_;
  bottom_ = source_.info().y();
  top_ = source_.info().t();
  // Colour and depth come from the same input at the same row: one fetch serves both.
  sourceChannels_ = channels;
  sourceChannels_ += frame.params.depthChannel;
  depthOnly_ += frame.params.depthChannel;
  // With the frame's table the per-pixel lens work is done already, and a visit whose kernel
  // cannot reach this row is dropped before anything is read.
  const FlatSourceTable& table = frame.flatSources;
  tabled_ = table.ready && left_ >= table.left && right_ <= table.right && table.bottom == bottom_ &&
            table.top == top_;
}

void FlatSources::spread(const RowSpan& span, const SliceAccumulators& slices) {
  for (int sy = y_ - radius_; sy <= y_ + radius_; ++sy) {
    // Rows beyond the box repeat its edge row, but spread from their own position.
    const int fy = std::max(bottom_, std::min(top_, sy));
    const int distance = rowDistance(sy, y_);
    if (tabled_ && frame_.flatSources.rowReach[static_cast<std::size_t>(fy - bottom_)] < distance)
      continue;
    fetchRow(fy);
    if (tabled_)
      spreadTabledRow(sy, fy, distance, span, slices);
    else
      spreadComputedRow(sy, fy, span, slices);
  }
}

void FlatSources::fetchRow(int fy) {
  sourceRow_.get(source_, fy, left_, right_, sourceChannels_);
  for (std::size_t k = 0; k < colourPlanes_.size(); ++k)
    colourPlanes_[k] = sourceRow_[context_.channelList[k]];
  depthPlane_ = sourceRow_[frame_.params.depthChannel];
  mattes_.fetch(frame_, fy);
  haveOutside_ = false;
}

void FlatSources::takeColours(int sx) {
  for (std::size_t k = 0; k < colourPlanes_.size(); ++k)
    colours_[context_.channelList[k]] = readOr(colourPlanes_[k], sx, 0.0f);
}

void FlatSources::spreadTabledRow(int sy, int fy, int distance, const RowSpan& span,
                                  const SliceAccumulators& slices) {
  const FlatSourceTable& table = frame_.flatSources;
  const DD::Image::Box& format = frame_.format;
  const std::size_t rowStart = table.index(left_, fy);
  const std::int32_t* reach = table.reach.data() + rowStart;
  const float* cocs = table.coc.data() + rowStart;
  const std::uint32_t* sliceOf = table.slice.data() + rowStart;
  // The pixel loop of the whole frame: what it reads is held in locals, not behind `this`.
  const std::size_t channelCount = colourPlanes_.size();
  const float* const* planes = colourPlanes_.data();
  const Channel* channels = context_.channelList.data();
  float* colours = colours_;
  SourceSample sample{0, fy, 0, sy, 0.0f, 0, 1.0f, colours, 1.0f, 1.0f};
  for (int sx = left_; sx < right_; ++sx) {
    const int i = sx - left_;
    if (reach[i] < distance)
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
    splatPixel(context_, sample, span, slices);
  }
}

float FlatSources::depthAt(int fy, int cx) {
  if (cx >= left_ && cx < right_)
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

void FlatSources::spreadComputedRow(int sy, int fy, const RowSpan& span, const SliceAccumulators& slices) {
  const DD::Image::Box& format = frame_.format;
  for (int sx = left_; sx < right_; ++sx) {
    const int cx = clampInto(sx, format.x(), format.r());
    const LensSample lens = frame_.sample(depthAt(fy, cx), DepthSource::FlatChannel);
    if (!flatFocusGatePasses(frame_.params.focusOutput, lens.side))
      continue;
    // Mattes are read where the source pixel is, not at the clamped column.
    const MatteValues matte = mattes_.at(sx);
    takeColours(sx);
    const float coc = std::max(lens.coc * matte.defocus, 1.0f);
    splatPixel(context_, SourceSample{cx, fy, sx, sy, coc, lens.slice, 1.0f, colours_, matte.bloom, matte.chromatic},
               span, slices);
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
  defocusRow(frame, y, x, r, channels, out,
             [&](const SplatContext& context, const RowSpan& span, const SliceAccumulators& slices) {
               FlatSources sources(frame, context, channels, y, x, r);
               sources.spread(span, slices);
               return true;
             });
}

}  // namespace vorel
