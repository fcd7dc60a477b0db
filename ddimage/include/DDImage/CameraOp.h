#pragma once
// A camera: the lens values a node can read, once the camera has been validated.

#include "DDImage/Op.h"

namespace DD {
namespace Image {

class CameraOp : public Op {
public:
  double focalLength() const { return focalLength_; }         // mm
  double horizontalAperture() const { return filmWidth_; }    // mm
  double verticalAperture() const { return filmHeight_; }     // mm
  double focusDistance() const { return focalPoint_; }        // world units
  double fStop() const { return fstop_; }

  // The names before 14; later hosts drop them.
  [[deprecated("use focalLength()")]] double focal_length() const { return focalLength_; }
  [[deprecated("use horizontalAperture()")]] double film_width() const { return filmWidth_; }
  [[deprecated("use verticalAperture()")]] double film_height() const { return filmHeight_; }
  [[deprecated("use focusDistance()")]] double focal_point() const { return focalPoint_; }
  [[deprecated("use fStop()")]] double fstop() const { return fstop_; }

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
