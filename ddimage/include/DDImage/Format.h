#pragma once
// An image format: the box of the picture area plus the full width and height.

#include "DDImage/Box.h"

namespace DD {
namespace Image {

class Format : public Box {
public:
  Format() = default;
  Format(int width, int height, double pixelAspect = 1.0)
      : Box(0, 0, width, height), width_(width), height_(height), pixelAspect_(pixelAspect) {}
  // A picture area that does not start at the origin (a display window with offsets).
  Format(int width, int height, int x, int y, int r, int t, double pixelAspect = 1.0)
      : Box(x, y, r, t), width_(width), height_(height), pixelAspect_(pixelAspect) {}

  int width() const { return width_; }
  int height() const { return height_; }
  double pixel_aspect() const { return pixelAspect_; }
  void width(int v) { width_ = v; }
  void height(int v) { height_ = v; }
  void pixel_aspect(double v) { pixelAspect_ = v; }

  bool operator==(const Format& f) const {
    return Box::operator==(f) && width_ == f.width_ && height_ == f.height_ && pixelAspect_ == f.pixelAspect_;
  }
  bool operator!=(const Format& f) const { return !(*this == f); }

private:
  int width_ = 0, height_ = 0;
  double pixelAspect_ = 1.0;
};

}  // namespace Image
}  // namespace DD
