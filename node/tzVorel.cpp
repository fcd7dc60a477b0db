#include "node/tzVorel.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "DDImage/CameraOp.h"
#include "DDImage/DeepOp.h"
#include "DDImage/Knob.h"
#include "DDImage/OutputContext.h"
#include "DDImage/ddImageVersionNumbers.h"
#include "engines/BandCache.h"
#include "engines/DeepSamples.h"
#include "engines/DeepSourceTable.h"
#include "engines/FlatSourceTable.h"
#include "lens/BoxArea.h"
#include "lens/CircleOfConfusion.h"
#include "lens/KernelBank.h"
#include "lens/KernelCache.h"
#include "lens/MasterKernel.h"
#include "lens/Scan.h"
#include "node/Panel.h"

using namespace DD::Image;
using namespace vorel;

namespace {

Op* build(Node* node) {
  return new tzVorel(node);
}

// The load banner, printed once when the library is loaded.
struct Banner {
  Banner() {
    std::printf("tzVorel v%s, built on %s at %s\n", versionText(), __DATE__, __TIME__);
    std::fflush(stdout);
  }
} const banner;

const char* const kInputLabels[] = {"Input", "Kernel", "Camera", "Deep Input", "Mattes"};

// A new frame with the setup of `from` and nothing that opening adds.
std::shared_ptr<Frame> setupOf(const Frame& from) {
  auto frame = std::make_shared<Frame>();
  static_cast<FrameSetup&>(*frame) = from;
  return frame;
}

// Hosts before 14 have only the old accessor names; 14 deprecates them and 18 drops them.
void readCamera(const CameraOp& camera, NodeParameters& p) {
#if kDDImageVersionMajorNum < 14
  p.focalLength = static_cast<float>(camera.focal_length());
  p.focalPlane = static_cast<float>(camera.focal_point());
  p.fStop = static_cast<float>(camera.fstop());
  p.apertureWidth = static_cast<float>(camera.film_width());
  p.apertureHeight = static_cast<float>(camera.film_height());
#else
  p.focalLength = static_cast<float>(camera.focalLength());
  p.focalPlane = static_cast<float>(camera.focusDistance());
  p.fStop = static_cast<float>(camera.fStop());
  p.apertureWidth = static_cast<float>(camera.horizontalAperture());
  p.apertureHeight = static_cast<float>(camera.verticalAperture());
#endif
}

}  // namespace

// The host ignores a menu path given here; cmake/menu.py puts the node in a menu.
const Iop::Description tzVorel::description("tzVorel", build);

tzVorel::tzVorel(Node* node) : Iop(node), frame_(std::make_shared<const Frame>()) {
  inputs(5);
}

tzVorel::~tzVorel() = default;

const char* tzVorel::Class() const { return description.name; }
const char* tzVorel::node_help() const { return "Kestavian Labs Vorel"; }

const char* tzVorel::input_label(int input, char*) const {
  return input >= 0 && input < 5 ? kInputLabels[input] : "";
}

Op* tzVorel::default_input(int input) const {
  return input == 0 ? Iop::default_input(0) : nullptr;
}

bool tzVorel::test_input(int input, Op* op) const {
  if (!op)
    return false;
  switch (input) {
    case 0: case 1: case 4: return dynamic_cast<Iop*>(op) != nullptr;
    case 2: return dynamic_cast<CameraOp*>(op) != nullptr;
    case 3: return dynamic_cast<DeepOp*>(op) != nullptr;
    default: return false;
  }
}

void tzVorel::append(Hash& hash) {
  hash.append(kVorelVersion[0]);
  hash.append(kVorelVersion[1]);
  hash.append(kVorelVersion[2]);
}

// Input 0's metadata goes on downstream, as the host's own nodes hand it on.
const MetaData::Bundle& tzVorel::_fetchMetaData(const char* key) {
  return Iop::_fetchMetaData(key);
}

void tzVorel::releaseKernels(bool dropCache) {
  frame_ = setupOf(*frame_);
  if (dropCache)
    kernelCache_.clear();
}

// ---------------------------------------------------------------------------------------------
// Validation

