#pragma once
// The lens-defocus node. One class over the host's Iop; the work lives in free functions under
// lens/, engines/ and previews/, which read the node's frame record and never the node. The
// frame is rebuilt by _validate and _open and is immutable in between, so any number of engine()
// calls may share it without a lock.

#include <memory>

#include "DDImage/ChannelSet.h"
#include "DDImage/Hash.h"
#include "DDImage/Iop.h"
#include "DDImage/Knobs.h"
#include "DDImage/MetaData.h"
#include "DDImage/Row.h"
#include "engines/Frame.h"
#include "lens/KernelCache.h"
#include "lens/NodeParameters.h"

constexpr int kVorelVersion[3] = {1, 4, 3};

class tzVorel : public DD::Image::Iop {
public:
  explicit tzVorel(Node* node);
  ~tzVorel() override;

  // What the host sees.
  void _validate(bool for_real) override;
  void _open() override;
  const DD::Image::MetaData::Bundle& _fetchMetaData(const char* key) override;
  void knobs(DD::Image::Knob_Callback f) override;
  int knob_changed(DD::Image::Knob* k) override;
  bool test_input(int input, DD::Image::Op* op) const override;
  void append(DD::Image::Hash& hash) override;
  DD::Image::Op* default_input(int input) const override;
  const char* node_help() const override;
  const char* input_label(int input, char* buffer) const override;
  const char* Class() const override;
  void engine(int y, int x, int r, DD::Image::ChannelMask channels, DD::Image::Row& row) override;
  void _request(int x, int y, int r, int t, DD::Image::ChannelMask channels, int count) override;
  void _invalidate() override;
  void _close() override;

  // The plug-in's one exported symbol: the host finds the class through it.
  __attribute__((visibility("default"))) static const DD::Image::Iop::Description description;

  // What the rows of the current frame read: the setup of the last _validate, with the kernels
  // and tables of the last _open until they are released. Never null.
  std::shared_ptr<const vorel::Frame> frame() const { return frame_; }

private:
  vorel::Frame validatedFrame(bool for_real);
  void openDefocus(vorel::Frame& frame);
  // Opens every input _open's workers read.
  void openInputs();
  // The one place where a frame's kernels and tables go: the frame keeps its setup. The cache
  // keeps the master kernel and bank unless `dropCache`.
  void releaseKernels(bool dropCache = false);

  // The knobs' fields, with the camera's values and the lens values of the last validation for
  // real written over them.
  vorel::NodeParameters params_;
  std::shared_ptr<const vorel::Frame> frame_;
  // The kernels of the last defocus opened, for the next validation's frame while their key
  // holds (a shot's frames, a viewer scrubbing a focus pull).
  vorel::KernelCache kernelCache_;
};

namespace vorel {
// Whether the frame has what rows of its output type read: rows asked of a frame without its
// kernels (or of an unknown output type) are not made from it.
bool frameHasWhatRowsNeed(const Frame& frame);
// One output row of the frame, as the output type asks; the node's engine() after its abort
// test and interest.
void frameRow(const Frame& frame, int y, int x, int r, const DD::Image::ChannelSet& channels,
              DD::Image::Row& row);
}  // namespace vorel
