#include "lens/KernelCache.h"

#include <algorithm>
#include <cstring>

#include "lens/CircleOfConfusion.h"

namespace vorel {

namespace {

bool sameBits(float a, float b) {
  return std::memcmp(&a, &b, sizeof a) == 0 && a == a;
}

}  // namespace

bool KernelKey::operator==(const KernelKey& o) const {
  return kernelType == o.kernelType && masterSize == o.masterSize && numSides == o.numSides &&
         sameBits(aspectRatio, o.aspectRatio) && sameBits(curvature, o.curvature) &&
         sameBits(rotation, o.rotation) && sameBits(sphericalAberration, o.sphericalAberration) &&
         sameBits(softness, o.softness) && channels == o.channels &&
         missingKernelChannel == o.missingKernelChannel && kernelImageHash == o.kernelImageHash;
}

KernelKey kernelKey(const NodeParameters& p, std::uint64_t kernelImageHash) {
  KernelKey k;
  k.kernelType = p.kernelType;
  k.masterSize = kernelSizeLimit(p.max_kernelsize, p.uiScale);
  k.numSides = p.kNumSides;
  k.aspectRatio = p.kAspectRatio;
  k.curvature = p.kCurvature;
  k.rotation = p.kRotation;
  k.sphericalAberration = p.kSphAbb;
  k.softness = p.kSoftness;
  k.channels = p.vorelChannels;
  k.missingKernelChannel = p.missingKernelChannel;
  k.kernelImageHash = p.kernelType == KernelInput ? kernelImageHash : 0;
  return k;
}

void KernelCache::clear() {
  holds_ = false;
  master_.clear();
  bank_ = SharedKernelBank();
  planesAlike_ = false;
}

FrameKernels KernelCache::takeBank(int maxCoC, bool masterKept) {
  FrameKernels kernels;
  const std::size_t wanted = static_cast<std::size_t>(std::max(0, maxCoC + 5));
  const bool bankKept = masterKept && !bank_.empty() && bank_.size() == wanted;
  if (!bankKept) {
    // Entries outlive the bank's size, so those of the kept bank are copied, not resampled.
    const bool fromKept = masterKept && !bank_.empty();
    kernels.reused = fromKept && bank_.size() >= wanted;
    bank_ = SharedKernelBank(fromKept ? buildKernelBank(master_, maxCoC, key_.channels, bank_.entries())
                                      : buildKernelBank(master_, maxCoC, key_.channels));
    planesAlike_ = planesAlike(bank_.entries(), key_.channels);
  } else {
    kernels.reused = true;
  }
  kernels.master = master_;
  kernels.bank = bank_;
  kernels.planesAlike = planesAlike_;
  return kernels;
}

}  // namespace vorel
