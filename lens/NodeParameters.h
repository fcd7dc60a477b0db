#pragma once
// Every knob value and every value derived from them, in one record. The node's knobs bind
// straight to the fields of its own copy; each frame takes a copy of its own, which the lens,
// the engines and the previews read.

#include "DDImage/Channel.h"
#include "DDImage/ChannelSet.h"

namespace vorel {

enum OutputType : int {
  OutputDefocusedImage = 0,
  OutputLensBloom = 1,
  OutputFocalDistance = 2,
  OutputFilterShape = 3,
  OutputFocusMatte = 4,
};
enum FocusOutput : int { FocusBoth = 0, FocusFront = 1, FocusBack = 2 };
enum KernelType : int { KernelInput = 0, KernelCircular = 1, KernelApertureBlades = 2 };
enum WorldScale : int { ScaleMM = 0, ScaleCM = 1, ScaleM = 2, ScaleInches = 3, ScaleFeet = 4 };
constexpr int kCustomFilmFormat = 9;

struct NodeParameters {
  float focalPlane = 100.0f;
  float focusRegionSize = 1.0f;
  DD::Image::Channel defocusMatteChannel = DD::Image::Chan_Black;
  int max_kernelsize = 256;
  float multiplier = 1.0f;
  float frontmultiplier = 1.0f;
  float backmultiplier = 1.0f;
  int kernelType = KernelCircular;
  float kAspectRatio = 1.0f;
  int kNumSides = 6;
  float kCurvature = 0.1f;
  float kRotation = 0.0f;
  float kSphAbb = 0.0f;
  float kChrAbb = 0.0f;
  DD::Image::Channel chromicAberrationMatteChannel = DD::Image::Chan_Black;
  DD::Image::Channel missingKernelChannel = DD::Image::Chan_Black;
  float kSoftness = 0.1f;
  float focalLength = 35.0f;
  float fStop = 6.0f;
  bool realWorldLens = false;
  int outputType = OutputDefocusedImage;
  int focusRegionFalloff = 0;
  float kChrAbbOff[3] = {0.6f, 1.0f, 1.0f};
  int focusOutput = FocusBoth;
  int worldScale = ScaleCM;
  float worldScaleMultiplier = 1.0f;
  int filmFormat = 0;
  int depthStyle = 0;
  int correctiveSlices = 10;
  bool overrideNearAndFarForSlices = false;
  float depthSlicesNearAndFar[2] = {0.0f, 0.0f};
  float bloom = 0.0f;
  float bloomCurvature = 2.0f;
  float bloomThreshold = 0.7f;
  DD::Image::Channel bloomMatteChannel = DD::Image::Chan_Black;
  float apertureWidth = 22.0f;
  float apertureHeight = 16.0f;
  // Derived by deriveLensValues at each validation for real; nothing reads them earlier.
  float pixelsPerMillimetre = 0.0f;
  float inverseHalfRegion = 0.0f;
  float regionFar = 0.0f;
  float regionNear = 0.0f;
  float lensConstant = 0.0f;
  float uiScale = 1.0f;
  bool normalizeVisualization = true;
  bool integrateFrontAndBackSeperately = false;
  bool hasDeepInput = false;
  bool expandBBoxToMaxKernelSize = false;
  DD::Image::Channel depthChannel = DD::Image::Chan_Z;
  DD::Image::ChannelSet vorelChannels{DD::Image::Mask_RGBA};
};

}  // namespace vorel
