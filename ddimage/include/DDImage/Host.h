#pragma once
// The host's side, not part of the SDK: in-memory sources, a camera, building and connecting ops
// by class name, running the call protocol, and reading back what ops recorded (reports,
// requests, knobs). Tests and the command-line renderer use this; the node never does.

#include <atomic>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "DDImage/Box.h"
#include "DDImage/CameraOp.h"
#include "DDImage/ChannelSet.h"
#include "DDImage/DeepOp.h"
#include "DDImage/Format.h"
#include "DDImage/HostRecords.h"
#include "DDImage/Iop.h"
#include "DDImage/Knob.h"
#include "DDImage/MetaData.h"
#include "DDImage/Op.h"
#include "DDImage/Row.h"

namespace DD {
namespace Image {
namespace host {

// ---- driving ops --------------------------------------------------------------------------

// Builds an op of a registered class and runs a make pass of its knobs. Null for an unknown
// class. (The class's object file must be linked in for its Description to register.)
std::unique_ptr<Op> create(const char* className);
// Connects source to input i of op, tells the op through knob_changed(&Knob::inputChange) and
// invalidates it. Refused (false, nothing changed) when i is out of range or test_input says no.
// Null disconnects.
bool connect(Op& op, int i, Op* source);
// The same, with graphOp as what node_input(i) gives: in the real host that is the op of the
// graph, while input(i) is the one that holds the render's data.
bool connect(Op& op, int i, Op* source, Op* graphOp);
// The host's call protocol up to rows: validate(true), request(area, channels, 1), open().
// Rows then come from op.engine(y, x, r, channels, row), from any number of threads.
void prepare(Iop& op, const Box& area, const ChannelSet& channels);
// The same over the op's own bounding box and channels (after validating it).
void prepare(Iop& op);

// The format of the black image on an open input 0 (2048x1556 at start).
void setDefaultFormat(const Format& format);
Format defaultFormat();

// The real host does not clear a row's new buffers. On, every buffer Row::writable makes is
// filled with NaN, so code that counts on zeros shows; off (the start), they are zeroed.
void setFreshRowsNaN(bool on);

// ---- reports and abort ----------------------------------------------------------------------

bool hasError(const Op& op);
std::string errorText(const Op& op);  // the last error raised
std::vector<std::string> warnings(const Op& op);
void clearReports(Op& op);
void setAborted(Op& op, bool aborted);

// ---- requests ---------------------------------------------------------------------------------

// The union of the areas asked of op since it was last invalidated (empty if none).
Box requestedArea(const Op& op);
// How many Interests were taken on op.
int interests(const Op& op);
// How many reads (a row span, a deep area) took pixels of op's box that were never requested.
int unrequestedReads(const Op& op);

// Every Iop::request made of op, in order, since the last clear.
const std::vector<Request>& requests(const Iop& op);
void clearRequests(Iop& op);
// Every DeepOp::deepRequest made of op.
const std::vector<Request>& deepRequests(const DeepOp& op);
void clearDeepRequests(DeepOp& op);

// ---- knobs ------------------------------------------------------------------------------------

// Make pass: drops any knobs the op had and calls knobs() to record them afresh.
void makeKnobs(Op& op);
// Store pass: calls knobs() again; the closure hands back the existing records.
void storeKnobs(Op& op);
// The op's knobs in the order they were made.
const std::vector<Knob*>& knobs(const Op& op);
// Calls op.knob_changed(k) unless op answered 0 for k before: the host then stops calling it
// for that knob. Gives what knob_changed gave, or 0 when it was not called.
int knobChanged(Op& op, Knob* k);
// The op's panel opens: knob_changed(&Knob::showPanel).
int showPanel(Op& op);
// A value read from a saved script: set_value and invalidate, with no knob_changed.
bool loadKnob(Op& op, const char* knobName, double value, int channel = -1);
// A user edit: set_value (clamped by FORCE_RANGE), then knob_changed, then invalidate.
// False, and nothing done, for an unknown knob or a value the knob refuses.
bool userEdit(Op& op, const char* knobName, double value, int channel = -1);
// The same for a channel-set knob and a channel knob.
bool userEditChannels(Op& op, const char* knobName, const ChannelSet& channels);
bool userEditChannel(Op& op, const char* knobName, Channel z);

// ---- in-memory sources ---------------------------------------------------------------------

// Makes `plane` `size` zeros, asking for its memory in huge pages where the system gives them on
// request: a frame's planes are touched whole, and faulting them in 4 KB at a time costs more
// than filling them (most of all in a virtual machine).
void zeroedPlane(std::vector<float>& plane, std::size_t size);

// A flat image: one float plane per channel over its bounding box, row-major, row 0 is box.y().
// Read-only once rows are asked for, so engine may run on many threads at once.
class FlatImage : public Iop {
public:
  FlatImage(const Format& format, const Box& box, const ChannelSet& channels);
  // Format and box the same.
  FlatImage(const Format& format, const ChannelSet& channels);

  // Values at box pixels; writes outside the box or to a missing channel are ignored.
  void set(int x, int y, Channel z, float v);
  float value(int x, int y, Channel z) const;
  void fill(Channel z, float v);
  // Sets every box pixel of every channel to f(x, y, z).
  template <class F> void fill(F f) {
    foreach (z, channels_)
      for (int yy = box_.y(); yy < box_.t(); ++yy)
        for (int xx = box_.x(); xx < box_.r(); ++xx)
          set(xx, yy, z, static_cast<float>(f(xx, yy, z)));
  }
  // The channel's plane (box.w() * box.h() floats), or null for a missing channel.
  float* plane(Channel z);
  const Box& dataBox() const { return box_; }

