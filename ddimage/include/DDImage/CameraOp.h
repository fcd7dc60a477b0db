#pragma once
// A camera: the lens values a node can read.

#include "DDImage/Op.h"

namespace DD {
namespace Image {

class CameraOp : public Op {
public:
  double focal_length() const { return focalLength_; }  // mm
  double film_width() const { return filmWidth_; }      // mm
  double film_height() const { return filmHeight_; }    // mm
  double focal_point() const { return focalPoint_; }    // focus distance, world units
  double fstop() const { return fstop_; }

protected:
  explicit CameraOp(Node* node) : Op(node) { inputs(0); }

  double focalLength_ = 50.0;
  double filmWidth_ = 24.576;
  double filmHeight_ = 18.672;
  double focalPoint_ = 2.0;
  double fstop_ = 16.0;
};

}  // namespace Image
}  // namespace DD
