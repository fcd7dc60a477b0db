#include "engines/OpticalArtefacts.h"

#include "engines/Frame.h"

#include <algorithm>
#include <cmath>

namespace vorel {

void MatteRow::fetch(const Frame& frame, int y, int left, int right) {
  const MattePlan& plan = frame.mattes;
  if (plan.channels.empty())
    return;
  const NodeParameters& p = frame.params;
  row_.get(*frame.inputs.mattes, y, left, right, plan.channels);
  bloom_ = plan.bloom ? row_[p.bloomMatteChannel] : nullptr;
  defocus_ = plan.defocus ? row_[p.defocusMatteChannel] : nullptr;
  chromatic_ = plan.chromatic ? row_[p.chromicAberrationMatteChannel] : nullptr;
}

float bloomRadialFactor(const NodeParameters& p, const DD::Image::Box& formatBox, int x, int y) {
  if (!(p.bloom > 0.0f))
    return 0.0f;

  // The centre sits at half the format's size from the format's corner, and distances are in
  // half-widths and half-heights so every side's mid-point is at 1.
  const float hw = static_cast<float>(formatBox.r() - formatBox.x()) * 0.5f;
  const float hh = static_cast<float>(formatBox.t() - formatBox.y()) * 0.5f;
  const float dx = std::fabs(static_cast<float>(x - formatBox.x()) - hw) * (1.0f / hw);
  const float dy = std::fabs(static_cast<float>(y - formatBox.y()) - hh) * (1.0f / hh);

  float f = 1.0f;
  if (p.bloomCurvature > 0.0f) {
    const float curve = powf(sqrtf(dx * dx + dy * dy), p.bloomCurvature + 0.001f);
    f = std::min(1.0f, std::max(0.0f, curve));
  }
  return p.bloom * f;
}

}  // namespace vorel
