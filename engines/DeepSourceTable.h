#pragma once
// How far the kernels of a deep pixel can reach, over all its pieces and its remainder: made once
// per frame in _open, only read by rows, so that the 2R + 1 visits of each deep pixel skip the
// preparation and the piece walk wherever nothing of it can land on the output row.

#include <cstdint>
#include <vector>

#include "DDImage/Box.h"
#include "lens/FilledLater.h"

namespace vorel {

struct Frame;

struct DeepSourceTable {
  bool ready = false;
  int left = 0, right = 0;  // source columns [left, right)
  DD::Image::Box window;     // the deep read window, which the engine clamps pixels to
  int bottom = 0, top = 0;   // its pixel rows [bottom, top) that the frame's box can reach
  // Rows from its own position an upper bound of what the walk over all pieces (side 0) spreads:
  // the pieces up to where it stops and the remainder if one is left, chromatic shift included;
  // -1 where nothing is spread or the row's fetch failed.
  FilledLater<std::int32_t> reach;
  std::vector<std::int32_t> rowReach;
  // The same for a walk over one side's pieces, which may run further and leave a remainder:
  // every piece and the remainder.
  FilledLater<std::int32_t> reachSided;
  std::vector<std::int32_t> rowReachSided;

  void clear();
};

// The table over the frame's box padded by kernelRadius, made on the host's threads. The frame's
// kernel bank must be made.
DeepSourceTable buildDeepSourceTable(const Frame& frame);

}  // namespace vorel
