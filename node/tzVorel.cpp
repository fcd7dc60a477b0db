#include "node/tzVorel.h"

#include <algorithm>
#include <cstdio>

#include "DDImage/CameraOp.h"
#include "DDImage/DeepOp.h"
#include "DDImage/Knob.h"
#include "DDImage/OutputContext.h"
#include "DDImage/Thread.h"
#include "DDImage/ddImageVersionNumbers.h"
#include "engines/DeepRowEngine.h"
#include "engines/FlatRowEngine.h"
#include "lens/CircleOfConfusion.h"
#include "lens/KernelBank.h"
#include "lens/MasterKernel.h"
#include "lens/Scan.h"
#include "node/Panel.h"
#include "previews/Previews.h"

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

tzVorel::tzVorel(Node* node) : Iop(node) {
  inputs(5);
}

tzVorel::~tzVorel() {
  releaseKernelBank(kernelBank);
  masterKernel.clear();
}

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

Box tzVorel::formatBox() const {
  const Format& f = info().format();
  return Box(f.x(), f.y(), f.r(), f.t());
}

DeepOp* tzVorel::deepInput() const {
  return dynamic_cast<DeepOp*>(Op::input(3));
}

void tzVorel::releaseKernels() {
  releaseKernelBank(kernelBank);
  masterKernel.clear();
  flatSources.clear();
  deepSources.clear();
  kernelsReady_ = false;
  kernelPlanesAlike = false;
}

// ---------------------------------------------------------------------------------------------
// Validation

std::vector<float> vorel::computeSliceBoundaries(const NodeParameters& p) {
  std::vector<float> boundaries;
  const int n = p.correctiveSlices;
  if (n < 2)
    return boundaries;
  if (n == 2)
    return {0.0f, p.focalPlane};

  float nearDepth = p.regionNear >= 0.0f ? p.regionNear : 0.0f;
  float farDepth = p.regionFar;
  if (p.overrideNearAndFarForSlices) {
    nearDepth = std::min(p.depthSlicesNearAndFar[0], p.depthSlicesNearAndFar[1]);
    farDepth = std::max(p.depthSlicesNearAndFar[0], p.depthSlicesNearAndFar[1]);
  }
  const float step = (farDepth - nearDepth) / static_cast<float>(n);
  boundaries.reserve(n);
  boundaries.push_back(0.0f);
  for (int i = 1; i < n; ++i)
    boundaries.push_back(nearDepth + static_cast<float>(i) * step);
  return boundaries;
}

void tzVorel::_validate(bool for_real) {
  useBloomMatte = useDefocusMatte = useChromaticMatte = false;
  matteChannels.clear();

  if (!node_input(1) && params.kernelType == KernelInput)
    error("No input kernel connected!");

  // A preset film format gives the film back (a camera, below, overrides it).
  if (params.filmFormat >= 0 && params.filmFormat < kCustomFilmFormat) {
    params.apertureWidth = kFilmFormats[params.filmFormat].width;
    params.apertureHeight = kFilmFormats[params.filmFormat].height;
  }

  // node_input tells what is connected; the op holding the render's values is input(2), and a
  // camera has its values only once it is validated.
  if (node_input(2)) {
    if (CameraOp* camera = dynamic_cast<CameraOp*>(Op::input(2))) {
      camera->validate(for_real);
      readCamera(*camera, params);
    }
  }

  copy_info();

  if (node_input(0))
    input(0)->validate(for_real);
  if (node_input(1))
    input(1)->validate(for_real);

  if (node_input(4)) {
    input(4)->validate(for_real);
    if (params.bloomMatteChannel != Chan_Black) {
      matteChannels += params.bloomMatteChannel;
      useBloomMatte = true;
    }
    if (params.defocusMatteChannel != Chan_Black) {
      matteChannels += params.defocusMatteChannel;
      useDefocusMatte = true;
    }
    if (params.chromicAberrationMatteChannel != Chan_Black) {
      matteChannels += params.chromicAberrationMatteChannel;
      useChromaticMatte = true;
    }
  }

  params.hasDeepInput = false;
  if (DeepOp* deep = deepInput()) {
    params.hasDeepInput = true;
    deep->validate(true);
  }

  // At a proxy scale the cap on the blur shrinks with the image.
  const float proxyScale = outputContext().scale_x();
  const int m = kernelSizeLimit(params.max_kernelsize, proxyScale);
  // clipmove would keep a box that covers the format within it: pad really grows it.
  if (params.expandBBoxToMaxKernelSize)
    info_.pad(-(m / 2), -(m / 2), (m - 1) / 2, (m - 1) / 2);

  if (for_real) {
    // The scale of the render, not of the panel (uiContext): every CoC is multiplied by it.
    const Format& full = info_.full_size_format();
    deriveLensValues(params, full.width(), full.height(), proxyScale);
    sliceBoundaries = computeSliceBoundaries(params);
  }

  maxCoC = m;
  kernelRadius = (m - m % 2 + 1) / 2;

  releaseKernels();
}

// ---------------------------------------------------------------------------------------------
// Request and open

