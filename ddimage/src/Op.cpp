#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <string>

#include "DDImage/Hash.h"
#include "DDImage/Iop.h"
#include "DDImage/Knob.h"
#include "DDImage/Knobs.h"
#include "DDImage/MetaData.h"
#include "DDImage/Op.h"
#include "Access.h"

namespace DD {
namespace Image {

namespace {

struct ClassRegistry {
  std::mutex mutex;
  std::map<std::string, const Op::Description*> byName;
};

ClassRegistry& classes() {
  static ClassRegistry r;
  return r;
}

void enroll(const Op::Description* d) {
  if (!d->name)
    return;
  ClassRegistry& r = classes();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.byName[d->name] = d;
}

std::string vformat(const char* fmt, va_list args) {
  if (!fmt)
    return std::string();
  va_list copy;
  va_copy(copy, args);
  const int n = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  if (n <= 0)
    return std::string();
  std::string s(static_cast<std::size_t>(n) + 1, '\0');
  std::vsnprintf(&s[0], s.size(), fmt, args);
  s.resize(static_cast<std::size_t>(n));
  return s;
}

}  // namespace

// ---- Description ------------------------------------------------------------------------------

Op::Description::Description(const char* n, OpConstructor constructor, License*)
    : name(n), menu(nullptr), constructor_(constructor) {
  enroll(this);
}

Op::Description::Description(const char* n, const char* m, OpConstructor constructor)
    : name(n), menu(m), constructor_(constructor) {
  enroll(this);
}

Op* Op::Description::build(Node* node) const {
  return constructor_ ? constructor_(node) : nullptr;
}

const Op::Description* Op::Description::find(const char* n) {
  if (!n)
    return nullptr;
  ClassRegistry& r = classes();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.byName.find(n);
  return it == r.byName.end() ? nullptr : it->second;
}

std::vector<std::string> Op::Description::names() {
  ClassRegistry& r = classes();
  std::lock_guard<std::mutex> lock(r.mutex);
  std::vector<std::string> out;
  for (const auto& kv : r.byName)
    out.push_back(kv.first);
  return out;
}

// ---- Op -----------------------------------------------------------------------------------------

Op::Op(Node* node) : node_(node) {}

Op::~Op() {
  for (Knob* k : knobs_)
    delete k;
}

void Op::inputs(int n) {
  if (n < 0)
    n = 0;
  inputs_.resize(static_cast<std::size_t>(n), nullptr);
}

Op* Op::input(int n) const {
  if (n < 0 || n >= inputs())
    return nullptr;
  if (Op* op = inputs_[static_cast<std::size_t>(n)])
    return op;
  return default_input(n);
}

Op* Op::node_input(int n, GenerateType) const {
  if (n < 0 || n >= inputs())
    return nullptr;
  const std::size_t i = static_cast<std::size_t>(n);
  if (i < graphInputs_.size() && graphInputs_[i] && inputs_[i])
    return graphInputs_[i];
  return inputs_[i];
}

void Op::set_input(int i, Op* op, int, int) {
  if (i < 0)
    return;
  if (i >= inputs()) {
    if (i >= maximum_inputs())
      return;
    inputs_.resize(static_cast<std::size_t>(i) + 1, nullptr);
  }
  inputs_[static_cast<std::size_t>(i)] = op;
}

bool Op::test_input(int, Op* op) const { return op != nullptr; }
Op* Op::default_input(int) const { return nullptr; }
const char* Op::input_label(int, char*) const { return ""; }

std::string Op::input_longlabel(int n) const {
  char buffer[64] = {0};
  const char* label = input_label(n, buffer);
  return label ? std::string(label) : std::string();
}

void Op::append(Hash&) {}

const Hash& Op::hash() const {
  Hash h;
  h.append(Class());
  for (const Knob* k : knobs_) {
    h.append(k->name());
    for (int i = 0; i < k->arraySize(); ++i)
      h.append(k->get_value(i));
  }
  // append() is the op's own business and not const in the SDK; it only reads the op.
  const_cast<Op*>(this)->append(h);
  for (const Op* in : inputs_)
    h.append(in ? in->hash().value() : 0ull);
  hash_ = h;
  return hash_;
}

// What the host's own ops do: hand on input 0's metadata.
const MetaData::Bundle& Op::_fetchMetaData(const char* key) {
  static const MetaData::Bundle empty;
  Op* in = input(0);
  return in && in != this ? in->fetchMetaData(key) : empty;
}

void Op::knobs(Knob_Callback) {}
int Op::knob_changed(Knob*) { return 0; }

Knob* Op::knob(const char* name) const {
  if (!name || !*name)
    return nullptr;
  for (Knob* k : knobs_)
    if (k->name() == name)
      return k;
  return nullptr;
}

void Op::validate(bool for_real) {
  if (for_real ? realValid_ : valid_)
    return;
  {
    std::lock_guard<std::mutex> lock(reportMutex_);
    hasError_ = false;
    error_.clear();
    warnings_.clear();
    if (abortedByError_)
      aborted_.store(false);
    abortedByError_ = false;
  }
  opened_ = false;
  _validate(for_real);
  valid_ = true;
  if (for_real)
    realValid_ = true;
}

namespace {

// The host's one lock around every _open.
std::recursive_mutex& hostLock() {
  static std::recursive_mutex lock;
  return lock;
}
thread_local int tOpenDepth = 0;
thread_local bool tOpenWorker = false;

}  // namespace

bool insideOpen() { return tOpenDepth > 0 || tOpenWorker; }
void markOpenWorker(bool fromOpen) { tOpenWorker = fromOpen; }

void Op::open() {
  if (opened())
    return;
  if (tOpenWorker) {
    // The real host would block here on its lock, held by the thread that waits for this one.
    error("opened from a worker thread while another op's _open held the host's lock");
    return;
  }
  // Other threads (independent renders) wait their turn, as on the real host.
  std::lock_guard<std::recursive_mutex> lock(hostLock());
  validate(true);
  if (opened())
    return;
  bool failed;
  {
    std::lock_guard<std::mutex> reports(reportMutex_);
    failed = hasError_;
  }
  if (!failed) {
    struct Depth {
      Depth() { ++tOpenDepth; }
      ~Depth() { --tOpenDepth; }
    } inside;
    _open();
  }
  opened_.store(true, std::memory_order_release);
}

void Op::close() {
  _close();
  opened_ = false;
}

bool Op::invalidate() {
  const bool was = valid_ || realValid_ || opened();
  valid_ = realValid_ = false;
  opened_ = false;
  requestedAny_ = false;
  requestedArea_ = Box();
  _invalidate();
  return was;
}

void Op::_validate(bool) {}
void Op::_open() {}
void Op::_close() {}
void Op::_invalidate() {}

void Op::error(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string text = vformat(fmt, args);
  va_end(args);
  std::lock_guard<std::mutex> lock(reportMutex_);
  hasError_ = true;
  error_ = std::move(text);
  if (!aborted_.load()) {
    aborted_.store(true);
    abortedByError_ = true;
  }
}

void Op::warning(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string text = vformat(fmt, args);
  va_end(args);
  std::lock_guard<std::mutex> lock(reportMutex_);
  warnings_.push_back(std::move(text));
}

}  // namespace Image
}  // namespace DD
