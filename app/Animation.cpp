#include "app/Animation.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "app/AppError.h"
#include "app/Knobs.h"

namespace vorelapp {

namespace {

std::vector<std::string> split(const std::string& text, const char* separators) {
  std::vector<std::string> parts;
  std::size_t i = 0;
  while (i < text.size()) {
    const std::size_t b = text.find_first_not_of(separators, i);
    if (b == std::string::npos)
      break;
    const std::size_t e = text.find_first_of(separators, b);
    parts.push_back(text.substr(b, e == std::string::npos ? std::string::npos : e - b));
    i = e == std::string::npos ? text.size() : e;
  }
  return parts;
}

// "1001:0.6,1,1" into its frame and numbers; false if it is not a key.
bool parseKey(const std::string& token, double& frame, std::vector<double>& values) {
  const auto colon = token.find(':');
  if (colon == std::string::npos || !parseNumber(token.substr(0, colon), frame))
    return false;
  values.clear();
  const std::string rest = token.substr(colon + 1);
  if (rest.empty() || rest.back() == ',')
    return false;
  for (const std::string& v : split(rest, ",")) {
    double d;
    if (!parseNumber(v, d))
      return false;
    values.push_back(d);
  }
  return !values.empty();
}

}  // namespace

bool Curve::looksLikeKeys(const std::string& text) {
  const auto tokens = split(text, " \t");
  double frame;
  std::vector<double> values;
  return !tokens.empty() && std::all_of(tokens.begin(), tokens.end(), [&](const std::string& t) {
    return parseKey(t, frame, values);
  });
}

void Curve::add(double frame, std::vector<double> values, const std::string& origin) {
  if (!keys_.empty() && values.size() != keys_.front().values.size())
    throw UsageError(origin + ": every key needs " + std::to_string(keys_.front().values.size()) +
                     " numbers, as the first has");
  auto at = std::lower_bound(keys_.begin(), keys_.end(), frame,
                             [](const Key& k, double f) { return k.frame < f; });
  if (at != keys_.end() && at->frame == frame)
    throw UsageError(origin + ": frame " + std::to_string(long(frame)) + " is keyed twice");
  keys_.insert(at, Key{frame, std::move(values)});
}

Curve Curve::fromKeys(const std::string& text, const std::string& origin) {
  Curve curve;
  for (const std::string& token : split(text, " \t")) {
    double frame;
    std::vector<double> values;
    if (!parseKey(token, frame, values))
      throw UsageError(origin + ": '" + token + "' is not a key FRAME:VALUE");
    curve.add(frame, std::move(values), origin);
  }
  if (curve.keys_.empty())
    throw UsageError(origin + ": no keys");
  return curve;
}

Curve Curve::fromChanFile(const std::string& path, const std::string& origin) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(path, ec))
    throw UsageError(origin + ": no such file: " + path);
  std::ifstream in(path);
  if (!in)
    throw UsageError(origin + ": cannot read " + path);
  Curve curve;
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    const auto hash = line.find('#');
    if (hash != std::string::npos)
      line.erase(hash);
    const auto fields = split(line, " \t\r,");
    if (fields.empty())
      continue;
    const std::string where = path + ":" + std::to_string(number);
    std::vector<double> values;
    for (const std::string& f : fields) {
      double v;
      if (!parseNumber(f, v))
        throw UsageError(origin + ": " + where + ": '" + f + "' is not a number");
      values.push_back(v);
    }
    if (values.size() < 2)
      throw UsageError(origin + ": " + where + ": expected a frame and at least one value");
    const double frame = values.front();
    values.erase(values.begin());
    curve.add(frame, std::move(values), origin + ": " + where);
  }
  if (curve.keys_.empty())
    throw UsageError(origin + ": " + path + " holds no frames");
  return curve;
}

std::vector<double> Curve::at(double frame) const {
  if (frame <= keys_.front().frame)
    return keys_.front().values;
  if (frame >= keys_.back().frame)
    return keys_.back().values;
  auto next = std::upper_bound(keys_.begin(), keys_.end(), frame,
                               [](double f, const Key& k) { return f < k.frame; });
  const Key& b = *next;
  const Key& a = *(next - 1);
  const double t = (frame - a.frame) / (b.frame - a.frame);
  std::vector<double> v(a.values.size());
  for (std::size_t i = 0; i < v.size(); ++i)
    v[i] = a.values[i] + (b.values[i] - a.values[i]) * t;
  return v;
}

std::string Curve::textAt(double frame) const {
  std::ostringstream s;
  s.precision(9);
  const auto values = at(frame);
  for (std::size_t i = 0; i < values.size(); ++i)
    s << (i ? "," : "") << values[i];
  return s.str();
}

std::optional<Curve> settingCurve(const KnobSetting& setting) {
  const std::string origin = setting.origin + ": " + setting.name;
  if (!setting.value.empty() && setting.value.front() == '@')
    return Curve::fromChanFile(setting.value.substr(1), origin);
  if (Curve::looksLikeKeys(setting.value))
    return Curve::fromKeys(setting.value, origin);
  return std::nullopt;
}

CameraTrack::CameraTrack(const std::string& path)
    : curve_(Curve::fromChanFile(path, "--camera-file")) {
  // The frame is column 1, so the curve's values start at column 2: focal is its 7th.
  if (curve_.width() < 7)
    throw UsageError("--camera-file: " + path + " has " + std::to_string(curve_.width() + 1) +
                     " columns; a camera needs 8 (frame, translate, rotate, focal length)");
}

CameraValues CameraTrack::at(double frame, CameraValues base) const {
  const std::vector<double> v = curve_.at(frame);
  double* columns[] = {&base.focal, &base.haperture, &base.vaperture, &base.focus, &base.fstop};
  for (std::size_t i = 0; i < 5 && 6 + i < v.size(); ++i)
    *columns[i] = v[6 + i];
  if (!(base.focal > 0 && base.haperture > 0 && base.vaperture > 0 && base.focus > 0 && base.fstop > 0))
    throw UsageError("--camera-file: at frame " + std::to_string(long(frame)) +
                     " a lens value is not above 0 (" + cameraText(base) + ")");
  return base;
}

}  // namespace vorelapp
