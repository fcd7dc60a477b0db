#pragma once
// The row engines as they were before any speed work: the plain per-row loops, kept apart so
// that the production engines can be compared with them bit for bit. Only the equivalence test
// includes this, once.

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <vector>

#include "DDImage/Box.h"
#include "DDImage/Channel.h"
#include "DDImage/ChannelSet.h"
#include "DDImage/DeepOp.h"
#include "DDImage/DeepPixel.h"
#include "DDImage/DeepPlane.h"
#include "DDImage/Interest.h"
#include "DDImage/Iop.h"
#include "DDImage/Row.h"
#include "engines/DeepSamples.h"
#include "engines/OpticalArtefacts.h"
#include "engines/Slices.h"
#include "lens/CircleOfConfusion.h"
#include "lens/Kernel.h"
#include "node/tzVorel.h"
#include "previews/Previews.h"

namespace vorel {
namespace reference {

using namespace DD::Image;

// The slice accumulators and their merge were never changed for speed: the production ones serve.

namespace splat {

struct SplatContext {
  // `channels` is the row's request; only those also in the node's vorelChannels are kept.
  // The same from the pieces, for code that holds them without a node.
  SplatContext(const NodeParameters& params, const std::vector<Kernel>& kernelBank,
               const DD::Image::Box& format, const DD::Image::ChannelSet& channels);

