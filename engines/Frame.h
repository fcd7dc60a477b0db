#pragma once
// Everything the rows of one frame read, in one record. The node builds it in two steps:
// validation makes the setup (parameters, lens values, slices, mattes, first reach), opening
// copies that and adds the kernels and the per-frame tables. Once built it never changes, so any
// number of rows can read it at once without a lock, and nothing below the node sees the node.

#include <memory>
#include <vector>

#include "DDImage/Box.h"
#include "DDImage/ChannelSet.h"
#include "engines/DeepSourceTable.h"
#include "engines/FlatSourceTable.h"
#include "lens/CircleOfConfusion.h"
#include "lens/Kernel.h"
#include "lens/KernelBank.h"
#include "lens/NodeParameters.h"

namespace DD { namespace Image { class DeepOp; class Iop; class Op; } }

namespace vorel {

class BandCache;

// Which mattes of the Mattes input are in use, and the channels to fetch for them.
struct MattePlan {
  bool bloom = false;
  bool defocus = false;
  bool chromatic = false;
  DD::Image::ChannelSet channels;
};

// The node's inputs as the rows read them; null where nothing is there.
struct FrameInputs {
  DD::Image::Iop* source = nullptr;     // input 0, or the host's default op
  DD::Image::Iop* mattes = nullptr;     // input 4
  DD::Image::DeepOp* deep = nullptr;    // input 3 as a deep op (the graph's op holds no render data)
  // The op the rows are made for: once its render is aborted, a band under way stops.
  const DD::Image::Op* owner = nullptr;
};

// What validation decides: the frame without its kernels.
struct FrameSetup {
  NodeParameters params;
  std::vector<float> sliceBoundaries;
  MattePlan mattes;
  DD::Image::Box format;  // the rectangle of the node's format
  DD::Image::Box box;     // the output's bounding box
  FrameInputs inputs;
  int maxCoC = 0;        // max_kernelsize until a scan replaces it
  int kernelRadius = 0;  // how far the rows reach for source pixels

  // A source sample through the frame's lens.
  LensSample sample(float raw, DepthSource source) const {
    return lensSample(params, sliceBoundaries, maxCoC, raw, source);
  }
  // Width and height of the format.
  int formatWidth() const { return format.r() - format.x(); }
  int formatHeight() const { return format.t() - format.y(); }
};

// The setup with what opening adds. Opening may also replace maxCoC and kernelRadius.
struct Frame : FrameSetup {
  Kernel masterKernel;
  // For the Filter Shape output, the kernel's own columns and rows that masterKernel holds: only
  // what the output's box shows of a kernel as large as the format.
  DD::Image::Box masterKernelWindow;
  // Shared with the node's cache, and with other frames of the same kernel and maxCoC.
  SharedKernelBank kernelBank;
  // Every entry of the bank holds the same plane in every channel (the formula kernels do), so
  // all channels at one position accumulate the same weights.
  bool kernelPlanesAlike = false;
  // Per-frame lens values of the source pixels, made with the kernel bank.
  FlatSourceTable flatSources;
  DeepSourceTable deepSources;
  // True when opening built what the output type needs.
  bool kernelsReady = false;
  // Where opening spent its time, as the node measured it (seconds; 0 for a stage not run).
  struct OpenTimes {
    double scan = 0.0;
    double bank = 0.0;    // the master kernel and the bank, or taking them from the cache
    double tables = 0.0;  // the flat or deep source table
    bool bankReused = false;  // nothing of the kernels was resampled for this frame
  } openTimes;
  // Rows computed a band at a time for the rows asked of this frame: the one part of the frame
  // that changes, internally locked. Without it every row is computed by itself.
  std::shared_ptr<BandCache> bands;
};

// Whether the render the frame's rows are for was aborted.
bool renderAborted(const Frame& frame);

}  // namespace vorel
