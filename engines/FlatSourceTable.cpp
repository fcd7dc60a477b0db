#include "engines/FlatSourceTable.h"

#include <algorithm>
#include <climits>
#include <cmath>

#include "DDImage/Iop.h"
#include "DDImage/Row.h"
#include "DDImage/Thread.h"
#include "engines/FlatRowEngine.h"
#include "engines/OpticalArtefacts.h"
#include "engines/Slices.h"
#include "lens/CircleOfConfusion.h"
#include "node/tzVorel.h"

using DD::Image::Channel;
using DD::Image::ChannelSet;
using DD::Image::Iop;
using DD::Image::Row;

namespace vorel {

namespace {

// Far more than any kernel reaches, and still safe to compare with a row distance.
constexpr std::int32_t kReachAll = INT_MAX / 2;

struct Build {
  const tzVorel* node;
  FlatSourceTable* table;
};

// The entry a pass would use, as the splat clamps it.
unsigned clampEntry(unsigned e, unsigned n) {
  e = std::min(e, n - 1);
  if (e == 0)
    e = 1;
  return std::min(e, n - 1);
}

}  // namespace

std::int32_t flatKernelReach(const std::vector<Kernel>& bank, float coc) {
  const unsigned n = static_cast<unsigned>(bank.size());
  unsigned i = n - 1;
  const float index = floorf(coc);
  if (index >= 0.0f && index < static_cast<float>(n))
    i = static_cast<unsigned>(index);
  const unsigned first = clampEntry(i, n);
  const unsigned entries[3] = {first, clampEntry(first + 2, n), clampEntry(i + 2, n)};
  std::int32_t reach = 0;
  for (unsigned e : entries)
    reach = std::max(reach, static_cast<std::int32_t>(bank[e].half));
  return reach;
}

namespace {

void buildRows(unsigned index, unsigned nThreads, void* data) {
  const Build& b = *static_cast<const Build*>(data);
  const tzVorel& node = *b.node;
  FlatSourceTable& t = *b.table;
  const NodeParameters& p = node.params;
  Iop* source = node.input(0);
  const int N = p.correctiveSlices;
  const int fw = node.formatBox().r() - node.formatBox().x();
  const Channel depthChannel = p.depthChannel;
  ChannelSet depthOnly;
  depthOnly += depthChannel;
  const std::size_t width = static_cast<std::size_t>(t.right - t.left);

  // Chromatic aberration moves a channel by at most this much per unit of spread.
  const float a = std::fabs(p.kChrAbb);
  const float offset =
      std::max({std::fabs(p.kChrAbbOff[0]), std::fabs(p.kChrAbbOff[1]), std::fabs(p.kChrAbbOff[2])});
  const float shiftPerSpread = (a * offset + a * 0.5f) * 0.1f;

  // The depth is read at the clamped column, so the fetch spans the format as well.
  const int depthLeft = std::min(t.left, 0);
  const int depthRight = std::max(t.right, fw);
  for (int fy = t.bottom + static_cast<int>(index); fy <= t.top; fy += static_cast<int>(nThreads)) {
    Row depthRow(depthLeft, depthRight);
    depthRow.get(*source, fy, depthLeft, depthRight, depthOnly);
    const float* depthPlane = depthRow[depthChannel];
    MatteRow mattes(t.left, t.right);
    mattes.fetch(node, fy);

    std::int32_t rowReach = -1;
    const std::size_t base = static_cast<std::size_t>(fy - t.bottom) * width;
    for (int sx = t.left; sx < t.right; ++sx) {
      const std::size_t k = base + static_cast<std::size_t>(sx - t.left);
      const int cx = std::max(0, std::min(fw - 1, sx));
      float depth = conditionFlatDepth(p, depthPlane ? depthPlane[cx] : 0.0f);
      if (!p.realWorldLens)
        depth = clampToRegion(p, depth);
      DepthSide side;
      const float coc = depthToCoC(p, node.maxCoC, depth, side);
      const float defocusMatte = mattes.at(sx).defocus;
      t.coc[k] = std::max(coc * defocusMatte, 1.0f);
      t.slice[k] = sliceForDepth(N, node.sliceBoundaries, depth);
      if (!flatFocusGatePasses(p.focusOutput, side) || node.kernelBank.empty()) {
        t.reach[k] = -1;
        continue;
      }
      std::int32_t reach = flatKernelReach(node.kernelBank, t.coc[k]);
      if (p.kChrAbb != 0.0f) {
        const float chromaticMatte = mattes.at(sx).chromatic;
        const float spread = std::max(t.coc[k] * chromaticMatte * 0.5f - 1.0f, 0.0f);
        const float shift = shiftPerSpread * spread;
        // Truncation can add one more row; a shift past any image is kept as reaching everything.
        reach = shift < 1.0e6f ? reach + static_cast<std::int32_t>(shift) + 2 : kReachAll;
      }
      t.reach[k] = reach;
      rowReach = std::max(rowReach, reach);
    }
    t.rowReach[static_cast<std::size_t>(fy - t.bottom)] = rowReach;
  }
}

}  // namespace

void FlatSourceTable::clear() {
  ready = false;
  std::vector<float>().swap(coc);
  std::vector<std::uint32_t>().swap(slice);
  std::vector<std::int32_t>().swap(reach);
  std::vector<std::int32_t>().swap(rowReach);
}

void buildFlatSourceTable(const tzVorel& node, FlatSourceTable& table) {
  table.clear();
  Iop* source = node.input(0);
  if (!source)
    return;
  const int R = std::max(0, node.kernelRadius);
  const DD::Image::Box box = node.info().box();
  table.left = box.x() - R;
  table.right = box.r() + R;
  table.bottom = source->info().y();
  table.top = source->info().t();
  if (table.right <= table.left || table.top < table.bottom)
    return;
  const std::size_t rows = static_cast<std::size_t>(table.top - table.bottom) + 1;
  const std::size_t count = rows * static_cast<std::size_t>(table.right - table.left);
  table.coc.resize(count);
  table.slice.resize(count);
  table.reach.resize(count);
  table.rowReach.assign(rows, -1);
  Build build{&node, &table};
  const unsigned threads = std::max(1u, std::min<unsigned>(DD::Image::Thread::numCPUs, static_cast<unsigned>(rows)));
  DD::Image::Thread::spawn(buildRows, threads, &build);
  DD::Image::Thread::wait(&build);
  table.ready = true;
}

}  // namespace vorel
