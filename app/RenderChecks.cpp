#include "app/RenderChecks.h"

#include <cmath>
#include <sstream>

#include "app/AppError.h"
#include "app/Knobs.h"
#include "node/tzVorel.h"

using namespace DD::Image;

namespace vorelapp {

namespace {

std::string number(double v) {
  std::ostringstream s;
  s.precision(4);
  s << v;
  return s.str();
}

bool anyNonZero(const std::vector<std::pair<const float*, std::size_t>>& planes) {
  for (const auto& p : planes)
    for (std::size_t i = 0; p.first && i < p.second; ++i)
      if (p.first[i] != 0.0f)
        return true;
  return false;
}

const char* const kScaleNames[] = {"mm", "cm", "m", "inches", "feet"};

}  // namespace

void checkChannelsToBlur(const Op& node, const ChannelSet& available, const std::string& input0Name,
                         const std::string& listing) {
  const Knob* k = node.knob("vorelChannels");
  if (!k || !k->field())
    return;
  const ChannelSet& wanted = *static_cast<const ChannelSet*>(k->field());
  if ((wanted & available).empty())
    throw UsageError(input0Name + " has none of the channels to blur (vorelChannels " +
                     channelSetText(wanted) + "; it has " + listing +
                     "); choose a layer with --layer NAME or name them with --set vorelChannels=...");
}

DepthRange depthRange(host::FlatImage* image, Channel depth) {
  DepthRange r;
  const float* plane = image ? image->plane(depth) : nullptr;
  const std::size_t count =
      plane ? std::size_t(image->dataBox().w()) * std::size_t(image->dataBox().h()) : 0;
  for (std::size_t i = 0; i < count; ++i) {
    const float d = plane[i];
    if (!std::isfinite(d) || d >= 3.0e38f)  // the far limit stands for "nothing here"
      continue;
    if (!r.found) {
      r.least = r.greatest = d;
      r.found = true;
    }
    r.least = std::min(r.least, d);
    r.greatest = std::max(r.greatest, d);
  }
  return r;
}

void warnAboutFocus(const Op& node, const DepthRange& depths,
                    const std::function<void(const std::string&)>& warn) {
  const auto* v = dynamic_cast<const tzVorel*>(&node);
  if (!v || !depths.found || !warn)
    return;
  const vorel::NodeParameters& p = v->frame()->params;
  if (p.depthStyle != 0 || (p.outputType != vorel::OutputDefocusedImage &&
                            p.outputType != vorel::OutputLensBloom))
    return;
  const std::string range = number(depths.least) + " to " + number(depths.greatest);
  const std::string scale =
      p.worldScale >= 0 && p.worldScale < 5 ? kScaleNames[p.worldScale] : "?";
  const double focus = p.focalPlane;
  const bool farOutside = depths.greatest > 0.0f && focus > 0.0 &&
                          (focus > 100.0 * depths.greatest ||
                           (depths.least > 0.0f && focus < depths.least / 100.0));
  if (farOutside)
    warn("the focal plane " + number(focus) + " lies orders of magnitude outside the depth range " +
         range + " (worldScale " + scale + "); is the depth in another unit?");
  if (p.realWorldLens && v->frame()->maxCoC <= 1)
    warn("the lens blurs nothing: its circle of confusion stays below one pixel for depths " +
         range + " with the focus distance at " + number(focus) + " (worldScale " + scale +
         "); is the depth in the unit worldScale says? Set worldScale to the depth's unit "
         "(--set worldScale=m for metres), or open the aperture (a lower fStop)");
}

void refuseBlackRender(const Op& node, const FlatImage& out, const std::vector<Channel>& channels,
                       host::FlatImage* input0) {
  const auto* v = dynamic_cast<const tzVorel*>(&node);
  // Only the whole image must keep light: one focus region alone may well be empty.
  if (!v || v->frame()->params.outputType != vorel::OutputDefocusedImage ||
      v->frame()->params.focusOutput != vorel::FocusBoth || !input0)
    return;
  const vorel::NodeParameters& p = v->frame()->params;
  const std::size_t inSize =
      std::size_t(input0->dataBox().w()) * std::size_t(input0->dataBox().h());
  std::vector<std::pair<const float*, std::size_t>> outPlanes, inPlanes;
  for (std::size_t c = 0; c < channels.size() && c < out.planes.size(); ++c)
    if (p.vorelChannels.contains(channels[c]) && channels[c] != p.depthChannel) {
      outPlanes.emplace_back(out.planes[c].data(), out.planes[c].size());
      inPlanes.emplace_back(input0->plane(channels[c]), inSize);
    }
  if (outPlanes.empty() || anyNonZero(outPlanes) || !anyNonZero(inPlanes))
    return;
  throw RenderError("the render came out black where the input is not; nothing written (most "
                    "often a lens kernel too small to hold its shape: max_kernelsize " +
                    std::to_string(p.max_kernelsize) + ", kAspectRatio " + number(p.kAspectRatio) +
                    ", kCurvature " + number(p.kCurvature) + ", kSphAbb " + number(p.kSphAbb) + ")");
}

}  // namespace vorelapp
