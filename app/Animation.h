#pragma once
// Values that change over a shot: knob keyframes and camera tracks. Between keys a value is
// linear in the frame; before the first key and after the last it holds.

#include <optional>
#include <string>
#include <vector>

#include "app/Render.h"

namespace vorelapp {

// Keys of one or more numbers each (one per element of the knob, or per column of a file).
class Curve {
public:
  // "1001:180 1050:240 1100:200"; a key may hold a comma list ("1001:0.6,1,1").
  static bool looksLikeKeys(const std::string& text);
  static Curve fromKeys(const std::string& text, const std::string& origin);
  // A `.chan` file: per line a frame and its numbers, whitespace apart; '#' starts a comment.
  // Every line has as many numbers. Throws UsageError for a file that is missing or malformed.
  static Curve fromChanFile(const std::string& path, const std::string& origin);

  // The numbers at a frame.
  std::vector<double> at(double frame) const;
  // The same as text a knob takes: comma separated, full float precision.
  std::string textAt(double frame) const;
  std::size_t width() const { return keys_.empty() ? 0 : keys_.front().values.size(); }

private:
  struct Key {
    double frame;
    std::vector<double> values;
  };
  void add(double frame, std::vector<double> values, const std::string& origin);
  std::vector<Key> keys_;  // ascending frames, one key per frame
};

// A knob setting whose value is "@file.chan" or keyframes; empty for a plain value.
std::optional<Curve> settingCurve(const KnobSetting& setting);

// The host's camera export (`.chan`): one line per frame. Columns used: 1 frame, 8 focal length
// in mm. Optional, in this order: 9 horizontal and 10 vertical aperture (film back, mm),
// 11 focus distance (scene units), 12 f-stop. Columns 2-7 (translate, rotate) are read and not
// used: the node's lens needs no position. What a line lacks keeps the --camera value.
class CameraTrack {
public:
  explicit CameraTrack(const std::string& path);
  CameraValues at(double frame, CameraValues base) const;

private:
  Curve curve_;
};

}  // namespace vorelapp
