#include "app/Frames.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <set>

#include "app/AppError.h"

namespace vorelapp {

namespace {

// A printf frame pattern at `i`: "%d" or "%0Nd". Its length, or 0.
std::size_t printfPattern(const std::string& s, std::size_t i, int& width) {
  if (s[i] != '%')
    return 0;
  std::size_t j = i + 1;
  width = 0;
  if (j < s.size() && s[j] == '0') {
    ++j;
    while (j < s.size() && std::isdigit(static_cast<unsigned char>(s[j])))
      width = width * 10 + (s[j++] - '0');
    if (width > 32)
      return 0;
  }
  return j < s.size() && s[j] == 'd' ? j + 1 - i : 0;
}

std::string padded(int frame, int width) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%0*d", width, frame);
  return buf;
}

// A whole signed number from s[i..], moving i past it.
bool readNumber(const std::string& s, std::size_t& i, long& v) {
  std::size_t j = i;
  if (j < s.size() && (s[j] == '-' || s[j] == '+'))
    ++j;
  if (j >= s.size() || !std::isdigit(static_cast<unsigned char>(s[j])))
    return false;
  errno = 0;
  char* end = nullptr;
  v = std::strtol(s.c_str() + i, &end, 10);
  if (errno == ERANGE || v < -1000000000L || v > 1000000000L)
    return false;
  i = std::size_t(end - s.c_str());
  return true;
}

}  // namespace

bool hasFramePattern(const std::string& path) {
  int width;
  for (std::size_t i = 0; i < path.size(); ++i)
    if (path[i] == '#' || path[i] == '@' || printfPattern(path, i, width))
      return true;
  return false;
}

std::string framePath(const std::string& path, int frame) {
  std::string out;
  for (std::size_t i = 0; i < path.size();) {
    int width = 0;
    if (path[i] == '#' || path[i] == '@') {
      const char c = path[i];
      std::size_t j = i;
      while (j < path.size() && path[j] == c)
        ++j;
      out += padded(frame, int(j - i));
      i = j;
    } else if (std::size_t n = printfPattern(path, i, width)) {
      out += padded(frame, width);
      i += n;
    } else {
      out += path[i++];
    }
  }
  return out;
}

std::vector<int> parseFrames(const std::string& text) {
  const long kMostFrames = 1000000;
  std::vector<int> frames;
  std::set<int> seen;
  auto bad = [&](const std::string& why) {
    return UsageError("--frames: '" + text + "' " + why +
                      " (expected a list like 1001-1100, 1001-1100x2, 1001,1005)");
  };
  std::string item;
  for (std::size_t start = 0; start <= text.size();) {
    std::size_t comma = text.find(',', start);
    if (comma == std::string::npos)
      comma = text.size();
    std::string part;
    for (char c : text.substr(start, comma - start))
      if (!std::isspace(static_cast<unsigned char>(c)))
        part += c;
    start = comma + 1;
    if (part.empty())
      continue;
    std::size_t i = 0;
    long first, last, step = 1;
    if (!readNumber(part, i, first))
      throw bad("does not parse");
    last = first;
    if (i < part.size() && part[i] == '-') {
      ++i;
      if (!readNumber(part, i, last))
        throw bad("does not parse");
      if (i < part.size() && (part[i] == 'x' || part[i] == 'X')) {
        ++i;
        if (!readNumber(part, i, step) || step < 1)
          throw bad("has a step that is not a whole number of 1 or more");
      }
    }
    if (i != part.size())
      throw bad("does not parse");
    if (last < first)
      throw bad("runs backwards");
    if ((last - first) / step + long(frames.size()) >= kMostFrames)
      throw bad("names more than a million frames");
    for (long f = first; f <= last; f += step)
      if (seen.insert(int(f)).second)
        frames.push_back(int(f));
  }
  if (frames.empty())
    throw bad("names no frame");
  return frames;
}

namespace {

// Runs of frames rising by one step: with `steps`, any step of three frames or more; without,
// only consecutive frames.
std::string runsText(const std::vector<int>& frames, bool steps, const char* separator) {
  std::string s;
  for (std::size_t i = 0; i < frames.size();) {
    const long step = i + 1 < frames.size() ? long(frames[i + 1]) - frames[i] : 0;
    std::size_t j = i;
    if (step == 1 || (steps && step > 1)) {
      while (j + 1 < frames.size() && long(frames[j + 1]) - frames[j] == step)
        ++j;
      if (step > 1 && j < i + 2)
        j = i;
    }
    s += (s.empty() ? "" : separator) + std::to_string(frames[i]);
    if (j > i)
      s += "-" + std::to_string(frames[j]) + (step > 1 ? "x" + std::to_string(step) : "");
    i = j + 1;
  }
  return s;
}

}  // namespace

std::string frameListText(const std::vector<int>& frames) {
  return runsText(frames, false, ", ");
}

std::string frameRangeText(const std::vector<int>& frames) {
  return runsText(frames, true, ",");
}

}  // namespace vorelapp
