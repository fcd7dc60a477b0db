#include "node/Panel.h"

#include <cstdio>
#include <cstring>

#include "DDImage/CameraOp.h"
#include "DDImage/Knob.h"
#include "DDImage/Knobs.h"
#include "node/tzVorel.h"

using namespace DD::Image;

namespace vorel {

const FilmBack kFilmFormats[kFilmFormatCount] = {
    {"35mm", 22.0f, 16.0f},        {"Academy", 22.0f, 16.0f},    {"Anamorphic", 21.3f, 17.8f},
    {"Super 35mm", 24.89f, 18.67f}, {"Vista Vision", 37.7f, 25.17f}, {"16mm", 10.26f, 7.49f},
    {"Super 16mm", 12.52f, 7.41f}, {"APSC", 22.2f, 14.8f},       {"Four Thirds", 17.3f, 13.0f},
    {"Custom", 0.0f, 0.0f},
    {"Full Frame", 36.0f, 24.0f},  {"APS-H", 27.9f, 18.6f},      {"Medium Format", 43.8f, 32.9f},
    {"Super 8", 5.79f, 4.01f},
};

const FilmBack* presetFilmBack(int filmFormat) {
  if (filmFormat < 0 || filmFormat >= kFilmFormatCount || filmFormat == kCustomFilmFormat)
    return nullptr;
  return &kFilmFormats[filmFormat];
}

const char* const kOutputTypeNames[] = {"Defocused Image", "Lens Bloom", "Focal Distance Visualization",
                                        "Filter Shape", "Focus Matte", nullptr};
const char* const kFocusOutputNames[] = {"Both", "Front", "Back", nullptr};
const char* const kDepthStyleNames[] = {"Real", "1/z", nullptr};
const char* const kFalloffNames[] = {"Linear", "Quadratic", nullptr};
const char* const kWorldScaleNames[] = {"mm", "cm", "m", "inches", "feet", nullptr};
const char* const kFilmFormatNames[] = {"35mm",       "Academy", "Anamorphic", "Super 35mm", "Vista Vision",
                                        "16mm",       "Super 16mm", "APSC",    "Four Thirds", "Custom",
                                        "Full Frame", "APS-H",   "Medium Format", "Super 8", nullptr};
const char* const kKernelTypeNames[] = {"Input", "Circular", "Aperture Blades", nullptr};

const char* versionText() {
  static char text[32];
  static const bool made = [] {
    std::snprintf(text, sizeof text, "%d.%d.%d", kVorelVersion[0], kVorelVersion[1], kVorelVersion[2]);
    return true;
  }();
  (void)made;
  return text;
}

}  // namespace vorel

using namespace vorel;

