#pragma once
// A half-open rectangle of pixels: columns x..r-1, rows y..t-1, y growing upward.

#include <algorithm>

namespace DD {
namespace Image {

class Box {
public:
  Box() = default;
  Box(int x, int y, int r, int t) : x_(x), y_(y), r_(r), t_(t) {}

  int x() const { return x_; }
  int y() const { return y_; }
  int r() const { return r_; }
  int t() const { return t_; }
  int w() const { return r_ - x_; }
  int h() const { return t_ - y_; }
  void x(int v) { x_ = v; }
  void y(int v) { y_ = v; }
  void r(int v) { r_ = v; }
  void t(int v) { t_ = v; }

  void set(int x, int y, int r, int t) { x_ = x; y_ = y; r_ = r; t_ = t; }
  void set(const Box& b) { *this = b; }
  // Empty box at the origin.
  void clear() { set(0, 0, 0, 0); }
  // At most one pixel: every pixel outside reads as that one.
  bool is_constant() const { return w() <= 1 && h() <= 1; }

  // Grows to cover the other box as well (an empty box adds nothing).
  void merge(const Box& b) {
    if (b.r_ <= b.x_ || b.t_ <= b.y_) return;
    if (r_ <= x_ || t_ <= y_) { *this = b; return; }
    x_ = std::min(x_, b.x_); y_ = std::min(y_, b.y_); r_ = std::max(r_, b.r_); t_ = std::max(t_, b.t_);
  }
  void merge(int x, int y, int r, int t) { merge(Box(x, y, r, t)); }
  // Shrinks to the common area; no overlap leaves an empty box with r == x or t == y.
  void intersect(const Box& b) {
    x_ = std::max(x_, b.x_); y_ = std::max(y_, b.y_); r_ = std::min(r_, b.r_); t_ = std::min(t_, b.t_);
    if (r_ < x_) r_ = x_;
    if (t_ < y_) t_ = y_;
  }
  void intersect(int x, int y, int r, int t) { intersect(Box(x, y, r, t)); }
  // Moves the four edges by the deltas (negative dx, dy grow the box), except in a direction in
  // which the box is at most one pixel: its value is constant that way.
  void pad(int dx, int dy, int dr, int dt) {
    if (r_ > x_ + 1) { x_ += dx; r_ += dr; }
    if (t_ > y_ + 1) { y_ += dy; t_ += dt; }
  }
  void pad(int dx, int dy) { pad(-dx, -dy, dx, dy); }
  void pad(int d) { pad(-d, -d, d, d); }
  void move(int dx, int dy) { x_ += dx; y_ += dy; r_ += dx; t_ += dy; }

  // The nearest column / row inside the box (of a non-empty box).
  int clampx(int v) const { return v < x_ ? x_ : (v >= r_ ? r_ - 1 : v); }
  int clampy(int v) const { return v < y_ ? y_ : (v >= t_ ? t_ - 1 : v); }

  bool operator==(const Box& b) const { return x_ == b.x_ && y_ == b.y_ && r_ == b.r_ && t_ == b.t_; }
  bool operator!=(const Box& b) const { return !(*this == b); }

private:
  int x_ = 0, y_ = 0, r_ = 0, t_ = 0;
};

}  // namespace Image
}  // namespace DD
