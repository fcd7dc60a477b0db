#include "engines/DeepSourceTable.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>

#include "DDImage/Box.h"
#include "DDImage/DeepOp.h"
#include "DDImage/DeepPixel.h"
#include "DDImage/DeepPlane.h"
#include "engines/DeepSamples.h"
#include "engines/FlatSourceTable.h"
#include "engines/Frame.h"
#include "engines/OpticalArtefacts.h"
#include "lens/ParallelRows.h"

using namespace DD::Image;

namespace vorel {

namespace {

// One deep pixel as the walk over all of its pieces sees it.
struct PixelPieces {
  std::vector<float> cocs;  // every piece's CoC, before the matte
  std::size_t walked = 0;   // pieces the walk over all of them spreads before it stops
  bool remainder = true;    // whether a remainder follows them
};

void walkPixel(const Frame& frame, const DeepPlane& plane, int pixelX, int pixelY, DeepOutPixel& pieces,
               PixelPieces& out) {
  const Channel depthChannel = sampleDepthChannel(frame.params.depthChannel);
  out.cocs.clear();
  pieces.clear();
  const ChannelSet planeChannels = plane.channels();
  prepareDeepSamples(planeChannels, plane.getPixel(pixelY, pixelX), pieces);
  const DeepPixel view = pieces.getPixel(plane.channels(), DeepPixel::eZDescending);
  const std::size_t count = view.getSampleCount();
  for (std::size_t i = 0; i < count; ++i)
    out.cocs.push_back(frame.sample(view.getOrderedSample(i, depthChannel), DepthSource::DeepPiece).coc);
  // The same walk as the engine's with every piece taken: where it stops, and whether a
  // remainder follows.
  out.walked = 0;
  const float covered = walkFrontToBack(
      count, WalkEnd::Opaque, [&](std::size_t i) { return view.getOrderedSample(i, Chan_Alpha); },
      [&](std::size_t i, float, float) {
        out.walked = i + 1;
        return true;
      });
  out.remainder = 1.0f > covered;
}

// Deep pixel row pixelY of the table; false when the deep fetch fails (the render is aborted).
bool fillRow(const Frame& frame, DeepSourceTable& t, const ChannelSet& deepChannels, int pixelY) {
  const NodeParameters& p = frame.params;
  const int fw = frame.formatWidth();
  const std::size_t width = static_cast<std::size_t>(t.right - t.left);
  std::int32_t* reach = t.reach.data() + static_cast<std::size_t>(pixelY) * width;
  std::int32_t* reachSided = t.reachSided.data() + static_cast<std::size_t>(pixelY) * width;
  std::fill(reach, reach + width, -1);
  std::fill(reachSided, reachSided + width, -1);
  DeepPlane plane;
  if (!frame.inputs.deep->deepEngine(Box(0, pixelY, fw, pixelY + 1), deepChannels, plane))
    return false;
  MatteRow mattes(t.left, t.right);
  mattes.fetch(frame, pixelY);
  const Box planeBox = plane.box();
  const float backgroundCoC = std::max(frame.sample(kFarLimit, DepthSource::DeepPiece).coc, 1.0f);
  const std::int32_t background = sourceReach(p, frame.kernelBank, backgroundCoC, 1.0f);

  // The pixel's pieces, one column of the format at a time; the matte varies by source column.
  DeepOutPixel pieces;
  PixelPieces pixel;
  int preparedX = INT_MIN;
  std::int32_t rowReach = -1, rowReachSided = -1;
  for (int sourceX = t.left; sourceX < t.right; ++sourceX) {
    const int pixelX = std::max(0, std::min(fw - 1, sourceX));
    if (pixelX < planeBox.x() || pixelX >= planeBox.r() || pixelY < planeBox.y() || pixelY >= planeBox.t())
      continue;
    if (pixelX != preparedX) {
      walkPixel(frame, plane, pixelX, pixelY, pieces, pixel);
      preparedX = pixelX;
    }
    const MatteValues matte = mattes.at(sourceX);
    std::int32_t r = pixel.remainder ? background : -1;
    std::int32_t sided = background;
    for (std::size_t i = 0; i < pixel.cocs.size(); ++i) {
      const float coc = std::max(pixel.cocs[i] * matte.defocus, 1.0f);
      const std::int32_t pieceReach = sourceReach(p, frame.kernelBank, coc, matte.chromatic);
      sided = std::max(sided, pieceReach);
      if (i < pixel.walked)
        r = std::max(r, pieceReach);
    }
    reachSided[sourceX - t.left] = sided;
    rowReachSided = std::max(rowReachSided, sided);
    reach[sourceX - t.left] = r;
    rowReach = std::max(rowReach, r);
  }
  t.rowReach[static_cast<std::size_t>(pixelY)] = rowReach;
  t.rowReachSided[static_cast<std::size_t>(pixelY)] = rowReachSided;
  return true;
}

}  // namespace

void DeepSourceTable::clear() {
  ready = false;
  std::vector<std::int32_t>().swap(reach);
  std::vector<std::int32_t>().swap(rowReach);
  std::vector<std::int32_t>().swap(reachSided);
  std::vector<std::int32_t>().swap(rowReachSided);
}

DeepSourceTable buildDeepSourceTable(const Frame& frame) {
  DeepSourceTable table;
  DeepOp* deep = frame.inputs.deep;
  if (!deep || frame.kernelBank.empty() || frame.kernelRadius < 0)
    return table;
  const int R = frame.kernelRadius;
  table.left = frame.box.x() - R;
  table.right = frame.box.r() + R;
  table.rows = frame.formatHeight();
  if (table.right <= table.left || table.rows <= 0 || frame.format.r() <= frame.format.x())
    return table;
  const std::size_t rows = static_cast<std::size_t>(table.rows);
  table.reach.resize(rows * static_cast<std::size_t>(table.right - table.left));
  table.rowReach.assign(rows, -1);
  table.reachSided.resize(table.reach.size());
  table.rowReachSided.assign(rows, -1);
  // Piece depths come from the samples' fronts and backs alone; the colour channels ride along.
  ChannelSet available = deep->deepInfo().channels();
  available &= frame.params.vorelChannels;
  const ChannelSet deepChannels = deepPieceChannels(available);
  // A failed fetch means the render is aborted, and a half-built table must not be used.
  std::atomic<bool> aborted{false};
  parallelRows(table.rows, [&](int pixelY) {
    if (!aborted && !fillRow(frame, table, deepChannels, pixelY))
      aborted = true;
  });
  table.ready = !aborted;
  return table;
}

}  // namespace vorel