namespace {

void setEnabled(Op& op, const char* name, bool enabled) {
  if (Knob* k = op.knob(name))
    enabled ? k->enable() : k->disable();
}

bool named(Knob* k, const char* name) {
  return std::strcmp(k->name_c_str(), name) == 0;
}

const char* const kCameraKnobs[] = {"focalPlane", "focalLength", "fStop", "apertureWidth", "apertureHeight"};

// State rules: only enable/disable, never a value.
void applyKnobStates(Op& op, const NodeParameters& p) {
  setEnabled(op, "multiplier", !p.realWorldLens);
  setEnabled(op, "focusRegionFalloff", !p.realWorldLens);
  if (op.knob("apertureWidth") && op.knob("apertureHeight")) {
    setEnabled(op, "apertureWidth", p.filmFormat == kCustomFilmFormat);
    setEnabled(op, "apertureHeight", p.filmFormat == kCustomFilmFormat);
  }
  setEnabled(op, "depthSlicesNearAndFar", p.overrideNearAndFarForSlices);
}

// The panel, one tab at a time, in the order the host shows them.
void vorelTab(Knob_Callback f, NodeParameters& p) {
  Tab_knob(f, "Vorel");
  Text_knob(f, "Version", versionText());
  ChannelMask_knob(f, &p.vorelChannels, "vorelChannels", "Vorel Channels");
  Channel_knob(f, &p.depthChannel, 1, "depthChannel", "Depth Channel");
  Enumeration_knob(f, &p.outputType, kOutputTypeNames, "outputType", "Output Type");
  Tooltip(f, "Vorel - the actual Vorel effect with lens bloom if any.\n"
             "Lens Bloom - just the bloom effect.\n"
             "Focal Distance Visualization - preview the focal distance values.\n"
             "Filter Shape - preview the shape of the kernel.\n"
             "Focus Mattes - Front/Back mattes for the focus.");
  Enumeration_knob(f, &p.focusOutput, kFocusOutputNames, "focusOutput", "Focus Region Output");
  Tooltip(f, "Whether the front, back or all regions should be output");
  Float_knob(f, &p.multiplier, "multiplier", "Multiplier");
  SetRange(f, 1, 256);
  Float_knob(f, &p.frontmultiplier, "frontmultiplier", "Front Multiplier");
  SetRange(f, 1, 256);
  Float_knob(f, &p.backmultiplier, "backmultiplier", "Back Multiplier");
  SetRange(f, 1, 256);
  Tooltip(f, "Used to increase the depth values resulting in a higher blur.");
  Enumeration_knob(f, &p.depthStyle, kDepthStyleNames, "depthStyle", "Depth Style");
  Tooltip(f, "Real = real world values, 1/z = values that come out of Scanline renderer");
  Float_knob(f, &p.focalPlane, "focalPlane", "Focal Plane");
  SetRange(f, 1, 256);
  Tooltip(f, "The plane in focus.");
  Float_knob(f, &p.focusRegionSize, "focusRegionSize", "Focus Region Size");
  SetRange(f, 1, 256);
  Tooltip(f, "The size of the region in focus.");
  Enumeration_knob(f, &p.focusRegionFalloff, kFalloffNames, "focusRegionFalloff", "Focus Region Falloff");
  Tooltip(f, "Falloff of the vorel effect across the region.");
  Input_Channel_knob(f, &p.defocusMatteChannel, 1, 4, "defocusMatteChannel", "Defocus Matte Channel");
  Tooltip(f, "A channel in the Mattes input that is used to modulate the defocus level.");
  Bool_knob(f, &p.normalizeVisualization, "normalizeVisualization", "Normalize Visualization");
  SetFlags(f, Knob::STARTLINE);
  Tooltip(f, "Normalize the depth visualization output.");
  Bool_knob(f, &p.integrateFrontAndBackSeperately, "integrateFrontAndBackSeperately",
            "Integrate Deep Front and Back Separately");
  SetFlags(f, Knob::STARTLINE);
  Tooltip(f, "In some cases artifacts can arise from integrating all the slices together, this will "
             "seperate the front and back focus areas and integrate them seperate to help avoid these.");
}

void lensTab(Knob_Callback f, NodeParameters& p) {
  Tab_knob(f, "Lens");
  Bool_knob(f, &p.realWorldLens, "realWorldLens", "Real World Lens Simulation");
  Tooltip(f, "Match the defocusing effects of a real world lens using the below parameters.");
  Float_knob(f, &p.focalLength, "focalLength", "Focal Length");
  SetRange(f, 0, 300);
  SetFlags(f, Knob::FORCE_RANGE);
  Tooltip(f, "The camera's focal length.");
  Float_knob(f, &p.fStop, "fStop", "Aperture");
  Tooltip(f, "The camera's aperture/fstop.");
  Enumeration_knob(f, &p.worldScale, kWorldScaleNames, "worldScale", "World Scale");
  Tooltip(f, "Define the scale of the world, this directly affects the real world camera settings.");
  Float_knob(f, &p.worldScaleMultiplier, "worldScaleMultiplier", "World Scale Multiplier");
  Tooltip(f, "This can be used to adjust the current world scale, as an example: if your scene units "
             "are 10cm then you would set world scale to cm and set this to 10.");
  Enumeration_knob(f, &p.filmFormat, kFilmFormatNames, "filmFormat", "Film Format");
  Tooltip(f, "Desired predefined film back.");
  Float_knob(f, &p.apertureWidth, "apertureWidth", "Aperture Width");
  Tooltip(f, "Used for a custom film back size, this is the width of the frames format in mm.");
  Float_knob(f, &p.apertureHeight, "apertureHeight", "Aperture Height");
  Tooltip(f, "Used for a custom film back size, this is the height of the frames format in mm.");
}

void opticalArtifactsTab(Knob_Callback f, NodeParameters& p) {
  Tab_knob(f, "Optical Artifacts");
  Float_knob(f, &p.bloom, "bloom", "Bloom");
  SetRange(f, 0, 1);
  Tooltip(f, "The level of lens blooming.");
  Float_knob(f, &p.bloomCurvature, "bloomCurvature", "Curvature");
  SetRange(f, 0, 4);
  SetFlags(f, Knob::FORCE_RANGE);
  Tooltip(f, "The curvature of the lens.");
  Float_knob(f, &p.bloomThreshold, "bloomThreshold", "Bloom Threshold");
  SetRange(f, 0, 1);
  Tooltip(f, "The point at which the input colour drives the bloom.");
  Input_Channel_knob(f, &p.bloomMatteChannel, 1, 4, "bloomMatteChannel", "Bloom Matte Channel");
  Tooltip(f, "A channel in the Mattes input that is used to modulate the bloom level.");
  Float_knob(f, &p.kSphAbb, "kSphAbb", "Spherical Aberration");
  SetRange(f, -1, 1);
  SetFlags(f, Knob::FORCE_RANGE);
  Tooltip(f, "The amount of spherical aberration present on the lens.");
  Float_knob(f, &p.kChrAbb, "kChrAbb", "Chromic Aberration");
  SetRange(f, -10, 10);
  Tooltip(f, "The amount of chromic aberration present on the lens.");
  Color_knob(f, p.kChrAbbOff, "kChrAbbOff", "Chromic Aberration Offset");
  Tooltip(f, "A spectral offset representing the chromic abberation effect of the lens.");
  Input_Channel_knob(f, &p.chromicAberrationMatteChannel, 1, 4, "chromicAberrationMatteChannel",
                     "Chromic Aberration Matte Channel");
  Tooltip(f, "A channel in the Mattes input that is used to modulate the chromic aberration level.");
}

void kernelTab(Knob_Callback f, NodeParameters& p) {
  Tab_knob(f, "Kernel");
  Enumeration_knob(f, &p.kernelType, kKernelTypeNames, "kernelType", "Kernel Type");
  Tooltip(f, "Input - use a second input image as the shape.\n"
             "Circular - a clean round lens shape.\n"
             "Aperture Blades - more geometric result due to the number of aperture blades.");
  Int_knob(f, &p.max_kernelsize, "max_kernelsize", "Maximum Kernel Size");
  SetRange(f, 1, 256);
  SetFlags(f, Knob::FORCE_RANGE);
  Tooltip(f, "A limit on the size of the blur - used to speed up computations if needed.");
  Bool_knob(f, &p.expandBBoxToMaxKernelSize, "expandBBoxToMaxKernelSize",
            "Expand Bounding Box To Max Kernel Size");
  Tooltip(f, "Make sure the output bounding box has been expanded to accommodate the maximum kernel size.");
  Input_Channel_knob(f, &p.missingKernelChannel, 1, 4, "missingKernelChannel", "Missing Kernel Channel");
  SetFlags(f, Knob::STARTLINE);
  Tooltip(f, "This channel will be used from the input kernel image if the required channel is missing.");
  Float_knob(f, &p.kAspectRatio, "kAspectRatio", "AspectRatio");
  SetRange(f, 0, 2);
  Tooltip(f, "Controls the aspect ratio of the kernel, useful for anamorphic Vorel.");
  Float_knob(f, &p.kSoftness, "kSoftness", "Softness");
  Tooltip(f, "How soft the kernel should be 0 is hard, 1 is soft.");
  Int_knob(f, &p.kNumSides, "kNumSides", "Blade Count");
  SetRange(f, 3, 16);
  SetFlags(f, Knob::FORCE_RANGE);
  Tooltip(f, "The number of blades in the aperture.");
  Float_knob(f, &p.kCurvature, "kCurvature", "Curvature");
  Tooltip(f, "Controls the curvature of the aperture blades.");
  Float_knob(f, &p.kRotation, "kRotation", "Rotation");
  SetRange(f, 0, 1);
  Tooltip(f, "Rotate the blades.");
}

void correctiveSlicesTab(Knob_Callback f, NodeParameters& p) {
  Tab_knob(f, "Corrective Slices");
  Int_knob(f, &p.correctiveSlices, "correctiveSlices", "Number of Corrective Slices");
  SetRange(f, 1, 256);
  SetFlags(f, Knob::FORCE_RANGE);
  Tooltip(f, "Corrective slices are used to improve layering results, use this to specify the desired "
             "number.\n 1 - default\n 2 - seperate foreground and background\n 3 or more - equally "
             "divide up the space into the number of slices specified");
  Bool_knob(f, &p.overrideNearAndFarForSlices, "overrideNearAndFarForSlices", "Override Near/Far");
  SetFlags(f, Knob::STARTLINE);
  Tooltip(f, "Customize the viewing volume for corrective slice purposes when the slice count is greater than 2.");
  MultiFloat_knob(f, p.depthSlicesNearAndFar, 2, "depthSlicesNearAndFar", "Near and Far");
  Tooltip(f, "Set the values used to override the near and far plane for corrective slice purposes.");
}

}  // namespace