// Everything of the frame that validation decides. The camera's values and, for real, the
// derived lens values are written into the knobs' record first, so that a validation that is not
// for real keeps those of the last one that was.
Frame tzVorel::validatedFrame(bool for_real) {
  Frame f;
  if (!node_input(1) && params_.kernelType == KernelInput)
    error("No input kernel connected!");

  // A preset film format gives the film back (a camera, below, overrides it).
  if (const FilmBack* back = presetFilmBack(params_.filmFormat)) {
    params_.apertureWidth = back->width;
    params_.apertureHeight = back->height;
  }

  // node_input tells what is connected; the op holding the render's values is input(2), and a
  // camera has its values only once it is validated.
  if (node_input(2)) {
    if (CameraOp* camera = dynamic_cast<CameraOp*>(Op::input(2))) {
      camera->validate(for_real);
      readCamera(*camera, params_);
    }
  }

  copy_info();

  if (node_input(0))
    input(0)->validate(for_real);
  if (node_input(1))
    input(1)->validate(for_real);

  if (node_input(4)) {
    input(4)->validate(for_real);
    const std::pair<Channel, bool*> mattes[] = {{params_.bloomMatteChannel, &f.mattes.bloom},
                                                {params_.defocusMatteChannel, &f.mattes.defocus},
                                                {params_.chromicAberrationMatteChannel, &f.mattes.chromatic}};
    for (const auto& matte : mattes) {
      if (matte.first == Chan_Black)
        continue;
      f.mattes.channels += matte.first;
      *matte.second = true;
    }
  }

  params_.hasDeepInput = false;
  f.inputs.deep = dynamic_cast<DeepOp*>(Op::input(3));
  if (f.inputs.deep) {
    params_.hasDeepInput = true;
    f.inputs.deep->validate(true);
  }

  // At a proxy scale the cap on the blur shrinks with the image.
  const float proxyScale = outputContext().scale_x();
  const int m = kernelSizeLimit(params_.max_kernelsize, proxyScale);
  // clipmove would keep a box that covers the format within it: pad really grows it.
  if (params_.expandBBoxToMaxKernelSize)
    info_.pad(-(m / 2), -(m / 2), (m - 1) / 2, (m - 1) / 2);

  f.sliceBoundaries = frame_->sliceBoundaries;
  if (for_real) {
    // The scale of the render, not of the panel (uiContext): every CoC is multiplied by it.
    const Format& full = info_.full_size_format();
    deriveLensValues(params_, full.width(), full.height(), proxyScale);
    f.sliceBoundaries = computeSliceBoundaries(params_);
  }

  f.params = params_;
  const Format& format = info().format();
  f.format = Box(format.x(), format.y(), format.r(), format.t());
  f.box = info().box();
  f.inputs.source = input(0);
  f.inputs.mattes = input(4);
  f.inputs.owner = this;
  f.maxCoC = m;
  f.kernelRadius = kernelRadiusFor(m, false);
  return f;
}

void tzVorel::_validate(bool for_real) {
  frame_ = std::make_shared<const Frame>(validatedFrame(for_real));
}

// ---------------------------------------------------------------------------------------------
// Request and open

void tzVorel::_request(int x, int y, int r, int t, ChannelMask channels, int count) {
  const Frame& f = *frame_;
  const NodeParameters& p = f.params;
  // The host clamps reads to what was requested, so ask for all that will be read: the rows reach
  // as far as the radius the scan settles on, which is at most two more than this one, and the
  // defocus outputs' _open reads the whole image.
  const int K = f.kernelRadius + 2;
  Box padded(x - K, y - K, r + K, t + K);
  const bool defocus = p.outputType == OutputDefocusedImage || p.outputType == OutputLensBloom;
  if (defocus) {
    const Box whole = unionArea(f.format, f.box);
    padded = unionArea(padded, Box(whole.x() - K, whole.y() - K, whole.r() + K, whole.t() + K));
  }
  // Every output row of the defocus reads 2K+1 rows of input 0, the mattes and the deep input;
  // the host caches an input only when its count says it is read more than once.
  const int reads = defocus ? count * (2 * K + 1) : count;

  if (node_input(0)) {
    ChannelSet wanted = channels;
    wanted += p.vorelChannels;
    wanted += p.depthChannel;
    wanted += Chan_Alpha;
    input(0)->request(padded, wanted, reads);
  }
  if (node_input(1)) {
    Iop* kernelImage = input(1);
    const Box& box = kernelImage->info().box();
    kernelImage->request(box.x(), box.y(), box.r(), box.t(), p.vorelChannels, count);
  }
  if (node_input(4))
    input(4)->request(padded, f.mattes.channels, reads);
  if (Op::input(3) && p.hasDeepInput) {
    if (DeepOp* deep = dynamic_cast<DeepOp*>(Op::input(3))) {
      if (!deep->op()->real_valid())
        deep->op()->validate(true);
      ChannelSet wanted = channels;
      wanted += p.vorelChannels;
      ChannelSet deepChannels = deepPieceChannels(wanted);
      deepChannels &= deep->deepInfo().channels();
      deep->deepRequest(padded, deepChannels, reads);
    }
  }
}

