#pragma once
#include "DDImage/Box.h"
#include "node/NodeParameters.h"

namespace vorel {

// Bloom strength at an image position, before the bloom matte: bloom * radial factor.
float bloomRadialFactor(const NodeParameters& p, const DD::Image::Box& formatBox, int x, int y);

// The three per-source-pixel matte factors; 1.0 where a matte is not in use.
struct MatteValues {
  float bloom = 1.0f;
  float defocus = 1.0f;
  float chromatic = 1.0f;
};

}  // namespace vorel
