#pragma once
// A small synthetic scene to try the renderer on: a tiled wall far away with a few bright lamps
// on it, and discs at several depths in front of it. Depth is in centimetres.

#include <string>
#include <vector>

#include "app/ImageFiles.h"

namespace vorelapp {

struct DemoScene {
  FlatImage flat;   // R G B A Z
  DeepImage deep;   // R G B A Z ZBack, one sample per surface a pixel sees, edges semi-transparent
  FlatImage kernel; // a soft six-bladed aperture, R G B A
};

// Scene of the given size; everything scales with the width.
DemoScene makeDemoScene(int width = 640, int height = 360);

// Writes scene.exr, scene_deep.exr, kernel.exr and lens.preset into `dir` (made if missing) and
// returns the paths written.
std::vector<std::string> writeDemoScene(const std::string& dir, int width = 640, int height = 360);

}  // namespace vorelapp
