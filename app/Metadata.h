#pragma once
// What an output EXR carries over from its input's header, what vorel adds to it (its name and
// version, and the knobs that made the frame), and the lens a header describes.

#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfPixelType.h>

#include <optional>
#include <string>
#include <vector>

#include "app/Knobs.h"

namespace vorelapp {

struct CameraValues;

// How pixels are stored: as the input had them, or all half, or all float.
enum class PixelType { AsInput, Half, Float };

// The header an EXR is written with. Built from the input's header, then told what vorel adds.
struct ExrHeader {
  Imf::Header attributes;  // copied as they are, but for those that describe the file's layout
  std::string compression = "zip";
  std::string lineOrder;   // "" leaves the writer's default
  // Per channel name, the input's pixel type; channels not listed are written as float.
  std::vector<std::pair<std::string, Imf::PixelType>> channelTypes;
  PixelType pixelType = PixelType::AsInput;

  // The input's other parts, written back unchanged around the rendered one.
  std::string source;  // the file they are copied from
  int part = 0;        // which part of `source` the rendered image replaces
  int partCount = 1;
};

// The header of input 0's file, of the part rendered: every attribute but those that describe
// the file's layout, which the writer sets itself. A file that is not an EXR gives what it has.
ExrHeader readExrHeader(const std::string& path, int part = 0);

// The `vorel/settings` text: one `name=value` line per knob that differs from a fresh node's.
std::string settingsText(const DD::Image::Op& node, const DD::Image::Op& fresh);
// The settings and camera (`vorel/camera`, as --camera takes it, may be empty) a frame was
// rendered with, read back from its header. Throws UsageError when the file has none.
struct SavedSettings {
  std::vector<KnobSetting> settings;
  std::string camera;
};
SavedSettings readSavedSettings(const std::string& path);

// vorel's own entries in the header: software, settings, camera.
void addVorelAttributes(ExrHeader& header, const std::string& settings, const std::string& camera);

// Sets `h`'s attributes, compression and line order from the header. The writer calls it with
// `h` already holding the windows.
void applyExrHeader(Imf::Header& h, const ExrHeader& header);
// How the channel is stored: as the header says (float without one).
Imf::PixelType exrPixelType(const ExrHeader* header, const std::string& channel);

// The lens a header describes. Each value names the key it came from; `missing` lists, for each
// value not found, the keys that were looked for.
struct HeaderCamera {
  std::optional<double> focal, haperture, vaperture, focus, fstop;
  std::vector<std::string> taken;    // "focal 35 (cameraFocalLength)"
  std::vector<std::string> missing;  // "focus distance (one of focus, focusDistance, ...)"
};
HeaderCamera cameraFromHeader(const Imf::Header& attributes);

}  // namespace vorelapp
