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

// Part of the master kernel: the values of `window`, in the kernel's own columns and rows (row 0 its
// lowest), as a kernel of the window's size. The Filter Shape output shows one value per pixel of a
// kernel as large as the format, so it makes only the part its box can show.
struct MasterKernelPart {
  Kernel kernel;
  DD::Image::Box window;  // `wanted` within the kernel's square
};
MasterKernelPart buildMasterKernelPart(const NodeParameters& p, const DD::Image::Box& formatBox,
                                       DD::Image::Iop* kernelImage, bool filterShapeOutput,
                                       const DD::Image::Box& wanted);

float apertureBladesShape(float x, float y, int width, int height, float halfSizeSquared,
                          float aspectRatio, int numSides, float curvature, float rotation);

}  // namespace vorel
