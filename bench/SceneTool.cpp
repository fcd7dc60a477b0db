// Writes the benchmark scene: vorel_scene DIR [WIDTH HEIGHT]
#include <cstdio>
#include <exception>
#include <string>

#include "bench/SceneGenerator.h"

int main(int argc, char** argv) {
  if (argc != 2 && argc != 4) {
    std::fprintf(stderr, "usage: vorel_scene DIR [WIDTH HEIGHT]\n");
    return 2;
  }
  try {
    vorelbench::SceneSpec spec;
    if (argc == 4) {
      spec.width = std::stoi(argv[2]);
      spec.height = std::stoi(argv[3]);
    }
    vorelbench::writeScene(vorelbench::makeScene(spec), argv[1]);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "vorel_scene: %s\n", e.what());
    return 1;
  }
  return 0;
}
