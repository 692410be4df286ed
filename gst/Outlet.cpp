#include "Outlet.h"

namespace brvgst {

using namespace std::chrono_literals;

namespace {

constexpr PerMedium<std::size_t> Capacity = {4, 32};
constexpr PerMedium<gint64> UsualDuration = {GST_SECOND / 30, GST_SECOND * 512 / 44'100};
constexpr auto GapInterval = 500ms;

/// Of a source's 16 buffers four are always left to it.
constexpr int MostPicturesOut = 12;

GstClockTime asClockTime(gint64 nanoseconds) {
  return static_cast<GstClockTime>(std::max<gint64>(nanoseconds, 0));
}

}  // namespace

Outlet::Outlet(GstPad* pad, Medium medium, GstElement* element, Run& run)
    : _pad(pad),
      _medium(medium),
      _element(element),
      _run(run),
      _inbox(std::make_shared<Inbox>(Capacity[medium])),
      _duration(UsualDuration[medium]) {}

Outlet& Outlet::attachTo(GstPad* pad, Medium medium, GstElement* element, Run& run) {
  auto* const outlet = new Outlet(pad, medium, element, run);
  g_object_set_data_full(G_OBJECT(pad), "outlet", outlet, [](gpointer data) { delete static_cast<Outlet*>(data); });
  gst_pad_set_element_private(pad, outlet);
  gst_pad_use_fixed_caps(pad);
  gst_pad_set_activatemode_function(pad, [](GstPad* own, GstObject*, GstPadMode mode, gboolean active) -> gboolean {
    if (mode != GST_PAD_MODE_PUSH) return FALSE;
    of(own).setActive(active);
    return TRUE;
  });
  gst_pad_set_query_function(pad, [](GstPad* own, GstObject* parent, GstQuery* query) -> gboolean {
    return of(own).answer(query) || gst_pad_query_default(own, parent, query);
  });
  return *outlet;
}

void Outlet::reset() {
  _hasBegun = _hasCaps = false;
  _needsSegment = true;
  _format = {};
  _isDiscontinuous = true;
  _end = _expectedTime = 0;
  _inbox->setFlushing(false);
}

void Outlet::setActive(bool isActive) {
  if (isActive) return startTask();
  _inbox->setFlushing(true);
  gst_pad_stop_task(_pad);
}

void Outlet::resume() {
  _inbox->setFlushing(false);
  _needsSegment = true;
  startTask();
}

void Outlet::startTask() {
  gst_pad_start_task(
      _pad, [](gpointer data) { static_cast<Outlet*>(data)->turn(); }, this, nullptr);
}

/// One turn of the task.
void Outlet::turn() {
  Inbox::Task task = _inbox->take(GapInterval);
  switch (task.kind) {
    case Inbox::Task::Nothing:
      if (_run.waits && GST_STATE(_element) == GST_STATE_PLAYING) pushGap();
      break;
    case Inbox::Task::Push:
      push(std::move(task.sample));
      break;
    case Inbox::Task::Warn:
      GST_ELEMENT_WARNING(_element, RESOURCE, BUSY, ("%s", task.text.c_str()), (nullptr));
      break;
    case Inbox::Task::Fail:
      fail(task.text);
      break;
    case Inbox::Task::End:
      stop(std::move(task.event));
      break;
    case Inbox::Task::Stop:
      gst_pad_pause_task(_pad);
      break;
  }
}

void Outlet::push(Sample sample) {
  const auto runningTime = _run.timeline.runningTime(_element, sample);
  if (!runningTime || *runningTime < 0) {  // taken before the pipeline began to play
    _isDiscontinuous = true;
    return;
  }
  const gint64 time = sample.time.count(), duration = sample.duration.count();
  _isDiscontinuous |= sample.followsLoss || time > _expectedTime + duration / 2;
  _expectedTime = time + duration;
  _end = *runningTime + duration;
  noteDuration(sample.duration);
  reportLoss(sample, *runningTime);

  beginStream();
  if (_medium == Video) {
    if (const PictureFormat format(*sample.picture); !_hasCaps || format != _format) setFormat(format);
    if (gst_pad_check_reconfigure(_pad)) askForVideoMeta();
  }
  beginSegment();
  BufferPtr buffer = bufferFrom(sample);
  if (!buffer) {
    _isDiscontinuous = true;
    return;
  }
  GST_BUFFER_PTS(buffer.get()) = asClockTime(*runningTime);
  GST_BUFFER_DTS(buffer.get()) = GST_CLOCK_TIME_NONE;
  GST_BUFFER_DURATION(buffer.get()) = duration > 0 ? asClockTime(duration) : GST_CLOCK_TIME_NONE;
  if (std::exchange(_isDiscontinuous, false)) GST_BUFFER_FLAG_SET(buffer.get(), GST_BUFFER_FLAG_DISCONT);
  sample = {};  // what is downstream lets go of the picture when it is done with it
  ++_pushed;

  const GstFlowReturn own = gst_pad_push(_pad, buffer.release());
  const GstFlowReturn result = _run.combined(_pad, own);
  if (own == GST_FLOW_FLUSHING) {
    gst_pad_pause_task(_pad);
  } else if (own == GST_FLOW_EOS) {  // enough for this pad
    stop(EventPtr(gst_event_new_eos()));
  } else if (result == GST_FLOW_NOT_LINKED || result < GST_FLOW_EOS) {
    if (!_run.hasFailed.exchange(true)) GST_ELEMENT_FLOW_ERROR(_element, result);
    stop(EventPtr(gst_event_new_eos()));
  }
}

BufferPtr Outlet::bufferFrom(Sample& sample) {
  if (_medium == Audio) return BufferPtr(gst_buffer_make_writable(sample.sound.release()));
  const bool isReadable = _takesVideoMeta || hasUsualRows(*sample.picture, _info);
  // As if the inbox were full: it may be before the next one is copied.
  const int soonOut = *sample.picture->out + static_cast<int>(_inbox->room());
  if (isReadable && soonOut <= MostPicturesOut) return bufferOf(std::move(sample.picture), _info);
  return copyOf(*sample.picture, _info);
}

void Outlet::reportLoss(const Sample& sample, gint64 runningTime) {
  const std::uint64_t dropped = _inbox->dropped();
  if (std::exchange(_reportedDrops, dropped) == dropped) return;
  const GstClockTime time = asClockTime(runningTime);
  GstMessage* const message =
      gst_message_new_qos(GST_OBJECT(_element), TRUE, time, time, time, asClockTime(sample.duration.count()));
  gst_message_set_qos_stats(message, _medium == Video ? GST_FORMAT_BUFFERS : GST_FORMAT_DEFAULT, _pushed, dropped);
  gst_element_post_message(_element, message);
}

void Outlet::fail(const std::string& text) {
  if (!_run.hasFailed.exchange(true)) GST_ELEMENT_ERROR(_element, RESOURCE, NOT_FOUND, ("%s", text.c_str()), (nullptr));
  stop(EventPtr(gst_event_new_eos()));
}

void Outlet::stop(EventPtr end) {
  beginStream();
  gst_pad_push_event(_pad, end.release());
  _inbox->setFlushing(true);  // a clip does not wait for a pad that takes no more
  gst_pad_pause_task(_pad);
}

/// Nothing comes at present: others need not wait for it. A pad without caps has not told anybody what to wait for.
void Outlet::pushGap() {
  beginStream();
  const auto now = Timeline::runningTime(_element);
  if (!_hasCaps || !now || *now <= _end) return;
  beginSegment();
  gst_pad_push_event(_pad, gst_event_new_gap(asClockTime(_end), asClockTime(*now - _end)));
  _end = *now;
  _isDiscontinuous = true;
}

void Outlet::beginStream() {
  if (std::exchange(_hasBegun, true)) return;
  gchar* const id = gst_pad_create_stream_id(_pad, _element, _medium == Video ? "video" : "audio");
  GstEvent* const event = gst_event_new_stream_start(id);
  g_free(id);
  gst_event_set_group_id(event, _run.groupId);
  gst_pad_push_event(_pad, event);
  if (_medium == Audio) {
    const CapsPtr caps(gst_pad_get_pad_template_caps(_pad));
    setCaps(caps.get());
  }
}

void Outlet::beginSegment() {
  if (!_needsSegment.exchange(false)) return;
  GstSegment segment;
  gst_segment_init(&segment, GST_FORMAT_TIME);
  gst_pad_push_event(_pad, gst_event_new_segment(&segment));
}

void Outlet::setCaps(GstCaps* caps) {
  gst_pad_push_event(_pad, gst_event_new_caps(caps));
  _hasCaps = true;
}

void Outlet::setFormat(const PictureFormat& format) {
  _format = format;
  _info = format.info();
  const CapsPtr caps(gst_video_info_to_caps(&_info));
  GST_INFO_OBJECT(_pad, "%" GST_PTR_FORMAT, static_cast<void*>(caps.get()));
  _isDiscontinuous = true;
  setCaps(caps.get());
  gst_pad_check_reconfigure(_pad);
  askForVideoMeta();
}

/// Whether who comes next reads rows that begin where the module lets them begin.
void Outlet::askForVideoMeta() {
  const CapsPtr caps(gst_pad_get_current_caps(_pad));
  if (!caps) return;
  const QueryPtr query(gst_query_new_allocation(caps.get(), FALSE));
  _takesVideoMeta = gst_pad_peer_query(_pad, query.get()) &&
                    gst_query_find_allocation_meta(query.get(), GST_VIDEO_META_API_TYPE, nullptr);
}

/// A sample that takes longer than any before makes the pipeline ask for the latency again.
void Outlet::noteDuration(std::chrono::nanoseconds duration) {
  const gint64 former = _duration;
  if (duration.count() <= 0 || (_medium == Audio && duration.count() <= former) || duration.count() == former) return;
  _duration = duration.count();
  gst_element_post_message(_element, gst_message_new_latency(GST_OBJECT(_element)));
}

bool Outlet::answer(GstQuery* query) {
  if (GST_QUERY_TYPE(query) != GST_QUERY_LATENCY) return false;
  const GstClockTime least = asClockTime(_duration);
  gst_query_set_latency(query, TRUE, least, least * _inbox->capacity());
  return true;
}

}  // namespace brvgst