void tzVorel::_request(int x, int y, int r, int t, ChannelMask channels, int count) {
  // The host clamps reads to what was requested, so ask for all that will be read: the rows reach
  // as far as the radius the scan settles on, which is at most two more than this one, and the
  // defocus outputs' _open reads the whole image.
  const int K = kernelRadius + 2;
  Box padded(x - K, y - K, r + K, t + K);
  const bool defocus = params.outputType == OutputDefocusedImage || params.outputType == OutputLensBloom;
  if (defocus) {
    Box whole = formatBox();
    whole.merge(info().box());
    padded.merge(Box(whole.x() - K, whole.y() - K, whole.r() + K, whole.t() + K));
  }
  // Every output row of the defocus reads 2K+1 rows of input 0, the mattes and the deep input;
  // the host caches an input only when its count says it is read more than once.
  const int reads = defocus ? count * (2 * K + 1) : count;

  if (node_input(0)) {
    ChannelSet wanted = channels;
    wanted += params.vorelChannels;
    wanted += params.depthChannel;
    wanted += Chan_Alpha;
    input(0)->request(padded, wanted, reads);
  }
  if (node_input(1)) {
    Iop* kernelImage = input(1);
    const Box& box = kernelImage->info().box();
    kernelImage->request(box.x(), box.y(), box.r(), box.t(), params.vorelChannels, count);
  }
  if (node_input(4))
    input(4)->request(padded, matteChannels, reads);
  if (Op::input(3) && params.hasDeepInput) {
    ChannelSet deepChannels = channels;
    deepChannels += params.vorelChannels;
    deepChannels -= Chan_Z;
    deepChannels += Chan_Alpha;
    deepChannels += Chan_DeepFront;
    deepChannels += Chan_DeepBack;
    if (DeepOp* deep = deepInput()) {
      if (!deep->op()->real_valid())
        deep->op()->validate(true);
      deepChannels &= deep->deepInfo().channels();
      deep->deepRequest(padded, deepChannels, reads);
    }
  }
}

void tzVorel::openInputs() {
  for (int n : {0, 1, 4})
    if (Iop* in = input(n))
      in->open();
  if (DeepOp* deep = deepInput())
    deep->op()->open();
}

// The host opens once per invalidation, however many requests follow, so what _open built stays
// until the next validation, invalidation or close.
void tzVorel::_invalidate() {
  releaseKernels();
  Iop::_invalidate();
}

void tzVorel::_close() {
  releaseKernels();
  Iop::_close();
}

void tzVorel::_open() {
  // _open runs under the host's global lock, and the workers below read the inputs: an input
  // they had to open themselves would wait for that lock forever.
  openInputs();
  switch (params.outputType) {
    case OutputFilterShape:
      buildMasterKernel(masterKernel, params, formatBox(), input(1), true);
      break;
    case OutputDefocusedImage:
    case OutputLensBloom:
      buildMasterKernel(masterKernel, params, formatBox(), input(1), false);
      scanMaxCoC(*this);
      releaseKernelBank(kernelBank);
      kernelBank.resize(static_cast<std::size_t>(std::max(0, maxCoC + 5)));
      Thread::spawn(kernelBankThread, Thread::numCPUs, this);
      Thread::wait(this);
      kernelPlanesAlike = planesAlike(kernelBank, params.vorelChannels);
      if (params.hasDeepInput)
        buildDeepSourceTable(*this, deepSources);
      else
        buildFlatSourceTable(*this, flatSources);
      break;
    default:
      break;
  }
  kernelsReady_ = true;
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
  if (aborted())
    return;

  // No Interest here: the host would lock the whole requested area of input 0 for every row.
  Iop& source = *input(0);

  const bool needsBank = params.outputType == OutputDefocusedImage || params.outputType == OutputLensBloom;
  const bool known = params.outputType >= OutputDefocusedImage && params.outputType <= OutputFocusMatte;
  if (!known || (needsBank && (!kernelsReady_ || kernelBank.empty())) ||
      (params.outputType == OutputFilterShape && !kernelsReady_)) {
    unrenderedRow(source, y, x, r, channels, params.vorelChannels, row);
    return;
  }

  switch (params.outputType) {
    case OutputFocalDistance:
    case OutputFocusMatte:
      if (params.hasDeepInput)
        deepPreviewRow(*this, y, x, r, channels, row);
      else
        flatPreviewRow(*this, y, x, r, channels, row);
      return;
    case OutputFilterShape:
      filterShapeRow(*this, y, x, r, channels, row);
      return;
    default:
      break;
  }

  if (!params.hasDeepInput) {
    flatRowEngine(*this, y, x, r, channels, row);
    return;
  }

  Row inRow(x, r);
  inRow.get(source, y, x, r, channels);
  row.copy(inRow, channels, x, r);

  if (!params.integrateFrontAndBackSeperately) {
    deepRowEngine(*this, y, x, r, channels, row, DepthSideNone);
    return;
  }

  const int focusOutput = params.focusOutput;
  // The composite reads the front pass's alpha, so that pass computes alpha even when the
  // request has none.
  ChannelSet frontChannels = channels;
  frontChannels += Chan_Alpha;
  Row frontRow(x, r);
  if (focusOutput != FocusBack)
    deepRowEngine(*this, y, x, r, frontChannels, frontRow, DepthSideFront);
  Row backRow(x, r);
  if (focusOutput != FocusFront)
    deepRowEngine(*this, y, x, r, channels, backRow, DepthSideBack);

  const float* frontAlpha = frontRow[Chan_Alpha];
  foreach (z, channels) {
    if (!params.vorelChannels.contains(z))
      continue;
    float* out = row.writable(z);
    const float* front = frontRow[z];
    const float* back = backRow[z];
    for (int i = x; i < r; ++i) {
      out[i] = 0.0f;
      if (focusOutput != FocusFront)
        out[i] = back[i];
      if (focusOutput != FocusBack)
        out[i] = (1.0f - frontAlpha[i]) * out[i] + front[i];
    }
  }
}
