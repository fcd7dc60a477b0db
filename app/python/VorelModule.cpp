// The `vorel` Python module: the renderer for NumPy arrays and for files, and its knob listing.
// Arrays are read where they lie and the result is made in place; the interpreter's lock is let
// go for the whole render, so renders may run side by side from Python threads.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <sstream>
#include <string>
#include <vector>

#include "DDImage/Host.h"
#include "app/AppError.h"
#include "app/ArrayRender.h"
#include "app/Cli.h"
#include "app/ImageFiles.h"
#include "app/KnobRecords.h"
#include "app/Knobs.h"

namespace py = pybind11;
using namespace vorelapp;

namespace {

using FloatArray = py::array_t<float, py::array::forcecast>;

// Seconds the calling thread's last render() spent inside the renderer, for measuring what a call
// costs beyond the render itself.
thread_local double lastRenderSeconds = 0.0;

// A knob value as the command line would spell it: True -> on, 2.5 -> 2.5, (1, 0.5) -> 1,0.5.
std::string knobText(const py::handle& value) {
  if (py::isinstance<py::bool_>(value))
    return value.cast<bool>() ? "on" : "off";
  if (py::isinstance<py::str>(value))
    return value.cast<std::string>();
  if (py::isinstance<py::int_>(value) || py::isinstance<py::float_>(value))
    return py::repr(value).cast<std::string>();
  if (py::isinstance<py::sequence>(value) || py::isinstance<py::array>(value)) {
    std::string text;
    for (const py::handle item : value)
      text += (text.empty() ? "" : ",") + knobText(item);
    return text;
  }
  return py::str(value).cast<std::string>();
}

std::vector<KnobSetting> knobSettings(const py::kwargs& knobs, const std::string& origin) {
  std::vector<KnobSetting> settings;
  for (const auto& item : knobs)
    settings.push_back({item.first.cast<std::string>(), knobText(item.second), origin});
  return settings;
}

// "focal=50,fstop=2" from a dict, or the text as given.
std::string cameraText(const py::object& camera) {
  if (!py::isinstance<py::dict>(camera))
    return py::str(camera).cast<std::string>();
  std::string text;
  for (const auto& item : camera.cast<py::dict>())
    text += (text.empty() ? "" : ",") + item.first.cast<std::string>() + "=" + knobText(item.second);
  return text;
}

// An image array as rows, columns and channels; a 2-D array has one channel.
ArrayView viewOf(const FloatArray& a, const char* what) {
  if (a.ndim() != 2 && a.ndim() != 3)
    throw UsageError(std::string(what) + " must be a 2-D or 3-D array (height, width[, channels]), not " +
                     std::to_string(a.ndim()) + "-D");
  ArrayView v;
  v.data = a.data();
  v.height = int(a.shape(0));
  v.width = int(a.shape(1));
  v.channels = a.ndim() == 3 ? int(a.shape(2)) : 1;
  v.rowStride = a.strides(0) / py::ssize_t(sizeof(float));
  v.columnStride = a.strides(1) / py::ssize_t(sizeof(float));
  v.channelStride = a.ndim() == 3 ? a.strides(2) / py::ssize_t(sizeof(float)) : 0;
  return v;
}

void warnAll(const std::vector<std::string>& warnings) {
  for (const std::string& w : warnings)
    PyErr_WarnEx(PyExc_RuntimeWarning, w.c_str(), 2);
}

py::array_t<float> renderArray(const FloatArray& image, const FloatArray& depth, const py::object& kernel,
                          const py::object& camera, unsigned threads, const py::kwargs& knobs) {
  const ArrayView imageView = viewOf(image, "the image");
  const ArrayView depthView = viewOf(depth, "the depth");
  ArrayRenderOptions options;
  options.settings = knobSettings(knobs, "vorel.render");
  options.threads = threads;
  FloatArray kernelArray;
  if (!kernel.is_none()) {
    kernelArray = kernel.cast<FloatArray>();
    options.hasKernel = true;
    options.kernel = viewOf(kernelArray, "the kernel");
  }
  if (!camera.is_none()) {
    options.hasCamera = true;
    options.camera = parseCamera(cameraText(camera));
  }
  std::vector<std::string> warnings;
  options.warning = [&](const std::string& w) { warnings.push_back(w); };

  py::array_t<float> out({py::ssize_t(imageView.height), py::ssize_t(imageView.width),
                          py::ssize_t(imageView.channels)});
  float* outData = out.mutable_data();
  {
    py::gil_scoped_release release;
    lastRenderSeconds = renderArrays(imageView, depthView, outData, options).seconds;
  }
  warnAll(warnings);
  if (image.ndim() == 2)
    return out.reshape({imageView.height, imageView.width});
  return out;
}

void addList(std::vector<std::string>& argv, const char* flag, const py::object& value) {
  if (value.is_none())
    return;
  if (py::isinstance<py::str>(value)) {
    argv.insert(argv.end(), {flag, value.cast<std::string>()});
    return;
  }
  for (const py::handle item : value)
    argv.insert(argv.end(), {flag, py::str(item).cast<std::string>()});
}

// Runs the command line's own entry with the arguments a user would type; its one-line error
// becomes the exception's message.
std::string renderFile(const py::object& input, const py::object& output, const py::object& deep,
                       const py::object& kernel, const py::object& mattes, const py::object& camera,
                       const py::object& preset, const py::object& channels,
                       const py::object& threads, const std::vector<std::string>& options,
                       const py::kwargs& knobs) {
  std::vector<std::string> argv = {"vorel", "render"};
  if (!input.is_none())
    argv.push_back(py::str(input).cast<std::string>());
  addList(argv, "-o", output);
  addList(argv, "--deep", deep);
  addList(argv, "--kernel", kernel);
  addList(argv, "--mattes", mattes);
  if (!camera.is_none())
    argv.insert(argv.end(), {"--camera", cameraText(camera)});
  addList(argv, "--preset", preset);
  addList(argv, "--channels", channels);
  if (!threads.is_none())
    argv.insert(argv.end(), {"--threads", py::str(threads).cast<std::string>()});
  for (const KnobSetting& s : knobSettings(knobs, "--set"))
    argv.insert(argv.end(), {"--set", s.name + "=" + s.value});
  argv.insert(argv.end(), options.begin(), options.end());

  std::vector<const char*> args;
  for (const std::string& a : argv)
    args.push_back(a.c_str());
  std::ostringstream out, err;
  int status;
  {
    py::gil_scoped_release release;
    status = vorelMain(int(args.size()), args.data(), out, err, false);
  }

  const std::string prefix = "vorel: ", warningPrefix = "vorel: warning: ";
  std::vector<std::string> warnings;
  std::string notes, last;
  std::istringstream lines(err.str());
  for (std::string line; std::getline(lines, line);) {
    if (line.empty())
      continue;
    if (line.rfind(warningPrefix, 0) == 0)
      warnings.push_back(line.substr(warningPrefix.size()));
    else
      notes += line + "\n";
    last = line.rfind(prefix, 0) == 0 ? line.substr(prefix.size()) : line;
  }
  if (status == kExitUsage)
    throw UsageError(last);
  if (status != kExitOk)
    throw RenderError(last);
  warnAll(warnings);
  return notes + out.str();
}

py::list knobList() {
  py::list list;
  for (const KnobRecord& k : knobRecords(*makeNode())) {
    py::dict d;
    d["name"] = k.name;
    d["label"] = k.label;
    d["kind"] = k.kind;
    d["default"] = k.defaultText;
    d["range"] = k.range ? py::object(py::make_tuple(k.range->min, k.range->max)) : py::none();
    d["clamped"] = k.range && k.range->clamped;
    d["entries"] = k.entries ? py::object(py::cast(*k.entries)) : py::none();
    d["tooltip"] = k.tooltip;
    list.append(d);
  }
  return list;
}

// A file's data window as rows top first, and its channel names in the file's order.
py::tuple readImage(const std::string& path) {
  FlatImage image;
  {
    py::gil_scoped_release release;
    image = readFlatImage(path);
  }
  const int h = image.box.h(), w = image.box.w(), n = int(image.channels.size());
  py::array_t<float> out({py::ssize_t(h), py::ssize_t(w), py::ssize_t(n)});
  auto a = out.mutable_unchecked<3>();
  for (int c = 0; c < n; ++c)
    for (int i = 0; i < h; ++i) {
      const float* row = image.row(c, image.box.t - 1 - i);
      for (int x = 0; x < w; ++x)
        a(i, x, c) = row[x];
    }
  return py::make_tuple(out, image.channels);
}

// An EXR of the array (height x width x channels, top row first), written as vorel writes.
void writeImage(const std::string& path, const FloatArray& array,
                const std::vector<std::string>& channels) {
  const ArrayView v = viewOf(array, "the image");
  if (std::size_t(v.channels) != channels.size())
    throw UsageError("write_image: " + std::to_string(v.channels) + " channels but " +
                     std::to_string(channels.size()) + " names");
  if (fileKindFor(path) != FileKind::Exr)
    throw UsageError("write_image: " + path + " is not an .exr");
  FlatImage image;
  image.format = image.box = {0, 0, v.width, v.height};
  image.channels = channels;
  image.allocate();
  for (int c = 0; c < v.channels; ++c)
    for (int i = 0; i < v.height; ++i) {
      float* row = image.row(c, v.height - 1 - i);
      for (int x = 0; x < v.width; ++x)
        row[x] = v.data[i * v.rowStride + x * v.columnStride + c * v.channelStride];
    }
  py::gil_scoped_release release;
  writeExr(path, image);
}

const char* kRenderDoc = R"(render(image, depth, *, kernel=None, camera=None, threads=0, **knobs) -> ndarray

Defocuses one frame held in memory and returns a new float32 array of the image's shape.

image: float32 array, height x width x channels (1 to 4: red, green, blue, alpha), or height x
    width for one channel. depth: float32 array, height x width, on the node's depth.Z.
    Row 0 of an array is the TOP of the picture, as in files and image libraries; the node
    counts rows from the bottom, and the arrays are turned over for it without a copy.
    Float32 arrays are read where they lie, through their strides; other dtypes are converted.
kernel: optional aperture image (array like `image`); sets kernelType=Input unless a knob says
    otherwise. camera: optional dict (focal, haperture, vaperture, focus, fstop) or
    "focal=50,fstop=2" text; turns realWorldLens on unless a knob says otherwise.
threads: 0 uses every core. **knobs: any knob by name (see knobs()), e.g. focalPlane=200,
    outputType="Focus Matte", kChrAbbOff=(0.6, 1, 1), realWorldLens=True.

The interpreter lock is released while the frame renders. Raises UsageError for arrays that do
not fit or a bad knob, RenderError when the node fails, with the command line's messages; the
node's warnings are issued as RuntimeWarning.)";

const char* kRenderFileDoc = R"(render_file(input=None, output=None, *, deep=None, kernel=None, mattes=None, camera=None, preset=None, channels=None, threads=None, options=(), **knobs) -> str

Runs `vorel render` on files, exactly as the command line does, and returns its notes.

output may be a path or a list of paths (each an -o); preset likewise. knobs become --set
KNOB=VALUE; options is a list of further command-line arguments passed as they are. A non-zero
exit raises UsageError (exit 2) or RenderError (exit 1) with the command line's one-line message.)";

}  // namespace

