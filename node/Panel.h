#pragma once
// The node's panel: knob tables shared by the node and by anything that lists them.

namespace vorel {

struct FilmBack {
  const char* label;
  float width;
  float height;
};

// Entries 0 to 8 carry a film back; entry 9, "Custom", takes the typed-in size.
constexpr int kFilmFormatCount = 10;
extern const FilmBack kFilmFormats[kFilmFormatCount];

extern const char* const kOutputTypeNames[];
extern const char* const kFocusOutputNames[];
extern const char* const kDepthStyleNames[];
extern const char* const kFalloffNames[];
extern const char* const kWorldScaleNames[];
extern const char* const kFilmFormatNames[];
extern const char* const kKernelTypeNames[];

// "1.4.3"
const char* versionText();

}  // namespace vorel