  const NodeParameters& params;
  const Kernel* bank;
  unsigned bankSize;
  DD::Image::Box format;
  // Ascending: the channels of the request that have kernel planes and accumulators.
  std::vector<DD::Image::Channel> channelList;
};


namespace {

// A moved position is kept within this distance of 0, so that a NaN or huge shift (a bad matte or
// CoC) lands far outside every span instead of overflowing the integer arithmetic behind it.
constexpr int kPositionLimit = 1 << 30;

inline int truncatePosition(float v) {
  if (!(v > -static_cast<float>(kPositionLimit)))
    return -kPositionLimit;
  if (!(v < static_cast<float>(kPositionLimit)))
    return kPositionLimit;
  return static_cast<int>(v);
}

// The hot loop. Three disjoint arrays and independent elements: GCC turns this into four-wide
// SSE multiplies and adds, and the sums are the same as the scalar loop's, element for element.
inline void accumulate(float* __restrict P, float* __restrict Q, const float* __restrict K, float cw,
                       float w, int count) {
  for (int j = 0; j < count; ++j) {
    const float k = K[j];
    P[j] += cw * k;
    Q[j] += w * k;
  }
}

inline float shiftBase(const NodeParameters& p, Channel c) {
  const float a = p.kChrAbb;
  switch (c) {
    case DD::Image::Chan_Red: return std::fabs(a * p.kChrAbbOff[0]);
    case DD::Image::Chan_Green: return a > 0.0f ? std::fabs(a * p.kChrAbbOff[1]) : 0.0f;
    case DD::Image::Chan_Blue: return a < 0.0f ? std::fabs(a * p.kChrAbbOff[2]) : 0.0f;
    default: return 0.0f;
  }
}

int chromaticShift(const NodeParameters& p, int position, Channel c, float spread) {
  if (p.kChrAbb == 0.0f)
    return position;
  // The same shift goes to the column and the row: channels move along the image's diagonal.
  const float shift = (shiftBase(p, c) - std::fabs(p.kChrAbb) * 0.5f) * spread * 0.1f;
  return truncatePosition(static_cast<float>(position) + shift);
}

// Walk: a callable that calls its argument once per channel to splat, in ascending order.
template <class Walk>
inline void splatCore(const NodeParameters& p, const Kernel* bank, unsigned n, const DD::Image::Box& format,
                      int pixelX, int pixelY, int rowLeft, int rowY, int rowRight, int sourceX,
                      int sourceY, float coc, unsigned slice, float sampleWeight, const float* colours,
                      const ChannelPlanes* sliceColourPlanes, const ChannelPlanes* sliceWeightPlanes,
                      float bloomMatte, float chromaticMatte, Walk walk) {
  if (n == 0)
    return;
  const float strength = bloomRadialFactor(p, format, pixelX, pixelY) * bloomMatte;

  // floor(coc) taken unsigned: negative, NaN and too large all mean "the last entry, alone".
  unsigned i = n - 1;
  int passes = 1;
  float w0 = 1.0f;
  const float index = floorf(coc);
  if (index >= 0.0f && index < static_cast<float>(n)) {
    i = static_cast<unsigned>(index);
    passes = 2;
    w0 = 1.0f - (coc - static_cast<float>(bank[i].width)) * 0.5f;
  }

  const float spread = std::max(coc * chromaticMatte * 0.5f - 1.0f, 0.0f);
  const bool shifted = p.kChrAbb != 0.0f;
  const bool bloomOnly = p.outputType == OutputLensBloom;
  const float threshold = p.bloomThreshold;
  const ChannelPlanes& colourPlanes = sliceColourPlanes[slice];
  const ChannelPlanes& weightPlanes = sliceWeightPlanes[slice];

  for (int pass = 0; pass < passes; ++pass) {
    const float w = (pass == 0 ? w0 : 1.0f - w0) * sampleWeight;
    if (w <= 0.0f) {
      i += 2;
      continue;
    }
    unsigned e = i;
    if (e >= n)
      e = n - 1;
    if (e == 0)
      e = 1;  // entry 0 is never spread
    if (e >= n)
      e = n - 1;  // a one-entry bank has nothing else to offer
    const Kernel& kernel = bank[e];
    i = e + 2;
    const int h = kernel.half;
    const int width = kernel.width;

    // Without chromatic aberration every channel shares the position: most sources that don't
    // reach this row leave here, before the channel walk.
    if (!shifted) {
      const int dy = sourceY - rowY;
      if (dy > h || dy < -h || sourceX - rowRight > h || rowLeft - sourceX > h)
        continue;
    }

    walk([&](Channel c) {
      int sx = sourceX;
      int sy = sourceY;
      if (shifted) {
        sx = chromaticShift(p, sourceX, c, spread);
        sy = chromaticShift(p, sourceY, c, spread);
      }
      const int dy = sy - rowY;
      if (dy > h || dy < -h || sx - rowRight > h || rowLeft - sx > h)
        return;

      const int left = std::min(sx - rowLeft - h, 0);
      const int koff = (dy + h) * width - left;
      const int start = std::max(sx - h, rowLeft);
      int count = width + left;
      if (start + count > rowRight)
        count = rowRight - start;
      if (count <= 0)
        return;

      const float* K = kernel.plane(c);
      float* P = colourPlanes[c];
      float* Q = weightPlanes[c];
      if (!K || !P || !Q)
        return;

      float value = colours[c];
      if (c >= DD::Image::Chan_Red && c <= DD::Image::Chan_Blue) {
        const float b = std::max(0.0f, value - threshold) * strength;
        value = bloomOnly ? b : value + b;
      }
      accumulate(P + start, Q + start, K + koff, value * w, w, count);
    });
  }
}

}  // namespace



inline SplatContext::SplatContext(const NodeParameters& parameters, const std::vector<Kernel>& kernelBank,
                           const DD::Image::Box& formatBox, const ChannelSet& channels)
    : params(parameters),
      bank(kernelBank.data()),
      bankSize(static_cast<unsigned>(kernelBank.size())),
      format(formatBox) {
  foreach (c, channels) {
    if (parameters.vorelChannels.contains(c))
      channelList.push_back(c);
  }
}

inline void splatPixel(const SplatContext& context, int pixelX, int pixelY, int rowLeft, int rowY,
                int rowRight, int sourceX, int sourceY, float coc, unsigned slice,
                float sampleWeight, const float* colours, const ChannelPlanes* sliceColourPlanes,
                const ChannelPlanes* sliceWeightPlanes, float bloomMatte, float chromaticMatte) {
  const Channel* first = context.channelList.data();
  const Channel* last = first + context.channelList.size();
  splatCore(context.params, context.bank, context.bankSize, context.format, pixelX, pixelY, rowLeft,
            rowY, rowRight, sourceX, sourceY, coc, slice, sampleWeight, colours, sliceColourPlanes,
            sliceWeightPlanes, bloomMatte, chromaticMatte, [first, last](auto&& body) {
              for (const Channel* c = first; c != last; ++c)
                body(*c);
            });
}

}  // namespace splat
using splat::splatPixel;
using splat::SplatContext;

namespace flat {


namespace {

bool passesFocusGate(int focusOutput, DepthSide side) {
  switch (focusOutput) {
    case FocusFront: return side == DepthSideFront;
    case FocusBack: return side != DepthSideFront;
    default: return true;
  }
}

float readOr(const float* plane, int column, float fallback) {
  return plane ? plane[column] : fallback;
}

}  // namespace

inline void flatRowEngine(const tzVorel& node, int y, int x, int r, const ChannelSet& channels, Row& out) {
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
  const SplatContext context(node.params, node.kernelBank, node.formatBox(), channels);
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

  Iop* matteInput = node.matteChannels.empty() ? nullptr : node.input(4);

  float colours[kChannelSlots] = {};
  std::vector<const float*> colourPlanes(splatChannels.size());

  for (int sy = y - R; sy <= y + R; ++sy) {
    // Rows beyond the box repeat its edge row, but spread from their own position.
    const int fy = std::max(bottom, std::min(top, sy));

    Row sourceRow(left, right);
    sourceRow.get(*source, fy, left, right, sourceChannels);
    for (std::size_t k = 0; k < splatChannels.size(); ++k)
      colourPlanes[k] = sourceRow[splatChannels[k]];
    const float* depthPlane = sourceRow[depthChannel];

    Row matteRow(left, right);
    const float* bloomPlane = nullptr;
    const float* defocusPlane = nullptr;
    const float* chromaticPlane = nullptr;
    if (matteInput) {
      matteRow.get(*matteInput, fy, left, right, node.matteChannels);
      if (node.useBloomMatte)
        bloomPlane = matteRow[p.bloomMatteChannel];
      if (node.useDefocusMatte)
        defocusPlane = matteRow[p.defocusMatteChannel];
      if (node.useChromaticMatte)
        chromaticPlane = matteRow[p.chromicAberrationMatteChannel];
    }

    // The depth column is clamped to the format, so a span wholly beyond the format on one side
    // reads a column it did not fetch; there is only ever one such column per source row.
    int outsideColumn = 0;
    float outsideDepth = 0.0f;
    bool haveOutside = false;

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
      if (!passesFocusGate(p.focusOutput, side))
        continue;
      const unsigned slice = sliceForDepth(N, node.sliceBoundaries, depth);

      // Mattes are read where the source pixel is, not at the clamped column.
      const float bloomMatte = readOr(bloomPlane, sx, 1.0f);
      const float defocusMatte = readOr(defocusPlane, sx, 1.0f);
      const float chromaticMatte = readOr(chromaticPlane, sx, 1.0f);

      for (std::size_t k = 0; k < splatChannels.size(); ++k)
        colours[splatChannels[k]] = readOr(colourPlanes[k], sx, 0.0f);

      splatPixel(context, cx, fy, x, y, r, sx, sy, std::max(coc * defocusMatte, 1.0f), slice, 1.0f,
                 colours, slices.colourPlanes.data(), slices.weightPlanes.data(), bloomMatte,
                 chromaticMatte);
    }
  }

