#pragma once
#include "DDImage/Box.h"
#include "DDImage/Iop.h"
#include "lens/Kernel.h"
#include "lens/NodeParameters.h"

namespace vorel {

// The master kernel for the kernel type of `p`. `kernelImage` is input 1 (may be null: then the
// "Input" type gives an empty kernel). `filterShapeOutput` sizes it by the format's smaller side.
Kernel buildMasterKernel(const NodeParameters& p, const DD::Image::Box& formatBox, DD::Image::Iop* kernelImage,
                         bool filterShapeOutput);

float apertureBladesShape(float x, float y, int width, int height, float halfSizeSquared,
                          float aspectRatio, int numSides, float curvature, float rotation);

}  // namespace vorel
