#include "app/DemoScene.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <system_error>

#include "app/AppError.h"

namespace fs = std::filesystem;

namespace vorelapp {

namespace {

struct Rgb {
  float r, g, b;
};

// Cheap repeatable noise for tile colours.
float hash01(int a, int b) {
  unsigned h = unsigned(a) * 374761393u + unsigned(b) * 668265263u;
  h = (h ^ (h >> 13)) * 1274126177u;
  return float((h ^ (h >> 16)) & 0xffffu) / 65535.0f;
}

struct Disc {
  float cx, cy, radius, depth;
  Rgb colour;
  int pattern;  // 0 rings, 1 checker, 2 stripes, 3 plain
};

struct Lamp {
  float cx, cy, radius;
  Rgb colour;
};

class Scene {
public:
  explicit Scene(int width) : s_(float(width) / 640.0f) {
    // Nearest first.
    discs_ = {
        {140, 150, 80, 120, {0.80f, 0.25f, 0.15f}, 0},
        {330, 190, 65, 200, {0.90f, 0.80f, 0.30f}, 1},
        {495, 235, 50, 400, {0.15f, 0.35f, 0.80f}, 2},
        {575, 95, 38, 650, {0.20f, 0.70f, 0.30f}, 3},
    };
    for (Disc& d : discs_) {
      d.cx *= s_;
      d.cy *= s_;
      d.radius *= s_;
    }
    const float lamps[][2] = {{40, 320}, {110, 300}, {230, 330}, {300, 60},  {420, 330},
                              {460, 40}, {600, 320}, {620, 200}, {250, 260}, {40, 40}};
    for (int i = 0; i < 10; ++i) {
      const float k = 20.0f + 40.0f * hash01(i, 7);
      lamps_.push_back({lamps[i][0] * s_, lamps[i][1] * s_, 2.0f * s_, {k, 0.75f * k, 0.45f * k}});
    }
    // A glint on the blue disc.
    highlight_ = {480 * s_, 250 * s_, 3.0f * s_, {15, 15, 15}};
  }

  static constexpr float kWallDepth = 1000.0f;
  const std::vector<Disc>& discs() const { return discs_; }

  Rgb wall(float x, float y) const {
    for (const Lamp& l : lamps_)
      if (std::hypot(x - l.cx, y - l.cy) < l.radius)
        return l.colour;
    const float tile = 40.0f * s_, mortar = 3.0f * s_;
    const int row = int(std::floor(y / tile));
    const float shifted = x + (row % 2 ? tile * 0.5f : 0.0f);
    const int col = int(std::floor(shifted / tile));
    const float u = shifted - col * tile, v = y - row * tile;
    if (u < mortar || v < mortar)
      return {0.06f, 0.06f, 0.07f};
    const float k = 0.55f + 0.6f * hash01(col, row);
    const float grain = 0.9f + 0.2f * hash01(int(x), int(y));
    return {0.24f * k * grain, 0.20f * k * grain, 0.17f * k * grain};
  }

  Rgb disc(const Disc& d, float x, float y) const {
    if (std::hypot(x - highlight_.cx, y - highlight_.cy) < highlight_.radius && d.pattern == 2)
      return highlight_.colour;
    const float dx = x - d.cx, dy = y - d.cy;
    float k = 1.0f;
    switch (d.pattern) {
      case 0: k = 0.6f + 0.4f * float(int(std::hypot(dx, dy) / (8.0f * s_)) % 2); break;
      case 1: {
        const int cell = int(std::floor(dx / (6.0f * s_))) + int(std::floor(dy / (6.0f * s_)));
        k = (cell & 1) ? 0.15f : 1.0f;
        break;
      }
      case 2: k = 0.55f + 0.45f * float(int(std::floor((dx + dy) / (7.0f * s_))) & 1); break;
      default: break;
    }
    return {d.colour.r * k, d.colour.g * k, d.colour.b * k};
  }

