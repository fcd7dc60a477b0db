#pragma once
#include "DDImage/Box.h"
#include "DDImage/Iop.h"
#include "lens/Kernel.h"
#include "node/NodeParameters.h"

namespace vorel {

// Fills `master` for the kernel type of `p`. `kernelImage` is input 1 (may be null: then the
// "Input" type leaves the kernel empty). `filterShapeOutput` sizes it by the format's smaller side.
void buildMasterKernel(Kernel& master, const NodeParameters& p, const DD::Image::Box& formatBox,
                       DD::Image::Iop* kernelImage, bool filterShapeOutput);

float apertureBladesShape(float x, float y, int width, int height, float halfSizeSquared,
                          float aspectRatio, int numSides, float curvature, float rotation);

}  // namespace vorel
