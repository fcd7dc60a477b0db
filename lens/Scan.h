#pragma once
// The whole-image CoC scan: the largest CoC of the frame, which sizes the kernel bank and the
// reach of every row.

#include "DDImage/Box.h"
#include "lens/NodeParameters.h"

namespace DD { namespace Image { class DeepOp; class Iop; } }

namespace vorel {

struct ScanResult {
  int maxCoC = 0;        // capped by max_kernelsize
  int kernelRadius = 0;  // with room for the blend's upper entry
  int found = 0;         // the largest CoC as found, before the cap
  bool capped = false;   // found was above max_kernelsize: the caller warns
};

// Walks the pixels of `format` once, counted from its own corner: the deep input's nearest samples
// when `deep` is given (with the deep data that lies outside the format), else the depth channel
// of `source` (which may be null). Only what differs is read: beyond input 0's box the reads repeat
// its edge pixels, and deep pixels without data add nothing, so the work follows the data, not the
// format's size.
ScanResult scanMaxCoC(const NodeParameters& p, const DD::Image::Box& format, DD::Image::Iop* source,
                      DD::Image::DeepOp* deep);

}  // namespace vorel
