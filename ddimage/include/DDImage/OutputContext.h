#pragma once
// Where in time and space an op is evaluated: frame, view and proxy scale.

namespace DD {
namespace Image {

class OutputContext {
public:
  OutputContext() = default;
  // The proxy scale: 1 at full resolution, 0.5 when a proxy renders at half size.
  float scale_x() const { return scaleX_; }
  float scale_y() const { return scaleY_; }
  void setProxyscale(float scale) { scaleX_ = scaleY_ = scale; }
  void setProxyscale(float sx, float sy) { scaleX_ = sx; scaleY_ = sy; }
  double frame() const { return frame_; }
  int view() const { return view_; }
  void setFrame(double f) { frame_ = f; }
  void setView(int v) { view_ = v; }

private:
  float scaleX_ = 1.0f;
  float scaleY_ = 1.0f;
  double frame_ = 1.0;
  int view_ = 1;
};

}  // namespace Image
}  // namespace DD
