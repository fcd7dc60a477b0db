#pragma once
#include "DDImage/Box.h"
#include "DDImage/Row.h"
#include "lens/NodeParameters.h"

namespace vorel {

struct Frame;

// Bloom strength at an image position, before the bloom matte: bloom * radial factor.
float bloomRadialFactor(const NodeParameters& p, const DD::Image::Box& formatBox, int x, int y);

// The three per-source-pixel matte factors; 1.0 where a matte is not in use.
struct MatteValues {
  float bloom = 1.0f;
  float defocus = 1.0f;
  float chromatic = 1.0f;
};

// One source row of the Mattes input over [left, right), refetched for each source row. A matte
// that is not in use has no plane and reads 1.0.
class MatteRow {
public:
  MatteRow(int left, int right) : left_(left), right_(right), row_(left, right) {}
  void fetch(const Frame& frame, int y) { fetch(frame, y, left_, right_); }
  // Only columns [left, right) of it.
  void fetch(const Frame& frame, int y, int left, int right);
  MatteValues at(int x) const {
    return {bloom_ ? bloom_[x] : 1.0f, defocus_ ? defocus_[x] : 1.0f, chromatic_ ? chromatic_[x] : 1.0f};
  }

private:
  int left_, right_;
  DD::Image::Row row_;
  const float* bloom_ = nullptr;
  const float* defocus_ = nullptr;
  const float* chromatic_ = nullptr;
};

}  // namespace vorel
