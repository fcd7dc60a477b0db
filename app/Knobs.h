#pragma once
// Knobs as text: setting a node's knobs by name from the command line or a preset file, and
// listing them. Everything goes through the knob records the node made, so this file knows no
// knob of its own.

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "DDImage/ChannelSet.h"
#include "DDImage/Knob.h"
#include "DDImage/Op.h"

namespace vorelapp {

// One KNOB=VALUE, with where it came from for messages ("--set", "look.preset:3").
struct KnobSetting {
  std::string name;
  std::string value;
  std::string origin;
};

// Splits "KNOB=VALUE". Throws UsageError without an '='.
KnobSetting parseSetting(const std::string& text, const std::string& origin);

// A finite number, the whole text of it (blanks around it allowed); false for anything else.
bool parseNumber(const std::string& text, double& v);

// Reads a preset: one "name value" (or "name=value") per line, '#' starts a comment, blank lines
// are skipped, a value may be quoted. Throws UsageError for a missing file or a line without a
// value.
std::vector<KnobSetting> readPreset(const std::string& path);

// Stores the value as a user's edit of the knob would: clamped by a forced range, and followed by
// the node's knob_changed. Throws UsageError for an unknown knob (naming the nearest ones), a
// knob that holds no value, or a value that does not parse. Returns a note when the stored value
// differs from the one given (it was clamped), else "".
std::string applySetting(DD::Image::Op& op, const KnobSetting& setting);

// Gives each knob of `op` the value it has on `like` (an op of the same class) where they differ,
// as a user's edit would (knob_changed, then invalidate): an op kept from one render to the next
// starts the next from the knobs a new op would have, whatever the last one set or the op wrote
// into its own knobs.
void copyKnobValues(const DD::Image::Op& like, DD::Image::Op& op);

// Refuses (UsageError) knob values from which no image can come: a lens with no aperture or no
// distance, kernels squeezed or bent to nothing, a shift that moves the light out of the frame.
// Each message names the knob and the values that work. `hasCamera`: a camera replaces the lens
// knobs it carries.
void checkKnobValues(const DD::Image::Op& op, bool hasCamera);

// Channel names as the user writes them: "rgba.red", "R", "depth.Z", "none". Throws UsageError
// for a name the host does not know.
DD::Image::Channel parseChannel(const std::string& text);
// A file's channel name that stands for a host channel of another name (a layer's
// "ViewLayer.Depth.Z" read as depth.Z), so that the user may name it either way.
void addChannelAlias(const std::string& name, const std::string& hostName);
// A channel set: "all", "none", "rgba", "rgb", "alpha", "depth", or a list of channel names
// separated by commas or spaces (layer words may be mixed in).
DD::Image::ChannelSet parseChannelSet(const std::string& text);
// "rgba.red, rgba.green" and so on; "none" for an empty set.
std::string channelSetText(const DD::Image::ChannelSet& channels);

// The knob's kind as a word: "float", "enumeration", ...
const char* kindName(int kind);
// The knob's current value as text that applySetting accepts back.
std::string valueText(const DD::Image::Knob& knob);
// The names of the op's knobs closest to `name` (case and typing slips), best first.
std::vector<std::string> nearestKnobNames(const DD::Image::Op& op, const std::string& name,
                                          std::size_t most = 3);

// The listing of `vorel knobs`: every knob of the op grouped by tab, with label, kind, default,
// range, entries and tooltip.
void printKnobList(const DD::Image::Op& op, std::ostream& out);

}  // namespace vorelapp
