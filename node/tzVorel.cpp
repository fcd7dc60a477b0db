#include "node/tzVorel.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "DDImage/CameraOp.h"
#include "DDImage/DeepOp.h"
#include "DDImage/Interest.h"
#include "DDImage/Knob.h"
#include "DDImage/OutputContext.h"
#include "engines/DeepSamples.h"
#include "engines/DeepSourceTable.h"
#include "engines/FlatSourceTable.h"
#include "lens/CircleOfConfusion.h"
#include "lens/KernelBank.h"
#include "lens/MasterKernel.h"
#include "lens/Scan.h"
#include "node/Panel.h"

using namespace DD::Image;
using namespace vorel;

namespace {

Iop* build(Node* node) {
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

}  // namespace

const Iop::Description tzVorel::description("tzVorel", "Kestavian/tzVorel", build);

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

const MetaData::Bundle& tzVorel::_fetchMetaData(const char*) {
  return params_.metadata;
}

void tzVorel::releaseKernels() {
  frame_ = setupOf(*frame_);
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

  if (CameraOp* camera = dynamic_cast<CameraOp*>(node_input(2))) {
    params_.focalLength = static_cast<float>(camera->focal_length());
    params_.focalPlane = static_cast<float>(camera->focal_point());
    params_.fStop = static_cast<float>(camera->fstop());
    params_.apertureWidth = static_cast<float>(camera->film_width());
    params_.apertureHeight = static_cast<float>(camera->film_height());
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

  const int m = params_.max_kernelsize;
  if (params_.expandBBoxToMaxKernelSize)
    info_.clipmove(-(m / 2), -(m / 2), (m - 1) / 2, (m - 1) / 2);

  f.sliceBoundaries = frame_->sliceBoundaries;
  if (for_real) {
    // The host's output context starts with its proxy scale; every CoC is multiplied by it.
    float uiScale;
    std::memcpy(&uiScale, &uiContext(), sizeof uiScale);
    const Format& full = info_.full_size_format();
    deriveLensValues(params_, full.width(), full.height(), uiScale);
    f.sliceBoundaries = computeSliceBoundaries(params_);
  }

  f.params = params_;
  const Format& format = info().format();
  f.format = Box(format.x(), format.y(), format.r(), format.t());
  f.box = info().box();
  f.inputs.source = input(0);
  f.inputs.mattes = input(4);
  f.inputs.deepPreview = dynamic_cast<DeepOp*>(node_input(3, Op::OUTPUT_OP));
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
  const int K = f.kernelRadius;
  const Box padded(x - K, y - K, r + K, t + K);

  if (node_input(0)) {
    ChannelSet wanted = channels;
    wanted += p.vorelChannels;
    wanted += p.depthChannel;
    wanted += Chan_Alpha;
    input(0)->request(padded, wanted, count);
  }
  if (node_input(1)) {
    Iop* kernelImage = input(1);
    const Box& box = kernelImage->info().box();
    kernelImage->request(box.x(), box.y(), box.r(), box.t(), p.vorelChannels, count);
  }
  if (node_input(4))
    input(4)->request(padded, f.mattes.channels, count);
  if (Op::input(3) && p.hasDeepInput) {
    if (DeepOp* deep = dynamic_cast<DeepOp*>(Op::input(3))) {
      if (!deep->op()->real_valid())
        deep->op()->validate(true);
      ChannelSet wanted = channels;
      wanted += p.vorelChannels;
      ChannelSet deepChannels = deepPieceChannels(wanted);
      deepChannels &= deep->deepInfo().channels();
      deep->deepRequest(padded, deepChannels, count);
    }
  }

  releaseKernels();
}

// The defocus outputs: the master kernel, the scan, the bank and the tables, in this order.
void tzVorel::openDefocus(Frame& f) {
  f.masterKernel = buildMasterKernel(f.params, f.format, input(1), false);
  const ScanResult scan = scanMaxCoC(f.params, f.format, f.inputs.source, f.inputs.deep);
  if (scan.capped)
    warning("Max kernel size is less than the maximum coc in the result, you may want to consider "
            "increasing the max kernel size above %d.",
            scan.found);
  f.maxCoC = scan.maxCoC;
  f.kernelRadius = scan.kernelRadius;
  f.kernelBank = buildKernelBank(f.masterKernel, f.maxCoC, f.params.vorelChannels);
  f.kernelPlanesAlike = planesAlike(f.kernelBank, f.params.vorelChannels);
  if (f.params.hasDeepInput)
    f.deepSources = buildDeepSourceTable(f);
  else
    f.flatSources = buildFlatSourceTable(f);
}

void tzVorel::_open() {
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
  ChannelSet fetchChannels = channels;
  fetchChannels += f.params.vorelChannels;
  fetchChannels += f.params.depthChannel;
  fetchChannels += Chan_Alpha;

  if (aborted())
    return;

  Iop& source = *input(0);
  Interest interest(source, fetchChannels, false, nullptr);

  if (!frameHasWhatRowsNeed(f)) {
    unrenderedRow(source, y, x, r, channels, f.params.vorelChannels, row);
    return;
  }
  frameRow(f, y, x, r, channels, row);
}
