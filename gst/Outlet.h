#pragma once

// One pad of the element: the task that pushes what its inbox gets. Owned by the pad.

#include <gst/base/gstflowcombiner.h>

#include <atomic>

#include "Pictures.h"
#include "Timeline.h"

namespace brvgst {

/// What the pads of an element have in common.
struct Run {
  Run() : combiner(gst_flow_combiner_new()) {}
  ~Run() { gst_flow_combiner_free(combiner); }
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  /// What the element makes of a pad's result: one pad that nobody listens to does not stop the other.
  GstFlowReturn combined(GstPad* pad, GstFlowReturn result) {
    const std::lock_guard lock(flowLock);
    return gst_flow_combiner_update_pad_flow(combiner, pad, result);
  }

  Timeline timeline;
  std::mutex flowLock;
  GstFlowCombiner* const combiner;
  guint groupId = 0;
  std::atomic<bool> waits = false, hasFailed = false;
};

class Outlet {
 public:
  /// Runs as long as the pad exists.
  static Outlet& attachTo(GstPad* pad, Medium medium, GstElement* element, Run& run);
  static Outlet& of(GstPad* pad) { return *static_cast<Outlet*>(gst_pad_get_element_private(pad)); }

  Medium medium() const { return _medium; }
  const std::shared_ptr<Inbox>& inbox() const { return _inbox; }
  /// A new stream begins.
  void reset();
  void setActive(bool isActive);
  /// A flush has ended: what follows is a new segment.
  void resume();

 private:
  Outlet(GstPad* pad, Medium medium, GstElement* element, Run& run);

  void startTask();
  void turn();
  void push(Sample sample);
  void reportLoss(const Sample& sample, gint64 runningTime);
  void fail(const std::string& text);
  void stop(EventPtr end);
  void pushGap();
  void beginStream();
  void beginSegment();
  void setCaps(GstCaps* caps);
  void setFormat(const PictureFormat& format);
  void askForVideoMeta();
  void noteDuration(std::chrono::nanoseconds duration);
  BufferPtr bufferFrom(Sample& sample);
  bool answer(GstQuery* query);

  GstPad* const _pad;
  const Medium _medium;
  GstElement* const _element;
  Run& _run;
  const std::shared_ptr<Inbox> _inbox;
  std::atomic<gint64> _duration;  ///< of a sample

  // The task's:
  bool _hasBegun = false, _hasCaps = false;
  std::atomic<bool> _needsSegment = true;
  PictureFormat _format;
  GstVideoInfo _info{};
  bool _takesVideoMeta = false, _isDiscontinuous = true;
  gint64 _end = 0;           ///< running time where the last sample or gap ended
  gint64 _expectedTime = 0;  ///< by its own clock, of the next sample
  std::uint64_t _pushed = 0, _reportedDrops = 0;
};

}  // namespace brvgst
