#pragma once
// What every visit of a flat source pixel works out for itself: its final CoC, its slice and how
// many rows away its kernel can land. Made once per frame in _open and only read by rows, so that
// the 2R + 1 visits of each pixel look these up instead of recomputing them, and the visits that
// cannot reach the output row are passed over before any other work.

#include <cstdint>
#include <vector>

#include "lens/FilledLater.h"
#include "lens/Kernel.h"
#include "lens/NodeParameters.h"

namespace vorel {

struct Frame;

struct FlatSourceTable {
  bool ready = false;
  int left = 0, right = 0;   // source columns [left, right)
  int bottom = 0, top = 0;   // source rows [bottom, top], the range the engine clamps to
  FilledLater<float> coc;            // after the defocus matte and the floor of 1.0
  FilledLater<std::uint32_t> slice;
  // Rows from its own a pixel's kernel can reach, chromatic shift included; -1 when the focus
  // gate keeps it from being spread at all. An upper bound: a visit within it may still add
  // nothing, one beyond it adds nothing for sure.
  FilledLater<std::int32_t> reach;
  std::vector<std::int32_t> rowReach;  // per row, the largest reach in it

  std::size_t index(int sx, int fy) const {
    return static_cast<std::size_t>(fy - bottom) * static_cast<std::size_t>(right - left) +
           static_cast<std::size_t>(sx - left);
  }
  void clear();
};

// Rows from its own position that a source sample's kernels can reach, chromatic shift included:
// an upper bound. Needs a bank that is not empty.
std::int32_t sourceReach(const NodeParameters& p, const std::vector<Kernel>& bank, float coc, float chromaticMatte);

// The table over the frame's box padded by kernelRadius, made on the host's threads. The frame's
// kernel bank must be made.
FlatSourceTable buildFlatSourceTable(const Frame& frame);

}  // namespace vorel
