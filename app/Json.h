#pragma once
// vorel's machine-readable output: JSON text for the knob list and for each rendered frame.

#include <string>

#include "DDImage/Op.h"
#include "app/Sequence.h"

namespace vorelapp {

// A JSON string literal, quotes included.
std::string jsonString(const std::string& text);

// `vorel knobs --json`: an array with one object per knob (tabs and text lines left out): name,
// label, kind, tab, default, size, range {min, max, clamped} or null, entries (enumerations),
// input (channel knobs), tooltip.
std::string knobsJson(const DD::Image::Op& op);

// `vorel render --json`: one line per frame: frame (null without frame numbers), file (the first
// output), files, status ("done", "skipped", "failed"), time (seconds), readTime, openTime,
// rowTime and writeTime (of time: reading files, building kernels and tables, making rows,
// writing files), maxCoC (null when the output type has none), warnings, error (null unless
// failed).
std::string frameJson(const FrameRecord& record);

}  // namespace vorelapp
