#pragma once
// The base of every operator in the graph: inputs, knobs, reports and the validate/open
// lifecycle.

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "DDImage/Box.h"
#include "DDImage/Hash.h"
#include "DDImage/HostRecords.h"
#include "DDImage/OutputContext.h"

class Node;  // the host's object behind an op; opaque to plug-ins

namespace DD {
namespace Image {

class Op;
class Iop;
class Knob;
class Knob_Closure;
class Hash;
class License;
typedef Knob_Closure& Knob_Callback;
namespace MetaData { class Bundle; }

class Op {
public:
  typedef Op* (*OpConstructor)(Node*);

  // Registers a class of op by name when the library loads. The host takes its menus from
  // menu.py files, never from here: the form with a menu path is on its way out.
  class Description {
  public:
    Description(const char* name, OpConstructor constructor, License* license = nullptr);
    [[deprecated("use Description(name, constructor)")]]
    Description(const char* name, const char* menu, OpConstructor constructor);
    Description(const Description&) = delete;
    Description& operator=(const Description&) = delete;

    const char* name;
    const char* menu;

    // Host side: builds an op of this class (null if the constructor gives null).
    Op* build(Node* node) const;
    // Host side: the registered description of that name, or null.
    static const Description* find(const char* name);
    // Host side: every registered class name.
    static std::vector<std::string> names();

  private:
    OpConstructor constructor_ = nullptr;
  };

  enum GenerateType { OUTPUT_OP = 0, INPUT_OP = 1, INPUT_OP_PROXY = 2 };

  virtual ~Op();
  Op(const Op&) = delete;
  Op& operator=(const Op&) = delete;

  Node* node() const { return node_; }

  // Inputs.
  int inputs() const { return static_cast<int>(inputs_.size()); }
  virtual void inputs(int n);
  // The op in use on input n: the connected one, else default_input(n). Null outside 0..inputs()-1.
  Op* input(int n) const;
  Op* input0() const { return input(0); }
  Op* input1() const { return input(1); }
  // What is really connected to input n, or null.
  Op* node_input(int n, GenerateType type = OUTPUT_OP) const;
  // Input changes reach knob_changed as Knob::inputChange; this hook is on its way out.
  [[deprecated("react to Knob::inputChange in knob_changed")]]
  virtual void set_input(int i, Op* op, int input, int offset);
  virtual bool test_input(int n, Op* op) const;
  virtual Op* default_input(int n) const;
  virtual const char* input_label(int n, char* buffer) const;
  virtual std::string input_longlabel(int n) const;
  virtual int minimum_inputs() const { return inputs(); }
  virtual int maximum_inputs() const { return inputs(); }
  virtual int optional_input() const { return minimum_inputs(); }
  virtual float uses_input(int) const { return 1.0f; }
  virtual const char* node_shape() const { return ""; }
  virtual unsigned node_color() const { return 0; }

  virtual const char* Class() const = 0;
  virtual const char* node_help() const = 0;

  virtual void append(Hash& hash);
  // What the host knows the op's output by: its class, its knobs' values, what append() adds and
  // its inputs' hashes. Ops whose pixels come from elsewhere (files, memory) append those, so two
  // ops with one hash give the same pixels. Made afresh at each call.
  const Hash& hash() const;
  const MetaData::Bundle& fetchMetaData(const char* key) { return _fetchMetaData(key); }
  virtual const MetaData::Bundle& _fetchMetaData(const char* key);

  // Knobs.
  virtual void knobs(Knob_Callback f);
  virtual int knob_changed(Knob* k);
  // The knob of that name, or null.
  Knob* knob(const char* name) const;

  // Lifecycle. validate runs _validate unless the op is already valid at that level (a real
  // validation also counts for a non-real one). open runs _open once after each invalidation,
  // however many requests come in between, under the host's one lock, and not at all once the op
  // has raised an error. Reading rows of an op that is not open opens it. invalidate forgets
  // validation and opening (and calls _invalidate).
  void validate(bool for_real = true);
  void open();
  void close();
  bool invalidate();
  bool valid() const { return valid_; }
  bool real_valid() const { return realValid_; }
  bool opened() const { return opened_.load(std::memory_order_acquire); }

  // Reports, printf style. A warning is only recorded; an error also aborts the op until its
  // next validation, so the rest of the tree stops asking it for pixels.
  void error(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void warning(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  bool aborted() const { return aborted_.load(std::memory_order_relaxed); }

  // The context of the panel, and the one the op renders for; they need not agree (a viewer in
  // proxy mode renders at its proxy scale while the panel stays at full size).
  const OutputContext& uiContext() const { return uiContext_; }
  const OutputContext& outputContext() const { return outputContext_; }
  void setOutputContext(const OutputContext& context) { outputContext_ = context; }

protected:
  explicit Op(Node* node);

  virtual void _validate(bool for_real);
  virtual void _open();
  virtual void _close();
  virtual void _invalidate();

private:
  friend struct host::Access;

  Node* node_;
  std::vector<Op*> inputs_;
  std::vector<Op*> graphInputs_;  // what node_input gives, when the host set one apart
  std::vector<Knob*> knobs_;
  std::vector<const Knob*> quietKnobs_;  // knob_changed said 0 for these: not called again
  bool valid_ = false;
  bool realValid_ = false;
  std::atomic<bool> opened_{false};
  std::atomic<bool> aborted_{false};
  bool abortedByError_ = false;
  mutable std::mutex reportMutex_;
  bool hasError_ = false;
  std::string error_;
  std::vector<std::string> warnings_;
  OutputContext uiContext_;
  OutputContext outputContext_;
  // The union of the areas asked of this op since it was last invalidated; reads are clamped to
  // it, as the real host's caches hold nothing else.
  Box requestedArea_;
  bool requestedAny_ = false;
  std::atomic<int> interests_{0};
  std::atomic<int> unrequestedReads_{0};
  mutable Hash hash_;
};

}  // namespace Image
}  // namespace DD
