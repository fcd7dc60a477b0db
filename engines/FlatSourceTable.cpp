#include "engines/FlatSourceTable.h"

#include <algorithm>
#include <climits>
#include <cmath>

#include "DDImage/Iop.h"
#include "DDImage/Row.h"
#include "engines/Frame.h"
#include "engines/FlatRowEngine.h"
#include "engines/OpticalArtefacts.h"
#include "lens/KernelBank.h"
#include "lens/ParallelRows.h"
#include "lens/ReadWindow.h"

using DD::Image::Channel;
using DD::Image::ChannelSet;
using DD::Image::Iop;
using DD::Image::Row;

namespace vorel {

namespace {

// Far more than any kernel reaches, and still safe to compare with a row distance.
constexpr std::int32_t kReachAll = INT_MAX / 2;

// One source row fy of the table.
void fillRow(const Frame& frame, FlatSourceTable& t, int fy) {
  const NodeParameters& p = frame.params;
  const DD::Image::Box& format = frame.format;
  const Channel depthChannel = p.depthChannel;
  ChannelSet depthOnly;
  depthOnly += depthChannel;
  const std::size_t width = static_cast<std::size_t>(t.right - t.left);

  // The depth is read at the column clamped to the format: within the span, or, where the format
  // lies wholly to one side of it, its one edge column, fetched by itself so that the fetch never
  // spans the gap between them.
  Row depthRow(t.left, t.right);
  depthRow.get(*frame.inputs.source, fy, t.left, t.right, depthOnly);
  const float* depthPlane = depthRow[depthChannel];
  const int edge = clampInto(t.left, format.x(), format.r());
  float edgeDepth = 0.0f;
  if (edge < t.left || edge >= t.right) {
    Row column(edge, edge + 1);
    column.get(*frame.inputs.source, fy, edge, edge + 1, depthOnly);
    edgeDepth = column[depthChannel] ? column[depthChannel][edge] : 0.0f;
  }
  MatteRow mattes(t.left, t.right);
  mattes.fetch(frame, fy);

  std::int32_t rowReach = -1;
  const std::size_t base = static_cast<std::size_t>(fy - t.bottom) * width;
  for (int sx = t.left; sx < t.right; ++sx) {
    const std::size_t k = base + static_cast<std::size_t>(sx - t.left);
    const int cx = clampInto(sx, format.x(), format.r());
    const float depth = cx < t.left || cx >= t.right ? edgeDepth : depthPlane ? depthPlane[cx] : 0.0f;
    const LensSample lens = frame.sample(depth, DepthSource::FlatChannel);
    const MatteValues matte = mattes.at(sx);
    t.coc[k] = std::max(lens.coc * matte.defocus, 1.0f);
    t.slice[k] = lens.slice;
    if (!flatFocusGatePasses(p.focusOutput, lens.side) || frame.kernelBank.empty()) {
      t.reach[k] = -1;
      continue;
    }
    t.reach[k] = sourceReach(p, frame.kernelBank, t.coc[k], matte.chromatic);
    rowReach = std::max(rowReach, t.reach[k]);
  }
  t.rowReach[static_cast<std::size_t>(fy - t.bottom)] = rowReach;
}

}  // namespace

std::int32_t sourceReach(const NodeParameters& p, const std::vector<Kernel>& bank, float coc, float chromaticMatte) {
  const std::int32_t reach = kernelBlendReach(bank, coc);
  if (p.kChrAbb == 0.0f)
    return reach;
  // Chromatic aberration moves a channel by at most this much per unit of spread.
  const float a = std::fabs(p.kChrAbb);
  const float offset =
      std::max({std::fabs(p.kChrAbbOff[0]), std::fabs(p.kChrAbbOff[1]), std::fabs(p.kChrAbbOff[2])});
  const float shiftPerSpread = (a * offset + a * 0.5f) * 0.1f;
  const float shift = shiftPerSpread * std::max(coc * chromaticMatte * 0.5f - 1.0f, 0.0f);
  // Truncation can add one more row; a shift past any image is kept as reaching everything.
  return shift < 1.0e6f ? reach + static_cast<std::int32_t>(shift) + 2 : kReachAll;
}

void FlatSourceTable::clear() {
  ready = false;
  FilledLater<float>().swap(coc);
  FilledLater<std::uint32_t>().swap(slice);
  FilledLater<std::int32_t>().swap(reach);
  std::vector<std::int32_t>().swap(rowReach);
}

FlatSourceTable buildFlatSourceTable(const Frame& frame) {
  FlatSourceTable table;
  Iop* source = frame.inputs.source;
  if (!source)
    return table;
  const int R = std::max(0, frame.kernelRadius);
  table.left = frame.box.x() - R;
  table.right = frame.box.r() + R;
  table.bottom = source->info().y();
  table.top = source->info().t();
  if (table.right <= table.left || table.top < table.bottom)
    return table;
  const std::size_t rows = static_cast<std::size_t>(table.top - table.bottom) + 1;
  const std::size_t count = rows * static_cast<std::size_t>(table.right - table.left);
  table.coc.resize(count);
  table.slice.resize(count);
  table.reach.resize(count);
  table.rowReach.assign(rows, -1);
  parallelRows(static_cast<int>(rows), [&](int i) { fillRow(frame, table, table.bottom + i); });
  table.ready = true;
  return table;
}

}  // namespace vorel
