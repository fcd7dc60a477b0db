#pragma once
// The lens-defocus node. One class over the host's Iop; the work lives in free functions under
// lens/, engines/ and previews/, which read the node's public state. From the end of _open the
// node is read-only, so any number of engine() calls may share it without a lock.

#include <vector>

#include "DDImage/Box.h"
#include "DDImage/ChannelSet.h"
#include "DDImage/Hash.h"
#include "DDImage/Iop.h"
#include "DDImage/Knobs.h"
#include "DDImage/MetaData.h"
#include "DDImage/Row.h"
#include "engines/DeepSourceTable.h"
#include "engines/FlatSourceTable.h"
#include "lens/Kernel.h"
#include "node/NodeParameters.h"

namespace DD { namespace Image { class DeepOp; } }

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

  // The rectangle of the node's format, as copy_info left it.
  DD::Image::Box formatBox() const;
  // Input 3 as a deep op, or null.
  DD::Image::DeepOp* deepInput() const;
  // True from the end of an _open that built what the output type needs, until the next
  // _validate, _invalidate or _close. Rows that need kernels check it rather than trusting the
  // host's order.
  bool kernelsReady() const { return kernelsReady_; }

  // Releases the bank, the master kernel and the frame tables.
  void releaseKernels();
  // Opens every input _open's workers read.
  void openInputs();

  // State read by the row code. Declared in the order the node owns it.
  vorel::Kernel masterKernel;
  vorel::NodeParameters params;
  std::vector<vorel::Kernel> kernelBank;
  std::vector<float> sliceBoundaries;
  bool useBloomMatte = false;
  bool useDefocusMatte = false;
  bool useChromaticMatte = false;
  DD::Image::ChannelSet matteChannels;
  int kernelRadius = 0;
  int maxCoC = 0;
  // Every entry of the bank holds the same plane in every channel (the formula kernels do), so
  // all channels at one position accumulate the same weights.
  bool kernelPlanesAlike = false;
  // Per-frame lens values of the flat source pixels, made with the kernel bank.
  vorel::FlatSourceTable flatSources;
  vorel::DeepSourceTable deepSources;

private:
  bool kernelsReady_ = false;
};

namespace vorel {
// The ascending depths at which the corrective slices start, as validation computes them.
std::vector<float> computeSliceBoundaries(const NodeParameters& p);
}  // namespace vorel
