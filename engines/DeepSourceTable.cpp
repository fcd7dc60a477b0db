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
#include "lens/BoxArea.h"
#include "lens/ParallelRows.h"
#include "lens/ReadWindow.h"

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
  const Box& window = t.window;
  const std::size_t width = static_cast<std::size_t>(t.right - t.left);
  const std::size_t tableRow = static_cast<std::size_t>(pixelY - t.bottom);
  std::int32_t* reach = t.reach.data() + tableRow * width;
  std::int32_t* reachSided = t.reachSided.data() + tableRow * width;
  std::fill(reach, reach + width, -1);
  std::fill(reachSided, reachSided + width, -1);
  DeepPlane plane;
  // Only the window's columns that the span's clamp reaches are read.
  const int readLeft = clampInto(t.left, window.x(), window.r());
  const int readRight = clampInto(t.right - 1, window.x(), window.r()) + 1;
  if (!frame.inputs.deep->deepEngine(Box(readLeft, pixelY, readRight, pixelY + 1), deepChannels, plane))
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
    const int pixelX = clampInto(sourceX, window.x(), window.r());
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
  t.rowReach[tableRow] = rowReach;
  t.rowReachSided[tableRow] = rowReachSided;
  return true;
}

}  // namespace

void DeepSourceTable::clear() {
  ready = false;
  FilledLater<std::int32_t>().swap(reach);
  std::vector<std::int32_t>().swap(rowReach);
  FilledLater<std::int32_t>().swap(reachSided);
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
  table.window = deepReadWindow(frame.format, deep->deepInfo().box());
  if (table.right <= table.left || isEmptyArea(table.window))
    return table;
  // The window's rows that the box's rows, padded by the reach, clamp to: a window far taller
  // than the data costs no more than the data.
  table.bottom = clampInto(frame.box.y() - R, table.window.y(), table.window.t());
  table.top = clampInto(frame.box.t() - 1 + R, table.window.y(), table.window.t()) + 1;
  const int windowRows = table.top - table.bottom;
  const std::size_t rows = static_cast<std::size_t>(windowRows);
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
  parallelRows(windowRows, [&](int i) {
    if (!aborted && !fillRow(frame, table, deepChannels, table.bottom + i))
      aborted = true;
  });
  table.ready = !aborted;
  return table;
}

}  // namespace vorel
