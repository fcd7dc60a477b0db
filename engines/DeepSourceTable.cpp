#include "engines/DeepSourceTable.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>

#include "DDImage/Box.h"
#include "DDImage/DeepOp.h"
#include "DDImage/DeepPixel.h"
#include "DDImage/DeepPlane.h"
#include "DDImage/Iop.h"
#include "DDImage/Row.h"
#include "DDImage/Thread.h"
#include "engines/DeepSamples.h"
#include "engines/FlatSourceTable.h"
#include "engines/OpticalArtefacts.h"
#include "lens/CircleOfConfusion.h"
#include "node/tzVorel.h"

using namespace DD::Image;

namespace vorel {

namespace {

constexpr std::int32_t kReachAll = INT_MAX / 2;
// The engine's walk through a pixel stops once less than this is left uncovered.
constexpr float kOpaque = 1e-6f;

struct Build {
  const tzVorel* node;
  DeepSourceTable* table;
  std::atomic<bool> aborted{false};
};

void buildRows(unsigned index, unsigned nThreads, void* data) {
  Build& b = *static_cast<Build*>(data);
  const tzVorel& node = *b.node;
  DeepSourceTable& t = *b.table;
  const NodeParameters& p = node.params;
  DeepOp* deep = node.deepInput();
  const Box format = node.formatBox();
  const int fw = format.r() - format.x();
  const std::size_t width = static_cast<std::size_t>(t.right - t.left);

  const Channel depthChannel = sampleDepthChannel(p.depthChannel);
  // Piece depths come from the samples' fronts and backs alone; the colour channels ride along.
  ChannelSet deepChannels = deep->deepInfo().channels();
  deepChannels &= p.vorelChannels;
  deepChannels -= Chan_Z;
  deepChannels += Chan_Alpha;
  deepChannels += Chan_DeepFront;
  deepChannels += Chan_DeepBack;

  const float farDepth = farLimitDepth(p);
  DepthSide farSide;
  const float backgroundCoC = std::max(depthToCoC(p, node.maxCoC, farDepth, farSide), 1.0f);

  const float a = std::fabs(p.kChrAbb);
  const float offset =
      std::max({std::fabs(p.kChrAbbOff[0]), std::fabs(p.kChrAbbOff[1]), std::fabs(p.kChrAbbOff[2])});
  const float shiftPerSpread = (a * offset + a * 0.5f) * 0.1f;
  auto withShift = [&](std::int32_t reach, float coc, float chromaticMatte) {
    if (p.kChrAbb == 0.0f)
      return reach;
    const float shift = shiftPerSpread * std::max(coc * chromaticMatte * 0.5f - 1.0f, 0.0f);
    return shift < 1.0e6f ? reach + static_cast<std::int32_t>(shift) + 2 : kReachAll;
  };

  DeepPlane plane;
  DeepOutPixel pieces;
  for (int pixelY = static_cast<int>(index); pixelY < t.rows; pixelY += static_cast<int>(nThreads)) {
    std::int32_t* reach = t.reach.data() + static_cast<std::size_t>(pixelY) * width;
    std::fill(reach, reach + width, -1);
    std::fill(t.reachSided.data() + static_cast<std::size_t>(pixelY) * width,
              t.reachSided.data() + static_cast<std::size_t>(pixelY + 1) * width, -1);
    // false: the render is aborted, and a half-built table must not be used.
    if (b.aborted || !deep->deepEngine(Box(0, pixelY, fw, pixelY + 1), deepChannels, plane)) {
      b.aborted = true;
      return;
    }
    MatteRow mattes(t.left, t.right);
    mattes.fetch(node, pixelY);
    const Box planeBox = plane.box();
    const ChannelMap& planeMap = plane.channels();
    const ChannelSet planeChannels = planeMap;
    // The pixel's pieces, one column of the format at a time; the matte varies by source column.
    std::vector<float> pieceCoCs;
    std::size_t walked = 0;  // pieces the walk over all of them spreads before it stops
    bool remainder = true;
    int preparedX = INT_MIN;
    std::int32_t rowReach = -1, rowReachSided = -1;
    for (int sourceX = t.left; sourceX < t.right; ++sourceX) {
      const int pixelX = std::max(0, std::min(fw - 1, sourceX));
      if (pixelX < planeBox.x() || pixelX >= planeBox.r() || pixelY < planeBox.y() || pixelY >= planeBox.t())
        continue;
      if (pixelX != preparedX) {
        pieceCoCs.clear();
        pieces.clear();
        prepareDeepSamples(planeChannels, plane.getPixel(pixelY, pixelX), pieces);
        const DeepPixel view = pieces.getPixel(planeMap, DeepPixel::eZDescending);
        // The same walk as the engine's with every piece taken: where it stops, and whether a
        // remainder follows.
        float transmittance = 1.0f;
        float coveredAlpha = 0.0f;
        walked = view.getSampleCount();
        for (std::size_t i = 0; i < view.getSampleCount(); ++i) {
          float depth = view.getOrderedSample(i, depthChannel);
          if (!p.realWorldLens)
            depth = clampToRegion(p, depth);
          DepthSide side;
          pieceCoCs.push_back(depthToCoC(p, node.maxCoC, depth, side));
          if (i >= walked)
            continue;
          const float alpha = view.getOrderedSample(i, Chan_Alpha);
          const float weight = alpha * transmittance;
          coveredAlpha += weight;
          transmittance = 1.0f - coveredAlpha;
          if (kOpaque > transmittance)
            walked = i + 1;
        }
        remainder = 1.0f > coveredAlpha;
        preparedX = pixelX;
      }
      const float defocusMatte = mattes.at(sourceX).defocus;
      const float chromaticMatte = mattes.at(sourceX).chromatic;
      const std::int32_t background =
          withShift(flatKernelReach(node.kernelBank, backgroundCoC), backgroundCoC, 1.0f);
      std::int32_t r = remainder ? background : -1;
      std::int32_t sided = background;
      for (std::size_t i = 0; i < pieceCoCs.size(); ++i) {
        const float coc = std::max(pieceCoCs[i] * defocusMatte, 1.0f);
        const std::int32_t pieceReach = withShift(flatKernelReach(node.kernelBank, coc), coc, chromaticMatte);
        sided = std::max(sided, pieceReach);
        if (i < walked)
          r = std::max(r, pieceReach);
      }
      t.reachSided[static_cast<std::size_t>(pixelY) * width + static_cast<std::size_t>(sourceX - t.left)] = sided;
      rowReachSided = std::max(rowReachSided, sided);
      reach[sourceX - t.left] = r;
      rowReach = std::max(rowReach, r);
    }
    t.rowReach[static_cast<std::size_t>(pixelY)] = rowReach;
    t.rowReachSided[static_cast<std::size_t>(pixelY)] = rowReachSided;
  }
}

}  // namespace

void DeepSourceTable::clear() {
  ready = false;
  std::vector<std::int32_t>().swap(reach);
  std::vector<std::int32_t>().swap(rowReach);
  std::vector<std::int32_t>().swap(reachSided);
  std::vector<std::int32_t>().swap(rowReachSided);
}

void buildDeepSourceTable(const tzVorel& node, DeepSourceTable& table) {
  table.clear();
  if (!node.deepInput() || node.kernelBank.empty() || node.kernelRadius < 0)
    return;
  const int R = node.kernelRadius;
  const DD::Image::Box box = node.info().box();
  const Box format = node.formatBox();
  table.left = box.x() - R;
  table.right = box.r() + R;
  table.rows = format.t() - format.y();
  if (table.right <= table.left || table.rows <= 0 || format.r() <= format.x())
    return;
  const std::size_t rows = static_cast<std::size_t>(table.rows);
  table.reach.resize(rows * static_cast<std::size_t>(table.right - table.left));
  table.rowReach.assign(rows, -1);
  table.reachSided.resize(table.reach.size());
  table.rowReachSided.assign(rows, -1);
  Build build{&node, &table};
  const unsigned threads = std::max(1u, std::min<unsigned>(Thread::numCPUs, static_cast<unsigned>(rows)));
  Thread::spawn(buildRows, threads, &build);
  Thread::wait(&build);
  table.ready = !build.aborted;
}

}  // namespace vorel
