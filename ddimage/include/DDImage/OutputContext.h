#pragma once
// Where in time and space an op is evaluated. The proxy scale must stay the first data member
// and the class must have no virtuals: plug-ins read the first float of the object directly.

namespace DD {
namespace Image {

class OutputContext {
public:
  OutputContext() = default;
  float proxyScale() const { return proxyScale_; }
  double frame() const { return frame_; }
  int view() const { return view_; }
  void setProxyScale(float s) { proxyScale_ = s; }
  void setFrame(double f) { frame_ = f; }
  void setView(int v) { view_ = v; }

private:
  float proxyScale_ = 1.0f;
  float proxyScaleY_ = 1.0f;
  double frame_ = 1.0;
  int view_ = 1;
};

}  // namespace Image
}  // namespace DD