PYBIND11_MODULE(vorel, m) {
  m.doc() = "Renders the tzVorel lens-defocus node over NumPy arrays and image files.";

  static py::exception<AppError> error(m, "Error");
  static py::exception<UsageError> usageError(m, "UsageError", error.ptr());
  static py::exception<RenderError> renderError(m, "RenderError", error.ptr());
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p)
        std::rethrow_exception(p);
    } catch (const UsageError& e) {
      usageError(e.what());
    } catch (const RenderError& e) {
      renderError(e.what());
    } catch (const AppError& e) {
      error(e.what());
    }
  });

  m.def("render", &renderArray, kRenderDoc, py::arg("image"), py::arg("depth"), py::kw_only(),
        py::arg("kernel") = py::none(), py::arg("camera") = py::none(), py::arg("threads") = 0u);
  m.def("render_file", &renderFile, kRenderFileDoc, py::arg("input") = py::none(),
        py::arg("output") = py::none(), py::kw_only(), py::arg("deep") = py::none(),
        py::arg("kernel") = py::none(), py::arg("mattes") = py::none(),
        py::arg("camera") = py::none(), py::arg("preset") = py::none(),
        py::arg("channels") = py::none(), py::arg("threads") = py::none(),
        py::arg("options") = std::vector<std::string>());
  m.def("read_image", &readImage, py::arg("path"),
        "read_image(path) -> (ndarray, names): a flat image file's data window as float32, "
        "height x width x channels with row 0 at the top, and its channel names.");
  m.def("write_image", &writeImage, py::arg("path"), py::arg("array"), py::arg("channels"),
        "write_image(path, array, channels): writes a float32 EXR (row 0 at the top), "
        "atomically, with the given channel names, e.g. ['R', 'G', 'B', 'Z'].");
  m.def("_last_render_seconds", [] { return lastRenderSeconds; },
        "Seconds this thread's last render() spent inside the renderer (node set-up to last row).");
  m.def("knobs", &knobList,
        "knobs() -> list of dict: every knob's name, label, kind, default (as text render "
        "accepts), range, clamped, entries and tooltip.");
}
