#pragma once
// The node's panel: knob tables shared by the node and by anything that lists them.

namespace vorel {

struct FilmBack {
  const char* label;
  float width;
  float height;
};

// Entries 0 to 8 carry a film back; entry 9, "Custom", takes the typed-in size. The entries after
// it are the film backs users reach for today, kept behind Custom so that saved indices hold.
constexpr int kFilmFormatCount = 14;
extern const FilmBack kFilmFormats[kFilmFormatCount];

// The film back a format gives, or null for "Custom" (and for an index outside the table).
const FilmBack* presetFilmBack(int filmFormat);

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
