#pragma once
// The kernels a node keeps from one frame to the next. The master kernel and the bank depend on
// the kernel's own inputs alone, not on the focus or the image, so the frames of a shot whose
// kernel does not change build them once. What they depend on is the key, here and nowhere else.

#include <cstdint>

#include "DDImage/Channel.h"
#include "DDImage/ChannelSet.h"
#include "lens/Kernel.h"
#include "lens/KernelBank.h"
#include "lens/NodeParameters.h"

namespace vorel {

// Everything buildMasterKernel reads for a defocus output, and with it everything a bank entry is
// made from. The bank's size (maxCoC) is not part of it: the cache answers for that. The format
// is not either: only the Filter Shape output sizes its kernel by it, and it keeps nothing.
struct KernelKey {
  int kernelType = 0;
  int masterSize = 0;  // max_kernelsize at the render's proxy scale
  int numSides = 0;
  float aspectRatio = 0.0f, curvature = 0.0f, rotation = 0.0f, sphericalAberration = 0.0f,
        softness = 0.0f;
  DD::Image::ChannelSet channels;
  DD::Image::Channel missingKernelChannel = DD::Image::Chan_Black;
  // The Kernel input's identity and content as the host hashes it; 0 unless the kernel is the
  // input's image.
  std::uint64_t kernelImageHash = 0;

  // Floats are compared bit for bit: a NaN knob never matches, so it always builds afresh.
  bool operator==(const KernelKey& other) const;
  bool operator!=(const KernelKey& other) const { return !(*this == other); }
};

// `kernelImageHash` is only read when the kernel type takes the Kernel input's image.
KernelKey kernelKey(const NodeParameters& p, std::uint64_t kernelImageHash);

// The kernels of one frame.
struct FrameKernels {
  Kernel master;
  SharedKernelBank bank;
  bool planesAlike = false;  // see planesAlike()
  bool reused = false;       // nothing was resampled: the master and every entry were kept ones
};

// The master kernel and bank of the last frame, for the next. Owned by one node and used under
// the host's lock, so it takes none of its own.
class KernelCache {
public:
  // The kernels for `key` and CoCs up to maxCoC. With the key of the last call, the master kernel
  // is the kept one, and so is the bank when it has the same size; a bank of another size is a new
  // one (the size decides where a CoC beyond it goes), its entries copied from the kept one as far
  // as that reaches and resampled beyond. With another key everything is built, by buildMaster()
  // for the master kernel. What the frame gets is kept for the next call.
  template <class BuildMaster>
  FrameKernels kernelsFor(const KernelKey& key, int maxCoC, const BuildMaster& buildMaster) {
    if (!holds_ || key != key_) {
      clear();
      master_ = buildMaster();
      key_ = key;
      holds_ = true;
      return takeBank(maxCoC, false);
    }
    return takeBank(maxCoC, true);
  }
  void clear();
  bool holds() const { return holds_; }

private:
  FrameKernels takeBank(int maxCoC, bool masterKept);

  bool holds_ = false;
  KernelKey key_;
  Kernel master_;
  SharedKernelBank bank_;
  bool planesAlike_ = false;
};

}  // namespace vorel