  static bool inside(const Disc& d, float x, float y) {
    return std::hypot(x - d.cx, y - d.cy) < d.radius;
  }

private:
  float s_;
  std::vector<Disc> discs_;
  std::vector<Lamp> lamps_;
  Lamp highlight_;
};

constexpr int kSub = 4;  // sub-samples per pixel side, for soft edges

FlatImage makeKernel(int size) {
  FlatImage k;
  k.format = k.box = {0, 0, size, size};
  k.channels = {"R", "G", "B", "A"};
  k.allocate();
  const float c = 0.5f * float(size), radius = 0.45f * float(size);
  const float pi = 3.14159265f, rotation = pi / 12.0f;
  const int sides = 6;
  for (int y = 0; y < size; ++y)
    for (int x = 0; x < size; ++x) {
      float sum = 0.0f;
      for (int j = 0; j < kSub; ++j)
        for (int i = 0; i < kSub; ++i) {
          const float px = float(x) + (float(i) + 0.5f) / kSub - c;
          const float py = float(y) + (float(j) + 0.5f) / kSub - c;
          // Distance to the hexagon's edge, in units of its apothem.
          const float a = std::atan2(py, px) - rotation;
          const float sector = 2.0f * pi / sides;
          const float local = a - sector * std::floor(a / sector) - 0.5f * sector;
          const float reach = std::hypot(px, py) * std::cos(local) / (radius * std::cos(0.5f * sector));
          if (reach < 1.0f)
            sum += 0.8f + 0.2f * reach * reach;  // a brighter rim, as real bokeh has
        }
      const float v = sum / (kSub * kSub);
      for (int ch = 0; ch < 4; ++ch)
        k.row(ch, y)[x] = v;
    }
  return k;
}

}  // namespace

DemoScene makeDemoScene(int width, int height) {
  if (width < 16 || height < 16)
    throw UsageError("the demo scene needs at least 16 by 16 pixels");
  const Scene scene(width);
  DemoScene out;

  DeepImage& deep = out.deep;
  deep.format = deep.box = {0, 0, width, height};
  deep.channels = {"R", "G", "B", "A", "Z", "ZBack"};
  deep.offsets.assign(std::size_t(width) * height + 1, 0);

  FlatImage& flat = out.flat;
  flat.format = flat.box = deep.box;
  flat.channels = {"R", "G", "B", "A", "Z"};
  flat.allocate();

  struct Sample {
    float r, g, b, a, z;
  };
  std::vector<Sample> samples;
  const float n = float(kSub * kSub);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      samples.clear();
      // What each sub-sample sees first, nearest surface first.
      std::vector<Rgb> sum(scene.discs().size() + 1, Rgb{0, 0, 0});
      std::vector<int> hits(scene.discs().size() + 1, 0);
      for (int j = 0; j < kSub; ++j)
        for (int i = 0; i < kSub; ++i) {
          const float px = float(x) + (float(i) + 0.5f) / kSub;
          const float py = float(y) + (float(j) + 0.5f) / kSub;
          std::size_t hit = scene.discs().size();
          for (std::size_t d = 0; d < scene.discs().size(); ++d)
            if (Scene::inside(scene.discs()[d], px, py)) {
              hit = d;
              break;
            }
          const Rgb c = hit < scene.discs().size() ? scene.disc(scene.discs()[hit], px, py)
                                                  : scene.wall(px, py);
          sum[hit].r += c.r;
          sum[hit].g += c.g;
          sum[hit].b += c.b;
          ++hits[hit];
        }
      // One sample per surface seen, its coverage as alpha: a renderer's deep output with the
      // hidden parts already removed. The wall, seen through what is left, is opaque.
      float left = 1.0f;
      for (std::size_t d = 0; d <= scene.discs().size(); ++d) {
        if (!hits[d])
          continue;
        const float cover = float(hits[d]) / n;
        const float depth = d < scene.discs().size() ? scene.discs()[d].depth : Scene::kWallDepth;
        const float a = d < scene.discs().size() ? cover / left : 1.0f;
        samples.push_back({sum[d].r / n / left, sum[d].g / n / left, sum[d].b / n / left, a, depth});
        left -= cover;
        if (left <= 1e-6f)
          break;
      }

      const std::size_t p = deep.pixelIndex(x, y);
      deep.offsets[p + 1] = deep.offsets[p] + samples.size();
      float cover = 0.0f;
      float depth = samples.back().z;
      bool depthSet = false;
      for (const Sample& s : samples) {
        deep.samples.insert(deep.samples.end(), {s.r, s.g, s.b, s.a, s.z, s.z});
        const float t = 1.0f - cover;
        flat.row(0, y)[x] += s.r * t;
        flat.row(1, y)[x] += s.g * t;
        flat.row(2, y)[x] += s.b * t;
        cover += s.a * t;
        // A flat depth channel can hold one depth: the surface that covers most of the pixel's
        // centre, the nearest one covering at least half of it.
        if (!depthSet && s.a * t >= 0.5f) {
          depth = s.z;
          depthSet = true;
        }
      }
      flat.row(3, y)[x] = cover;
      flat.row(4, y)[x] = depth;
    }

  out.kernel = makeKernel(std::max(15, (width / 10) | 1));
  return out;
}

std::vector<std::string> writeDemoScene(const std::string& dir, int width, int height) {
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec || !fs::is_directory(dir))
    throw UsageError("cannot make directory " + dir + (ec ? ": " + ec.message() : ""));
  const DemoScene scene = makeDemoScene(width, height);
  const fs::path d(dir);
  const std::string flat = (d / "scene.exr").string();
  const std::string deep = (d / "scene_deep.exr").string();
  const std::string kernel = (d / "kernel.exr").string();
  const std::string preset = (d / "lens.preset").string();
  writeExr(flat, scene.flat);
  writeDeepExr(deep, scene.deep);
  writeExr(kernel, scene.kernel);

  writeTextFile(preset,
      "# A 50 mm lens at f/1.4 focused at 2 m, on the demo scene whose depth is in centimetres.\n"
       "realWorldLens on\n"
       "worldScale cm\n"
       "focalLength 50\n"
       "fStop 1.4\n"
       "focalPlane 200\n"
       "filmFormat 35mm\n");
  return {flat, deep, kernel, preset};
}

}  // namespace vorelapp
