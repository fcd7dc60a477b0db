#pragma once
// The benchmark scene: a far textured wall, a floor running towards the camera, discs at many
// depths and small bright highlights, as a flat image with depth and as a deep image whose disc
// edges are semi-transparent. Depth is in centimetres. Everything follows from the seed, so
// every run renders the same pixels.

#include <cstdint>
#include <string>

#include "app/ImageFiles.h"

namespace vorelbench {

struct SceneSpec {
  int width = 2048;
  int height = 1556;
  std::uint64_t seed = 0x5eed'2048'1556ULL;
  int discs = 40;
  int highlights = 300;
};

struct Scene {
  vorelapp::FlatImage flat;  // R G B A Z
  vorelapp::DeepImage deep;  // R G B A Z ZBack, 1 to 3 samples a pixel, nearest first
};

Scene makeScene(const SceneSpec& spec = SceneSpec());

// scene.exr and scene_deep.exr in `dir` (made if missing).
void writeScene(const Scene& scene, const std::string& dir);

}  // namespace vorelbench
