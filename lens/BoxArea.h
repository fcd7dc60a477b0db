#pragma once
// Rectangle arithmetic with empty areas. The host's own Box::merge and Box::intersect never give
// an empty box (a 1-pixel box stands for a constant image there), which is right for bounding
// boxes but not for the windows the node reads: those are worked out here instead.

#include <algorithm>

#include "DDImage/Box.h"

namespace vorel {

inline bool isEmptyArea(const DD::Image::Box& b) { return b.r() <= b.x() || b.t() <= b.y(); }

// Both areas; an empty one adds nothing.
inline DD::Image::Box unionArea(const DD::Image::Box& a, const DD::Image::Box& b) {
  if (isEmptyArea(b))
    return a;
  if (isEmptyArea(a))
    return b;
  return DD::Image::Box(std::min(a.x(), b.x()), std::min(a.y(), b.y()), std::max(a.r(), b.r()),
                        std::max(a.t(), b.t()));
}

// What both areas hold; no overlap gives an empty area with r == x or t == y.
inline DD::Image::Box commonArea(const DD::Image::Box& a, const DD::Image::Box& b) {
  const int x = std::max(a.x(), b.x()), y = std::max(a.y(), b.y());
  return DD::Image::Box(x, y, std::max(x, std::min(a.r(), b.r())), std::max(y, std::min(a.t(), b.t())));
}

}  // namespace vorel