  mergeSlices(slices, out, x, r, channels, p.vorelChannels);
}

}  // namespace flat
using flat::flatRowEngine;

namespace deep {


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

inline void deepRowEngine(const tzVorel& node, int y, int x, int r, const ChannelSet& channels, Row& row,
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
  const SplatContext context(node.params, node.kernelBank, node.formatBox(), channels);
  const ChannelPlanes* colourPlanes = slices.colourPlanes.data();
  const ChannelPlanes* weightPlanes = slices.weightPlanes.data();

  const int radius = node.kernelRadius;
  const int paddedLeft = x - radius;
  const int paddedRight = r + radius;
  const int paddedBottom = y - radius;
  const int paddedTop = y + radius;

  DeepOp* deep = node.deepInput();
  if (deep && input && radius >= 0 && !node.kernelBank.empty()) {
    const Channel sampleDepthChannel =
        p.depthChannel == Chan_DeepBack ? Chan_DeepBack : Chan_DeepFront;
    ChannelSet deepChannels = deep->deepInfo().channels();
    deepChannels &= workChannels;
    deepChannels -= Chan_Z;
    deepChannels += Chan_Alpha;
    deepChannels += Chan_DeepFront;
    deepChannels += Chan_DeepBack;

    // The far limit is what no piece covers: transparent black at the background's blur.
    float farDepth = kFarLimit;
    if (!p.realWorldLens)
      farDepth = clampToRegion(p, farDepth);
    const unsigned backgroundSlice = sliceForDepth(p.correctiveSlices, node.sliceBoundaries, farDepth);
    DepthSide farSide;
    const float backgroundCoC = std::max(depthToCoC(p, node.maxCoC, farDepth, farSide), 1.0f);

    const Box format = node.formatBox();
    const int fw = format.r() - format.x();
    const int fh = format.t() - format.y();

    Iop* matteInput = node.matteChannels.empty() ? nullptr : node.input(4);

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
    Row paddedMattes(paddedLeft, paddedRight);

    for (int sourceY = paddedBottom; sourceY <= paddedTop; ++sourceY) {
      const int pixelY = clampTo(sourceY, fh - 1);
      const int fetchLeft = std::max(0, std::min(fw, paddedLeft));
      const int fetchRight = std::max(0, std::min(fw, paddedRight));

      paddedInput.get(*input, pixelY, paddedLeft, paddedRight, channels);
      if (matteInput)
        paddedMattes.get(*matteInput, pixelY, paddedLeft, paddedRight, node.matteChannels);

      if (!deep->deepEngine(Box(fetchLeft, pixelY, fetchRight, pixelY + 1), deepChannels, plane))
        continue;

      const Box planeBox = plane.box();
      const ChannelMap& planeMap = plane.channels();
      const ChannelSet planeChannels = planeMap.channelSet();
      // The pieces are laid out by the plane's map, so their channels are the plane's.
      ChannelSet pieceChannels = planeChannels;
      pieceChannels &= workChannels;
      listChannels(pieceChannels, pieceList);
      for (const Channel c : requested)
        inputPlanes[c] = paddedInput[c];

      const float* bloomMattes = node.useBloomMatte ? paddedMattes[p.bloomMatteChannel] : nullptr;
      const float* defocusMattes =
          node.useDefocusMatte ? paddedMattes[p.defocusMatteChannel] : nullptr;
      const float* chromaticMattes =
          node.useChromaticMatte ? paddedMattes[p.chromicAberrationMatteChannel] : nullptr;

      for (int sourceX = paddedLeft; sourceX < paddedRight; ++sourceX) {
        const int pixelX = clampTo(sourceX, fw - 1);
        if (pixelX < planeBox.x() || pixelX >= planeBox.r() || pixelY < planeBox.y() ||
            pixelY >= planeBox.t())
          continue;
        // Only a plane wider than asked for could hold a column the padded rows lack.
        if (pixelX < paddedLeft || pixelX >= paddedRight)
          continue;

        const float bloomMatte = bloomMattes ? bloomMattes[sourceX] : 1.0f;
        const float defocusMatte = defocusMattes ? defocusMattes[sourceX] : 1.0f;
        const float chromaticMatte = chromaticMattes ? chromaticMattes[sourceX] : 1.0f;

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
          float depth = pieceView.getOrderedSample(i, sampleDepthChannel);
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

  mergeSlices(slices, row, x, r, channels, p.vorelChannels);
}

}  // namespace deep
using deep::deepRowEngine;

inline void unrenderedRow(Iop& input, int y, int x, int r, const ChannelSet& channels,
                   const ChannelSet& vorelChannels, Row& row) {
  Row inRow(x, r);
  inRow.get(input, y, x, r, channels);
  row.copy(inRow, channels, x, r);
  foreach (z, channels) {
    if (!vorelChannels.contains(z))
      continue;
    float* out = row.writable(z);
    std::fill(out + x, out + r, 0.0f);
  }
}

inline void engine(const tzVorel& node, int y, int x, int r, const ChannelSet& channels, Row& row) {
  ChannelSet fetchChannels = channels;
  fetchChannels += node.params.vorelChannels;
  fetchChannels += node.params.depthChannel;
  fetchChannels += Chan_Alpha;


  Iop& source = *node.input(0);
  Interest interest(source, fetchChannels, false, nullptr);

  const bool needsBank = node.params.outputType == OutputDefocusedImage || node.params.outputType == OutputLensBloom;
  const bool known = node.params.outputType >= OutputDefocusedImage && node.params.outputType <= OutputFocusMatte;
  if (!known || (needsBank && (!node.kernelsReady() || node.kernelBank.empty())) ||
      (node.params.outputType == OutputFilterShape && !node.kernelsReady())) {
    unrenderedRow(source, y, x, r, channels, node.params.vorelChannels, row);
    return;
  }

  switch (node.params.outputType) {
    case OutputFocalDistance:
    case OutputFocusMatte:
      if (node.params.hasDeepInput)
        vorel::deepPreviewRow(node, y, x, r, channels, row);
      else
        vorel::flatPreviewRow(node, y, x, r, channels, row);
      return;
    case OutputFilterShape:
      vorel::filterShapeRow(node, y, x, r, channels, row);
      return;
    default:
      break;
  }

  if (!node.params.hasDeepInput) {
    flatRowEngine(node, y, x, r, channels, row);
    return;
  }

  Row inRow(x, r);
  inRow.get(source, y, x, r, channels);
  row.copy(inRow, channels, x, r);

  if (!node.params.integrateFrontAndBackSeperately) {
    deepRowEngine(node, y, x, r, channels, row, DepthSideNone);
    return;
  }

  const int focusOutput = node.params.focusOutput;
  // The composite reads the front pass's alpha, so that pass computes alpha even when the
  // request has none.
  ChannelSet frontChannels = channels;
  frontChannels += Chan_Alpha;
  Row frontRow(x, r);
  if (focusOutput != FocusBack)
    deepRowEngine(node, y, x, r, frontChannels, frontRow, DepthSideFront);
  Row backRow(x, r);
  if (focusOutput != FocusFront)
    deepRowEngine(node, y, x, r, channels, backRow, DepthSideBack);

  const float* frontAlpha = frontRow[Chan_Alpha];
  foreach (z, channels) {
    if (!node.params.vorelChannels.contains(z))
      continue;
    float* out = row.writable(z);
    const float* front = frontRow[z];
    const float* back = backRow[z];
    for (int i = x; i < r; ++i) {
      out[i] = 0.0f;
      if (focusOutput != FocusFront)
        out[i] = back[i];
      if (focusOutput != FocusBack)
        out[i] = (1.0f - frontAlpha[i]) * out[i] + front[i];
    }
  }
}

}  // namespace reference
}  // namespace vorel
