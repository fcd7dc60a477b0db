#include "engines/FlatRowEngine.h"

#include <algorithm>
#include <vector>

#include "DDImage/Box.h"
#include "DDImage/Iop.h"
#include "engines/FlatSourceTable.h"
#include "engines/OpticalArtefacts.h"
#include "engines/Slices.h"
#include "engines/SplatContext.h"
#include "lens/CircleOfConfusion.h"
#include "node/tzVorel.h"

using DD::Image::Box;
using DD::Image::Channel;
using DD::Image::ChannelSet;
using DD::Image::Iop;
using DD::Image::Row;

namespace vorel {

namespace {

float readOr(const float* plane, int column, float fallback) {
  return plane ? plane[column] : fallback;
}

}  // namespace

bool flatFocusGatePasses(int focusOutput, DepthSide side) {
  switch (focusOutput) {
    case FocusFront: return side == DepthSideFront;
    case FocusBack: return side != DepthSideFront;
    default: return true;
  }
}

void flatRowEngine(const tzVorel& node, int y, int x, int r, const ChannelSet& channels, Row& out) {
  Iop* source = node.input(0);
  if (!source || r <= x)
    return;
  const NodeParameters& p = node.params;

  // Channels outside the effect are finished here; the merge overwrites the others.
  {
    Row inRow(x, r);
    inRow.get(*source, y, x, r, channels);
    out.copy(inRow, channels, x, r);
  }

  ChannelSet spread = channels;
  spread &= p.vorelChannels;
  if (spread.empty())
    return;

  const int N = p.correctiveSlices;
  SliceAccumulators slices(N, x, r, spread);
  const SplatContext context(node, channels);
  const std::vector<Channel>& splatChannels = context.channelList;

  const int R = std::max(0, node.kernelRadius);
  const int left = x - R;
  const int right = r + R;
  const int bottom = source->info().y();
  const int top = source->info().t();
  const Box format = node.formatBox();
  const int fw = format.r() - format.x();
  const Channel depthChannel = p.depthChannel;
  const int maxCoC = node.maxCoC;

  // Colour and depth come from the same input at the same row: one fetch serves both.
  ChannelSet sourceChannels = channels;
  sourceChannels += depthChannel;
  ChannelSet depthOnly;
  depthOnly += depthChannel;


  float colours[kChannelSlots] = {};
  std::vector<const float*> colourPlanes(splatChannels.size());

  // With the frame's table the per-pixel lens work is done already, and a visit whose kernel
  // cannot reach this row is dropped before anything is read.
  const FlatSourceTable& table = node.flatSources;
  const bool tabled = table.ready && left >= table.left && right <= table.right &&
                      table.bottom == bottom && table.top == top;

  // One source row and one matte row, refilled for each source row: a fetch overwrites the whole
  // span of every channel it asks for.
  Row sourceRow(left, right);
  MatteRow mattes(left, right);

  for (int sy = y - R; sy <= y + R; ++sy) {
    // Rows beyond the box repeat its edge row, but spread from their own position.
    const int fy = std::max(bottom, std::min(top, sy));
    const int distance = sy > y ? sy - y : y - sy;
    if (tabled && table.rowReach[static_cast<std::size_t>(fy - bottom)] < distance)
      continue;

    sourceRow.get(*source, fy, left, right, sourceChannels);
    for (std::size_t k = 0; k < splatChannels.size(); ++k)
      colourPlanes[k] = sourceRow[splatChannels[k]];
    const float* depthPlane = sourceRow[depthChannel];

    mattes.fetch(node, fy);

    // The depth column is clamped to the format, so a span wholly beyond the format on one side
    // reads a column it did not fetch; there is only ever one such column per source row.
    int outsideColumn = 0;
    float outsideDepth = 0.0f;
    bool haveOutside = false;

    if (tabled) {
      const std::size_t rowStart = table.index(left, fy);
      const std::int32_t* reach = table.reach.data() + rowStart;
      const float* cocs = table.coc.data() + rowStart;
      const std::uint32_t* sliceOf = table.slice.data() + rowStart;
      for (int sx = left; sx < right; ++sx) {
        const int i = sx - left;
        if (reach[i] < distance)
          continue;
        const int cx = std::max(0, std::min(fw - 1, sx));
        const MatteValues matte = mattes.at(sx);
        for (std::size_t k = 0; k < splatChannels.size(); ++k)
          colours[splatChannels[k]] = readOr(colourPlanes[k], sx, 0.0f);
        splatPixel(context, cx, fy, x, y, r, sx, sy, cocs[i], sliceOf[i], 1.0f, colours,
                   slices.colourPlanes.data(), slices.weightPlanes.data(), matte.bloom, matte.chromatic);
      }
      continue;
    }

    for (int sx = left; sx < right; ++sx) {
      const int cx = std::max(0, std::min(fw - 1, sx));

      float rawDepth;
      if (cx >= left && cx < right) {
        rawDepth = readOr(depthPlane, cx, 0.0f);
      } else {
        if (!haveOutside || outsideColumn != cx) {
          Row column(cx, cx + 1);
          column.get(*source, fy, cx, cx + 1, depthOnly);
          outsideDepth = readOr(column[depthChannel], cx, 0.0f);
          outsideColumn = cx;
          haveOutside = true;
        }
        rawDepth = outsideDepth;
      }

      float depth = conditionFlatDepth(p, rawDepth);
      if (!p.realWorldLens)
        depth = clampToRegion(p, depth);
      DepthSide side;
      const float coc = depthToCoC(p, maxCoC, depth, side);
      if (!flatFocusGatePasses(p.focusOutput, side))
        continue;
      const unsigned slice = sliceForDepth(N, node.sliceBoundaries, depth);

      // Mattes are read where the source pixel is, not at the clamped column.
      const MatteValues matte = mattes.at(sx);

      for (std::size_t k = 0; k < splatChannels.size(); ++k)
        colours[splatChannels[k]] = readOr(colourPlanes[k], sx, 0.0f);

      splatPixel(context, cx, fy, x, y, r, sx, sy, std::max(coc * matte.defocus, 1.0f), slice, 1.0f,
                 colours, slices.colourPlanes.data(), slices.weightPlanes.data(), matte.bloom,
                 matte.chromatic);
    }
  }

  shareWeights(context, slices, x, r);
  mergeSlices(slices, out, x, r, channels, p.vorelChannels);
}

}  // namespace vorel