void tzVorel::knobs(Knob_Callback f) {
  NodeParameters& p = params_;
  vorelTab(f, p);
  lensTab(f, p);
  opticalArtifactsTab(f, p);
  kernelTab(f, p);
  correctiveSlicesTab(f, p);

  applyKnobStates(*this, p);
}

int tzVorel::knob_changed(Knob* k) {
  if (!k)
    return Iop::knob_changed(k);

  // A camera on input 2 takes over the five lens values, so their knobs are not to be edited.
  if (k == &Knob::inputChange) {
    const bool camera = dynamic_cast<CameraOp*>(node_input(2)) != nullptr;
    for (const char* name : kCameraKnobs)
      setEnabled(*this, name, !camera);
    return 1;
  }

  // A panel made afresh shows the state of the knobs and of the inputs.
  if (k == &Knob::showPanel) {
    applyKnobStates(*this, params_);
    knob_changed(&Knob::inputChange);
    return 1;
  }
  // The film back itself is taken from the format at validation (a script sets filmFormat with
  // no knob_changed); here the two knobs only show it.
  if (named(k, "filmFormat")) {
    Knob* width = knob("apertureWidth");
    Knob* height = knob("apertureHeight");
    if (params_.filmFormat != kCustomFilmFormat) {
      if (width) width->disable();
      if (height) height->disable();
      if (const FilmBack* back = presetFilmBack(params_.filmFormat)) {
        if (width) width->set_value(static_cast<double>(back->width), -1);
        if (height) height->set_value(static_cast<double>(back->height), -1);
      }
    } else {
      if (width) width->enable();
      if (height) height->enable();
    }
    return 1;
  }
  if (named(k, "realWorldLens")) {
    applyKnobStates(*this, params_);
    return 1;
  }
  // Non-zero for every knob handled here: 0 tells the host to stop calling for that knob.
  if (named(k, "overrideNearAndFarForSlices")) {
    applyKnobStates(*this, params_);
    return 1;
  }
  return Iop::knob_changed(k);
}