void tzVorel::openInputs() {
  for (int n : {0, 1, 4})
    if (Iop* in = input(n))
      in->open();
  if (DeepOp* deep = frame_->inputs.deep)
    deep->op()->open();
}

// The host opens once per invalidation, however many requests follow, so what _open built stays
// until the next validation, invalidation or close.
void tzVorel::_invalidate() {
  releaseKernels();
  Iop::_invalidate();
}

// An invalidation is the host telling that something changed, which the key tells apart; close
// is the host being done with the op for now, and a bank may be hundreds of megabytes: it goes.
void tzVorel::_close() {
  releaseKernels(true);
  Iop::_close();
}

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

}  // namespace

// The defocus outputs: the scan, the master kernel and bank (kept from the last frame where
// their key allows), and the tables, in this order.
void tzVorel::openDefocus(Frame& f) {
  auto stageStart = Clock::now();
  const ScanResult scan = scanMaxCoC(f.params, f.format, f.inputs.source, f.inputs.deep);
  if (scan.capped)
    warning("Max kernel size is less than the maximum coc in the result, you may want to consider "
            "increasing the max kernel size above %d.",
            scan.found);
  f.maxCoC = scan.maxCoC;
  f.kernelRadius = scan.kernelRadius;
  f.openTimes.scan = secondsSince(stageStart);

  stageStart = Clock::now();
  // The host's hash of the Kernel input names its image and content, which the bank is made from.
  Iop* kernelImage = input(1);
  const bool readsImage = f.params.kernelType == KernelInput && kernelImage;
  const KernelKey key = kernelKey(f.params, readsImage ? kernelImage->hash().value() : 0);
  FrameKernels kernels = kernelCache_.kernelsFor(
      key, f.maxCoC, [&] { return buildMasterKernel(f.params, f.format, kernelImage, false); });
  f.masterKernel = std::move(kernels.master);
  f.kernelBank = std::move(kernels.bank);
  f.kernelPlanesAlike = kernels.planesAlike;
  f.openTimes.bankReused = kernels.reused;
  f.openTimes.bank = secondsSince(stageStart);

  stageStart = Clock::now();
  if (f.params.hasDeepInput)
    f.deepSources = buildDeepSourceTable(f);
  else
    f.flatSources = buildFlatSourceTable(f);
  f.openTimes.tables = secondsSince(stageStart);
}

void tzVorel::_open() {
  // _open runs under the host's global lock, and the workers below read the inputs: an input
  // they had to open themselves would wait for that lock forever.
  openInputs();
  std::shared_ptr<Frame> f = setupOf(*frame_);
  switch (f->params.outputType) {
    case OutputFilterShape: {
      // A kernel as large as the format, of which the rows show only what the box holds.
      Box shown = f->box;
      shown.move(-f->format.x(), -f->format.y());
      MasterKernelPart part = buildMasterKernelPart(f->params, f->format, input(1), true, shown);
      f->masterKernel = std::move(part.kernel);
      f->masterKernelWindow = part.window;
      break;
    }
    case OutputDefocusedImage:
    case OutputLensBloom:
      openDefocus(*f);
      break;
    default:
      break;
  }
  f->kernelsReady = true;
  // Rows are made a band at a time from here on; releaseKernels drops the bands with the kernels.
  const int stripColumns = stripColumnsFor(f->kernelRadius);
  f->bands = std::make_shared<BandCache>(f->params.hasDeepInput ? BandShape{kDeepBandRows, stripColumns}
                                                                  : BandShape{kBandRows, stripColumns});
  frame_ = std::move(f);
}

// ---------------------------------------------------------------------------------------------
// Rows

namespace {

// Rows asked of a node without its kernels (or with an unknown output type): the effect's
// channels are 0 and everything else is the input, rather than reading kernels that don't exist.
void unrenderedRow(Iop& input, int y, int x, int r, const ChannelSet& channels,
                   const ChannelSet& vorelChannels, Row& row) {
  Row inRow(x, r);
  inRow.get(input, y, x, r, channels);
  row.copy(inRow, channels, x, r);
  foreach (z, channels) {
    if (!vorelChannels.contains(z))
      continue;
    float* out = row.writable(z);
    std::fill(out + x, out + r, 0.0f);
  }
}

}  // namespace

void tzVorel::engine(int y, int x, int r, ChannelMask channels, Row& row) {
  const Frame& f = *frame_;
  if (aborted())
    return;

  // No Interest here: the host would lock the whole requested area of input 0 for every row.
  Iop& source = *input(0);

  if (!frameHasWhatRowsNeed(f)) {
    unrenderedRow(source, y, x, r, channels, f.params.vorelChannels, row);
    return;
  }
  frameRow(f, y, x, r, channels, row);
}
