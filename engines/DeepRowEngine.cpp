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
#include "engines/OpticalArtefacts.h"
#include "engines/Slices.h"
#include "engines/SplatContext.h"
#include "lens/CircleOfConfusion.h"
#include "node/tzVorel.h"

using namespace DD::Image;

namespace vorel {

namespace {

// The walk through a pixel stops once less than this is left uncovered.
constexpr float kOpaque = 1e-6f;

int clampTo(int value, int last) { return std::max(0, std::min(last, value)); }

// A set as a plain list, so the pixel loops don't walk the set's bit words.
void listChannels(const ChannelSet& set, std::vector<Channel>& list) {
  list.clear();
  foreach (c, set)
    list.push_back(c);
}

}  // namespace

void deepRowEngine(const tzVorel& node, int y, int x, int r, const ChannelSet& channels, Row& row,
                   int side) {
  if (r <= x)
    return;
  const NodeParameters& p = node.params;
  Iop* input = node.input(0);

  ChannelSet workChannels = channels;
  workChannels &= p.vorelChannels;
  workChannels += Chan_Alpha;

  // Channels outside vorelChannels come out as the input; the merge overwrites the others.
  if (input) {
    Row inputRow(x, r);
    inputRow.get(*input, y, x, r, channels);
    row.copy(inputRow, channels, x, r);
  }

  // Only requested channels are ever spread or merged: the others need no accumulators.
  ChannelSet spread = channels;
  spread &= p.vorelChannels;
  if (spread.empty())
    return;
  SliceAccumulators slices(p.correctiveSlices, x, r, spread);
  const SplatContext context(node, channels);
  const ChannelPlanes* colourPlanes = slices.colourPlanes.data();
  const ChannelPlanes* weightPlanes = slices.weightPlanes.data();

  const int radius = node.kernelRadius;
  const int paddedLeft = x - radius;
  const int paddedRight = r + radius;
  const int paddedBottom = y - radius;
  const int paddedTop = y + radius;

  // Without kernels (not opened since the last validation) nothing can be spread.
  DeepOp* deep = node.deepInput();
  if (deep && input && radius >= 0 && !node.kernelBank.empty()) {
    const Channel depthOfPiece = sampleDepthChannel(p.depthChannel);
    ChannelSet deepChannels = deep->deepInfo().channels();
    deepChannels &= workChannels;
    deepChannels -= Chan_Z;
    deepChannels += Chan_Alpha;
    deepChannels += Chan_DeepFront;
    deepChannels += Chan_DeepBack;

    // The far limit is what no piece covers: transparent black at the background's blur.
    const float farDepth = farLimitDepth(p);
    const unsigned backgroundSlice = sliceForDepth(p.correctiveSlices, node.sliceBoundaries, farDepth);
    DepthSide farSide;
    const float backgroundCoC = std::max(depthToCoC(p, node.maxCoC, farDepth, farSide), 1.0f);

    const Box format = node.formatBox();
    const int fw = format.r() - format.x();
    const int fh = format.t() - format.y();


    std::vector<Channel> requested, pieceList;
    listChannels(channels, requested);
    pieceList.reserve(requested.size() + 1);
    std::array<const float*, 1024> inputPlanes{};
    std::array<float, 1024> colours{};
    DeepOutPixel pieces;
    pieces.reserve(64);
    DeepPlane plane;
    // Both rows are refilled over their whole span for every source row.
    Row paddedInput(paddedLeft, paddedRight);
    MatteRow paddedMattes(paddedLeft, paddedRight);

    // The frame's table tells which deep pixels can reach this row at all; the others, and whole
    // source rows of them, are passed over before they are fetched or cut into pieces.
    const DeepSourceTable& table = node.deepSources;
    const bool tabled = table.ready && paddedLeft >= table.left && paddedRight <= table.right &&
                        table.rows == fh;
    const std::size_t tableWidth = static_cast<std::size_t>(table.right - table.left);

    for (int sourceY = paddedBottom; sourceY <= paddedTop; ++sourceY) {
      const int pixelY = clampTo(sourceY, fh - 1);
      const int distance = sourceY > y ? sourceY - y : y - sourceY;
      const std::int32_t* reach = nullptr;
      if (tabled && pixelY >= 0) {
        const bool allPieces = side == DepthSideNone;
        if ((allPieces ? table.rowReach : table.rowReachSided)[static_cast<std::size_t>(pixelY)] < distance)
          continue;
        reach = (allPieces ? table.reach : table.reachSided).data() + static_cast<std::size_t>(pixelY) * tableWidth;
      }
      const int fetchLeft = std::max(0, std::min(fw, paddedLeft));
      const int fetchRight = std::max(0, std::min(fw, paddedRight));

      paddedInput.get(*input, pixelY, paddedLeft, paddedRight, channels);
      paddedMattes.fetch(node, pixelY);

      // false means the render is aborted: nothing more is fetched, nothing merged.
      if (!deep->deepEngine(Box(fetchLeft, pixelY, fetchRight, pixelY + 1), deepChannels, plane))
        return;

      const Box planeBox = plane.box();
      const ChannelMap& planeMap = plane.channels();
      const ChannelSet planeChannels = planeMap;
      // The pieces are laid out by the plane's map, so their channels are the plane's.
      ChannelSet pieceChannels = planeChannels;
      pieceChannels &= workChannels;
      listChannels(pieceChannels, pieceList);
      for (const Channel c : requested)
        inputPlanes[c] = paddedInput[c];


      for (int sourceX = paddedLeft; sourceX < paddedRight; ++sourceX) {
        if (reach && reach[sourceX - table.left] < distance)
          continue;
        const int pixelX = clampTo(sourceX, fw - 1);
        if (pixelX < planeBox.x() || pixelX >= planeBox.r() || pixelY < planeBox.y() ||
            pixelY >= planeBox.t())
          continue;
        // Only a plane wider than asked for could hold a column the padded rows lack.
        if (pixelX < paddedLeft || pixelX >= paddedRight)
          continue;

        const MatteValues matte = paddedMattes.at(sourceX);
        const float bloomMatte = matte.bloom;
        const float defocusMatte = matte.defocus;
        const float chromaticMatte = matte.chromatic;

        // Channels the deep pixel lacks are spread with the flat input's value.
        for (const Channel c : requested)
          colours[c] = inputPlanes[c][pixelX];

        pieces.clear();
        prepareDeepSamples(planeChannels, plane.getPixel(pixelY, pixelX), pieces);
        const DeepPixel pieceView = pieces.getPixel(planeMap, DeepPixel::eZDescending);
        const std::size_t pieceCount = pieceView.getSampleCount();

        // Held as one minus a running sum, so that the weights and the remainder add up to 1.
        float transmittance = 1.0f;
        float coveredAlpha = 0.0f;
        for (std::size_t i = 0; i < pieceCount; ++i) {
          float depth = pieceView.getOrderedSample(i, depthOfPiece);
          const float alpha = pieceView.getOrderedSample(i, Chan_Alpha);
          // Un-premultiplied: the weight alone carries the coverage.
          for (const Channel c : pieceList)
            colours[c] = pieceView.getOrderedSample(i, c) / alpha;
          const float weight = alpha * transmittance;
          if (!p.realWorldLens)
            depth = clampToRegion(p, depth);
          const unsigned slice = sliceForDepth(p.correctiveSlices, node.sliceBoundaries, depth);
          DepthSide pieceSide;
          const float coc = std::max(depthToCoC(p, node.maxCoC, depth, pieceSide) * defocusMatte, 1.0f);
          if (side != 0 && side != pieceSide)
            continue;
          splatPixel(context, pixelX, pixelY, x, y, r, sourceX, sourceY, coc, slice, weight,
                     colours.data(), colourPlanes, weightPlanes, bloomMatte, chromaticMatte);
          coveredAlpha += weight;
          transmittance = 1.0f - coveredAlpha;
          if (kOpaque > transmittance)
            break;
        }

        if (1.0f > coveredAlpha) {
          for (const Channel c : requested)
            colours[c] = 0.0f;
          splatPixel(context, pixelX, pixelY, x, y, r, sourceX, sourceY, backgroundCoC,
                     backgroundSlice, 1.0f - coveredAlpha, colours.data(), colourPlanes,
                     weightPlanes, 0.0f, 1.0f);
        }
      }
    }
  }

  shareWeights(context, slices, x, r);
  mergeSlices(slices, row, x, r, channels, p.vorelChannels);
}

}  // namespace vorel