  const char* Class() const override { return "HostFlatImage"; }
  const char* node_help() const override { return "in-memory flat image"; }
  void engine(int y, int x, int r, ChannelMask channels, Row& row) override;
  // The windows, the channels and every pixel, as a reader appends its file and frame.
  void append(Hash& hash) override;
  // What the image hands on as its metadata, as a file reader does.
  MetaData::Bundle& metadata() { return metadata_; }
  const MetaData::Bundle& _fetchMetaData(const char*) override { return metadata_; }

protected:
  void _validate(bool for_real) override;

private:
  Format format_;
  Box box_;
  ChannelSet channels_;
  std::vector<std::vector<float>> planes_;  // indexed by channel number; empty when missing
  MetaData::Bundle metadata_;
};

// A deep image. Add samples, then validate (or finish) before reading: that packs and sorts them.
class DeepImage : public DeepOnlyOp {
public:
  // channels: the image's channels besides deep.front and deep.back, which it always has.
  DeepImage(const Format& format, const Box& box, const ChannelSet& channels);

  // One sample at a box pixel. Unlisted channels are 0; without a deep.back value, back = front.
  void addSample(int x, int y, std::initializer_list<std::pair<Channel, float>> values);
  void addSample(int x, int y, const std::vector<std::pair<Channel, float>>& values);
  // One sample given as a float per channel of channels(), in ascending channel order.
  void addSampleValues(int x, int y, const float* values);
  // Room for `count` more samples, for a caller that knows how many it will add: the samples
  // are then copied once, not each time the room runs out.
  void reserveSamples(std::size_t count);
  // Packs and sorts the samples added so far.
  void finish();
  // Every sample at once, replacing any there were: `firstSample` holds each box pixel's first
  // sample (rows bottom up) and then the total, `packed` the samples in that order, a float per
  // channel of channels() each. Cheaper than adding samples one by one for a whole file, which
  // would hold them twice; each pixel's samples are sorted as finish() sorts them.
  void setSamples(std::vector<float>&& packed, std::vector<std::size_t>&& firstSample);
  ChannelSet channels() const { return channels_; }
  std::size_t sampleCount(int x, int y) const;
  // Makes deepEngine return false, as an aborted render does.
  void setEngineFails(bool fails) { engineFails_ = fails; }
  // How often deepEngine was called, since construction or the last reset.
  int engineCalls() const { return engineCalls_.load(); }
  void resetEngineCalls() { engineCalls_ = 0; }

  const char* Class() const override { return "HostDeepImage"; }
  const char* node_help() const override { return "in-memory deep image"; }

protected:
  void _validate(bool for_real) override;
  bool doDeepEngine(Box box, const ChannelSet& channels, DeepPlane& plane) override;

private:
  void addStaged(int x, int y, const float* values);

  Format format_;
  Box box_;
  ChannelSet channels_;
  std::vector<Channel> channelList_;
  int frontSlot_ = 0, backSlot_ = 0;
  bool engineFails_ = false;
  std::atomic<int> engineCalls_{0};
  bool dirty_ = false;
  std::vector<std::size_t> stagedPixel_;  // samples added since the last finish: box pixel
  std::vector<float> stagedData_;          // and values
  std::vector<float> data_;                // packed: per pixel, samples sorted by front, back
  std::vector<std::size_t> firstSample_;   // per box pixel, then the total
};

// A camera whose five values are set as its knobs would be: like a real camera, it shows them
// only once it has been validated.
class Camera : public CameraOp {
public:
  Camera() : CameraOp(nullptr) {}
  void setFocalLength(double v) { knobs_[0] = v; invalidate(); }
  void setFilmWidth(double v) { knobs_[1] = v; invalidate(); }
  void setFilmHeight(double v) { knobs_[2] = v; invalidate(); }
  void setFocalPoint(double v) { knobs_[3] = v; invalidate(); }
  void setFstop(double v) { knobs_[4] = v; invalidate(); }

  const char* Class() const override { return "HostCamera"; }
  const char* node_help() const override { return "in-memory camera"; }

protected:
  void _validate(bool) override {
    focalLength_ = knobs_[0];
    filmWidth_ = knobs_[1];
    filmHeight_ = knobs_[2];
    focalPoint_ = knobs_[3];
    fstop_ = knobs_[4];
  }

private:
  double knobs_[5] = {50.0, 24.576, 18.672, 2.0, 16.0};
};

// ---- rows -------------------------------------------------------------------------------------

// The host's row loop over an opened op: op.engine for every row of `area`, on `threads` threads
// (at least one) taking rows in turn, each row made into a Row of its own over the area's span
// and handed to take(y, row) on the thread that made it. progress(done), when given, is called
// on the calling thread about every 100 ms while rows are made, and once when all are done. The
// first exception thrown by engine or take stops the other threads at their next row and is
// thrown again here once they have all ended.
void renderRows(Iop& op, const Box& area, const ChannelSet& channels, unsigned threads,
                const std::function<void(int y, const Row& row)>& take,
                const std::function<void(long done)>& progress = nullptr);

}  // namespace host
}  // namespace Image
}  // namespace DD
