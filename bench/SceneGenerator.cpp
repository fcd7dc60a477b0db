#include "bench/SceneGenerator.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <vector>

namespace vorelbench {

namespace {

constexpr float kWallDepth = 800.0f;
constexpr float kFloorNear = 120.0f;

// splitmix64: the same numbers on every platform, unlike the standard distributions.
struct Random {
  std::uint64_t state;
  std::uint64_t next() {
    std::uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
  }
  float uniform(float lo, float hi) {
    return lo + (hi - lo) * float(double(next() >> 11) * (1.0 / 9007199254740992.0));
  }
};

float hashNoise(int x, int y) {
  std::uint32_t h = std::uint32_t(x) * 374761393u + std::uint32_t(y) * 668265263u;
  h = (h ^ (h >> 13)) * 1274126177u;
  return float(h >> 8) * (1.0f / 16777216.0f);
}

struct Rgb {
  float r, g, b;
};

struct Disc {
  float cx, cy, radius, depth;
  Rgb colour;
};

struct Highlight {
  float cx, cy, radius, value;
  Rgb tint;
};

struct Sample {
  Rgb c;  // not premultiplied
  float a, z;
};

}  // namespace

Scene makeScene(const SceneSpec& spec) {
  const int W = spec.width, H = spec.height;
  const float scale = float(W) / 2048.0f;
  Random rng{spec.seed};

  std::vector<Disc> discs(std::size_t(std::max(0, spec.discs)));
  for (Disc& d : discs) {
    d.cx = rng.uniform(0.0f, float(W));
    d.cy = rng.uniform(0.0f, float(H));
    d.radius = rng.uniform(15.0f, 110.0f) * scale;
    d.depth = rng.uniform(80.0f, 700.0f);
    d.colour = {rng.uniform(0.05f, 0.9f), rng.uniform(0.05f, 0.9f), rng.uniform(0.05f, 0.9f)};
  }
  std::sort(discs.begin(), discs.end(), [](const Disc& a, const Disc& b) { return a.depth < b.depth; });

  std::vector<Highlight> highlights(std::size_t(std::max(0, spec.highlights)));
  for (Highlight& h : highlights) {
    h.cx = rng.uniform(0.0f, float(W));
    h.cy = rng.uniform(0.0f, float(H));
    h.radius = rng.uniform(0.7f, 3.0f) * std::max(scale, 0.5f);
    h.value = rng.uniform(4.0f, 20.0f);
    h.tint = {rng.uniform(0.8f, 1.0f), rng.uniform(0.7f, 1.0f), rng.uniform(0.6f, 1.0f)};
  }

  // Host rows run upwards: the floor fills the bottom of the frame up to the horizon, nearest at
  // row 0, and meets the wall there.
  const int horizon = int(float(H) * 0.4f);
  auto background = [&](int x, int y, float& depth) -> Rgb {
    const float n = hashNoise(x, y);
    if (y >= horizon) {
      depth = kWallDepth;
      const int tx = x / std::max(1, int(48 * scale)), ty = y / std::max(1, int(48 * scale));
      const float tile = 0.25f + 0.35f * hashNoise(tx, ty);
      const bool mortar = (x % std::max(2, int(48 * scale))) < 2 || (y % std::max(2, int(48 * scale))) < 2;
      const float v = mortar ? 0.08f : tile + 0.1f * n;
      return {v * 1.05f, v * 0.9f, v * 0.75f};
    }
    const float t = float(y) / float(std::max(1, horizon));
    depth = 1.0f / (1.0f / kFloorNear + (1.0f / kWallDepth - 1.0f / kFloorNear) * t);
    // Boards that run away from the camera: their width shrinks with distance.
    const float u = (float(x) - 0.5f * float(W)) / depth;
    const int board = int(std::floor(u * 4.0f / scale));
    const float v = 0.2f + 0.15f * hashNoise(board, 7) + 0.1f * n;
    return {v * 0.8f, v * 0.6f, v * 0.45f};
  };

  Scene scene;
  vorelapp::DeepImage& deep = scene.deep;
  deep.format = deep.box = {0, 0, W, H};
  deep.channels = {"R", "G", "B", "A", "Z", "ZBack"};
  deep.offsets.assign(std::size_t(W) * H + 1, 0);
  deep.samples.reserve(std::size_t(W) * H * 6 * 5 / 4);

  vorelapp::FlatImage& flat = scene.flat;
  flat.format = flat.box = deep.box;
  flat.channels = {"R", "G", "B", "A", "Z"};
  flat.allocate();

  std::vector<Sample> samples;
  for (int y = 0; y < H; ++y) {
    for (int x = 0; x < W; ++x) {
      samples.clear();
      const float px = float(x) + 0.5f, py = float(y) + 0.5f;
      // At most two discs, nearest first, then the background; an opaque disc ends the list.
      bool opaque = false;
      for (const Disc& d : discs) {
        if (std::fabs(px - d.cx) > d.radius + 1.0f || std::fabs(py - d.cy) > d.radius + 1.0f)
          continue;
        const float dist = std::hypot(px - d.cx, py - d.cy);
        const float cover = std::min(1.0f, std::max(0.0f, d.radius + 0.5f - dist));
        if (cover <= 0.0f)
          continue;
        const float shade = 0.75f + 0.25f * (1.0f - dist / std::max(d.radius, 1.0f));
        samples.push_back({{d.colour.r * shade, d.colour.g * shade, d.colour.b * shade}, cover, d.depth});
        if (cover >= 1.0f) {
          opaque = true;
          break;
        }
        if (samples.size() == 2)
          break;
      }
      if (!opaque) {
        float depth = kWallDepth;
        const Rgb c = background(x, y, depth);
        samples.push_back({c, 1.0f, depth});
      }
      for (const Highlight& h : highlights) {
        if (std::fabs(px - h.cx) > h.radius || std::fabs(py - h.cy) > h.radius)
          continue;
        if (std::hypot(px - h.cx, py - h.cy) <= h.radius)
          samples.front().c = {h.value * h.tint.r, h.value * h.tint.g, h.value * h.tint.b};
      }

      const std::size_t pixel = deep.pixelIndex(x, y);
      float left = 1.0f, r = 0.0f, g = 0.0f, b = 0.0f;
      for (const Sample& s : samples) {
        const float values[6] = {s.c.r * s.a, s.c.g * s.a, s.c.b * s.a, s.a, s.z, s.z};
        deep.samples.insert(deep.samples.end(), values, values + 6);
        r += left * values[0];
        g += left * values[1];
        b += left * values[2];
        left *= 1.0f - s.a;
      }
      deep.offsets[pixel + 1] = deep.offsets[pixel] + samples.size();
      flat.row(0, y)[x] = r;
      flat.row(1, y)[x] = g;
      flat.row(2, y)[x] = b;
      flat.row(3, y)[x] = 1.0f;
      flat.row(4, y)[x] = samples.front().z;
    }
  }
  return scene;
}

void writeScene(const Scene& scene, const std::string& dir) {
  std::filesystem::create_directories(dir);
  vorelapp::writeExr(dir + "/scene.exr", scene.flat);
  vorelapp::writeDeepExr(dir + "/scene_deep.exr", scene.deep);
}

}  // namespace vorelbench
