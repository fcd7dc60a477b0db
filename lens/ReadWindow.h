#pragma once
// Where the node reads its sources. Everything is measured from the windows' own edges, never
// from position 0, so that moving every window of every input by the same offset moves the output
// by it and changes nothing else.

#include <algorithm>

#include "DDImage/Box.h"
#include "lens/BoxArea.h"

namespace vorel {

// The nearest of [lo, hi) to v; lo when the range is empty, as an empty format clamps to its
// left edge.
inline int clampInto(int v, int lo, int hi) { return std::max(lo, std::min(hi - 1, v)); }

// The rectangle whose edge pixels the deep rows repeat beyond it: the format, grown to take in
// the deep data wherever that lies outside it. A format that holds the data is itself the window;
// one that doesn't would otherwise leave the data unread, and a deep image beside its display
// window black.
inline DD::Image::Box deepReadWindow(const DD::Image::Box& format, const DD::Image::Box& deepData) {
  if (isEmptyArea(format))
    return format;
  return unionArea(format, deepData);
}

}  // namespace vorel
