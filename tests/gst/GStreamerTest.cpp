#include "GStreamerTest.h"

#include <gmock/gmock.h>
#include <gst/video/video.h>
#include <simulated/TestPicture.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "support/MediaFiles.h"
#include "support/TemporaryFolder.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

std::string noise(std::size_t size, unsigned seed) {
  std::minstd_rand random(seed + 1);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random() >> 8);
  return bytes;
}

/// A planar 4:2:2 picture as Y0 Cb Y1 Cr.
std::string packed(const std::string& planar) {
  std::string bytes;
  const std::size_t pixels = planar.size() / 2;
  for (std::size_t pair = 0; pair < pixels / 2; ++pair) {
    bytes += {planar[2 * pair], planar[pixels + pair], planar[2 * pair + 1], planar[pixels + pixels / 2 + pair]};
  }
  return bytes;
}

int widthOf(const SamplePtr& sample) {
  int width = 0;
  gst_structure_get_int(gst_caps_get_structure(gst_sample_get_caps(sample.get()), 0), "width", &width);
  return width;
}

bool isDiscontinuous(const SamplePtr& sample) {
  return GST_BUFFER_FLAG_IS_SET(bufferOf(sample), GST_BUFFER_FLAG_DISCONT);
}

std::optional<unsigned> frameNumber(const SamplePtr& sample) {
  const std::string bytes = bytesOf(sample);
  const auto width = static_cast<std::size_t>(widthOf(sample));
  return hardware::simulated::readFrameNumber(reinterpret_cast<const std::uint8_t*>(bytes.data()), 2 * width,
                                              static_cast<int>(width), static_cast<int>(bytes.size() / 2 / width));
}

TEST_F(GStreamerTest, AClipPassesBitForBitWithItsSoundInStepAndShowsWhereAFrameIsMissing) {
  const TemporaryFolder folder;
  const std::string sound = noise(44'100 * 4, 0);
  folder.write("sound", waveFile(waveFormat(1, 2, 44'100, 16), sound));
  for (const std::size_t width : {32U, 20U}) {  // rows that follow one another in memory, and rows that do not
    std::string clip = "YUV4MPEG2 W" + std::to_string(width) + " H4 F30000:1001 Ip A10:11 C422\n";
    for (unsigned i = 0; i < 40; ++i) clip += "FRAME\n" + noise(width * 8, i);
    folder.write("clip", clip);
    rigs::install(camera("links = mic\npacing = consumer\nvideo fault = lost frame, at frame 3\npicture = media " +
                         folder.file("clip") +
                         ", once\n[device]\nid = mic\nname = Mic\nmedia = audio\npacing = consumer\nsound = media " +
                         folder.file("sound") + ", once\n"));
    const Pipeline pipeline(
        "brvsrc name=s s.video ! appsink name=video sync=false s.audio ! appsink name=audio sync=false");
    ASSERT_TRUE(pipeline.play());

    GstClockTime first = 0;
    for (unsigned frame = 0; frame < 40; ++frame) {
      if (frame == 3) continue;
      const SamplePtr sample = pipeline.pull();
      ASSERT_TRUE(sample);
      if (frame == 0) first = GST_BUFFER_PTS(bufferOf(sample));
      EXPECT_TRUE(bytesOf(sample) == packed(noise(width * 8, frame))) << frame;
      EXPECT_EQ(GST_BUFFER_PTS(bufferOf(sample)) - first, frame * 1'001'000'000ULL / 30) << frame;
      EXPECT_EQ(isDiscontinuous(sample), frame == 0 || frame == 4) << frame;
    }
    std::string heard;
    while (heard.size() < sound.size()) {
      const SamplePtr sample = pipeline.pull("audio");
      ASSERT_TRUE(sample);
      EXPECT_TRUE(!heard.empty() || GST_BUFFER_PTS(bufferOf(sample)) == first);
      heard += bytesOf(sample);
    }
    EXPECT_TRUE(heard == sound);

    GstPad* const pad = gst_element_get_static_pad(pipeline.element("s"), "video");
    GstCaps* const caps = gst_pad_get_current_caps(pad);
    const std::string text = std::unique_ptr<gchar, decltype(&g_free)>(gst_caps_to_string(caps), g_free).get();
    EXPECT_THAT(text, HasSubstr("format=(string)YUY2, width=(int)" + std::to_string(width) + ", height=(int)4"));
    EXPECT_THAT(text, HasSubstr("pixel-aspect-ratio=(fraction)10/11"));
    EXPECT_THAT(text, HasSubstr("framerate=(fraction)30000/1001"));
    gst_caps_unref(caps);
    gst_object_unref(pad);
    EXPECT_TRUE(gst_element_send_event(pipeline.get(), gst_event_new_eos()));
    EXPECT_EQ(pipeline.text(GST_MESSAGE_EOS), "");
  }
}

TEST_F(GStreamerTest, StampsAreTheCamerasOnItsOwnClockAndNearOnAnotherOne) {
  rigs::install(camera());
  for (const GstClockType type : {GST_CLOCK_TYPE_MONOTONIC, GST_CLOCK_TYPE_REALTIME}) {
    const Pipeline pipeline("brvsrc name=s source=cam ! appsink name=video");
    GstClock* clock = type == GST_CLOCK_TYPE_MONOTONIC
                          ? gst_system_clock_obtain()
                          : GST_CLOCK(g_object_new(GST_TYPE_SYSTEM_CLOCK, "clock-type", type, nullptr));
    gst_pipeline_use_clock(GST_PIPELINE(pipeline.get()), clock);
    ASSERT_TRUE(pipeline.play());
    std::optional<gint64> origin;
    for (int i = 0; i < 10; ++i) {
      const SamplePtr sample = pipeline.pull();
      ASSERT_TRUE(sample);
      const auto number = frameNumber(sample);
      ASSERT_TRUE(number);
      const auto stamp = static_cast<gint64>(GST_BUFFER_PTS(bufferOf(sample)));
      const gint64 start = stamp - static_cast<gint64>(std::uint64_t{*number} * GST_SECOND / 30);
      if (!origin) origin = start;
      EXPECT_NEAR(static_cast<double>(start - *origin), 0, type == GST_CLOCK_TYPE_MONOTONIC ? 1 : 15e6);
      EXPECT_LE(gst_element_get_base_time(pipeline.get()) + GST_BUFFER_PTS(bufferOf(sample)),
                gst_clock_get_time(clock));
    }
    gst_object_unref(clock);

    GstQuery* const query = gst_query_new_latency();
    GstPad* const pad = gst_element_get_static_pad(pipeline.element("s"), "video");
    EXPECT_TRUE(gst_pad_query(pad, query));
    gst_object_unref(pad);
    gboolean isLive = FALSE;
    GstClockTime least = 0, most = 0;
    gst_query_parse_latency(query, &isLive, &least, &most);
    EXPECT_TRUE(isLive);
    EXPECT_EQ(least, GST_SECOND / 30);
    EXPECT_EQ(most, 4 * least);
    gst_query_unref(query);
  }
}

TEST_F(GStreamerTest, WhoKeepsManyPicturesGetsCopiesBeforeTheCameraRunsOut) {
  rigs::install(camera("video format = 96x48 yuvs, rates 100\n"));
  const Pipeline pipeline("brvsrc name=s ! appsink name=video sync=false");
  ASSERT_TRUE(pipeline.play());

  std::vector<SamplePtr> kept;
  std::vector<std::optional<unsigned>> numbers;
  int lent = 0;
  for (int i = 0; i < 40; ++i) {
    kept.push_back(pipeline.pull());
    ASSERT_TRUE(kept.back());
    lent += GST_MEMORY_IS_READONLY(gst_buffer_peek_memory(bufferOf(kept.back()), 0)) ? 1 : 0;
    numbers.push_back(frameNumber(kept.back()));
  }

  for (std::size_t i = 0; i < kept.size(); ++i) EXPECT_EQ(frameNumber(kept[i]), numbers[i]);
  EXPECT_TRUE(std::ranges::is_sorted(numbers));
  EXPECT_GE(lent, 4);
  EXPECT_LE(lent, 12);
  GstStructure* stats = nullptr;
  g_object_get(pipeline.element("s"), "stats", &stats, nullptr);
  const GstStructure* const video = gst_value_get_structure(gst_structure_get_value(stats, "video"));
  gint64 delivered = 0, missed = -1;
  gst_structure_get_int64(video, "delivered", &delivered);
  gst_structure_get_int64(video, "no_buffer", &missed);
  EXPECT_GE(delivered, 40);
  EXPECT_EQ(missed, 0);
  gst_structure_free(stats);
}

TEST_F(GStreamerTest, TwoElementsShareASourceAndAChangeOfItsFormat) {
  rigs::install(
      camera("video format = 64x48 yuvs, rates 30 60, active\nvideo format = 80x60 yuvs, rates 25 50, name Wide\n"));
  const Pipeline first("brvsrc source=Cam format=64 fps=30 ! appsink name=video sync=false drop=true max-buffers=1");
  ASSERT_TRUE(first.play());
  EXPECT_EQ(widthOf(first.pull()), 64);

  const Pipeline second("brvsrc source=Cam format=Wide fps=25/1 ! appsink name=video sync=false");
  ASSERT_TRUE(second.play());

  const SamplePtr wide = second.pull();
  EXPECT_EQ(widthOf(wide), 80);
  EXPECT_EQ(GST_BUFFER_DURATION(bufferOf(wide)), GST_SECOND / 25);
  SamplePtr changed = first.pull();
  while (changed && widthOf(changed) != 80) changed = first.pull();
}

TEST_F(GStreamerTest, AnUnpluggedCameraIsAnErrorOrWaitedForWithGaps) {
  const auto provider = rigs::install(camera());
  const Pipeline strict("brvsrc ! appsink name=video"), patient("brvsrc name=s wait=true ! appsink name=video");
  ASSERT_TRUE(strict.play());
  ASSERT_TRUE(patient.play());
  static std::atomic<int> gaps;
  gaps = 0;
  GstPad* const pad = gst_element_get_static_pad(patient.element("s"), "video");
  gst_pad_add_probe(
      pad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM,
      [](GstPad*, GstPadProbeInfo* info, gpointer) {
        if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_GAP) ++gaps;
        return GST_PAD_PROBE_OK;
      },
      nullptr, nullptr);
  gst_object_unref(pad);
  ASSERT_TRUE(strict.pull());
  SamplePtr sample = patient.pull();
  ASSERT_TRUE(sample);
  const GstClockTime before = GST_BUFFER_PTS(bufferOf(sample));

  provider->unplug("cam");

  EXPECT_EQ(strict.text(GST_MESSAGE_ERROR), "Cam Video was unplugged");
  EXPECT_EQ(patient.text(GST_MESSAGE_WARNING), "Cam Video was unplugged");
  while (gaps < 2) std::this_thread::yield();
  const Pipeline late("brvsrc source=Cam wait=true ! appsink name=video");
  ASSERT_TRUE(late.play());
  EXPECT_THAT(late.text(GST_MESSAGE_WARNING), StartsWith("\"Cam\" is not plugged in"));
  provider->plug("cam");
  do sample = patient.pull();
  while (sample && !isDiscontinuous(sample));
  ASSERT_TRUE(sample);
  EXPECT_GE(GST_BUFFER_PTS(bufferOf(sample)), before + GST_SECOND);
  EXPECT_TRUE(late.pull());
}

TEST_F(GStreamerTest, SaysWhyItCannotStartOrGoOn) {
  rigs::install(camera() + "running failure = \"Another program has it.\", at 0 s, for 100 s\n" +
                "[device]\nid = cam2\nname = Cam\nmedia = video\nvideo format = 64x48 yuvs, rates 30\n"
                "[device]\nid = mic\nname = Mic\nmedia = audio\naudio format = 48000 Hz\n");
  const std::pair<const char*, const char*> cases[] = {
      {"source=Mic ! video/x-raw", "Mic Audio has no pictures"},
      {"source=cellar ! video/x-raw", "\"cellar\" is not plugged in; there are:\n  Cam Video\n"},
      {"source=cam2 ! audio/x-raw", " has no sound"},
      {"source=Ca ! video/x-raw", "\"Ca\" fits several sources:\n  Cam Video\n  Cam 1 Video"},
      {"source=cam2 format=9 ! video/x-raw", "there is no choice \"9\", but\n  0  64 x 48"},
      {"source=cam2 fps=29.97 ! video/x-raw", "there is no choice \"29.97\", but\n  0  30.00"}};
  for (const auto& [words, reason] : cases) {
    const Pipeline pipeline(std::string("brvsrc ") + words + " ! fakesink");
    EXPECT_FALSE(pipeline.play()) << words;
    EXPECT_THAT(pipeline.text(GST_MESSAGE_ERROR), HasSubstr(reason));
  }
  const Pipeline busy("brvsrc source=cam ! fakesink");
  ASSERT_TRUE(busy.play());
  EXPECT_THAT(busy.text(GST_MESSAGE_WARNING), HasSubstr("Another program has it."));
}

TEST_F(GStreamerTest, TheDeviceMonitorListsSourcesAsTheyComeAndGo) {
  const auto provider =
      rigs::install(camera("links = mic\nvideo format = 64x48 yuvs, rates 30\n") +
                    "[device]\nid = mic\nname = Mic\nmedia = audio\naudio format = 48000 Hz\n" +
                    "[device]\nid = cam2\nname = Two\nmedia = video\nvideo format = 64x48 yuvs, rates 30\n");
  GstDeviceMonitor* const monitor = gst_device_monitor_new();
  gst_device_monitor_add_filter(monitor, "Video/Source", nullptr);
  GstBus* const bus = gst_device_monitor_get_bus(monitor);
  ASSERT_TRUE(gst_device_monitor_start(monitor));
  const auto listed = [&] {
    std::vector<std::string> names;
    GList* const devices = gst_device_monitor_get_devices(monitor);
    for (GList* item = devices; item; item = item->next) {
      auto* const device = GST_DEVICE(item->data);
      GstStructure* const properties = gst_device_get_properties(device);
      if (properties && gst_structure_has_field(properties, "brv.source")) {
        GstElement* const element = gst_device_create_element(device, nullptr);
        gchar *source = nullptr, *kind = gst_device_get_device_class(device);
        g_object_get(element, "source", &source, nullptr);
        names.push_back(std::string(gst_structure_get_string(properties, "brv.source")) + ", " + source + ", " + kind);
        g_free(source);
        g_free(kind);
        gst_object_unref(gst_object_ref_sink(element));
      }
      if (properties) gst_structure_free(properties);
    }
    g_list_free_full(devices, gst_object_unref);
    return names;
  };
  const auto changes = [&](GstMessageType type) {
    GstMessage* const message = gst_bus_timed_pop_filtered(bus, 20 * GST_SECOND, type);
    if (message) gst_message_unref(message);
    return message != nullptr;
  };
  const std::string both = "Cam Video, cam, Audio/Video/Source", two = "Two Video, cam2, Video/Source";
  EXPECT_THAT(listed(), testing::UnorderedElementsAre(both, two));
  gst_bus_set_flushing(bus, TRUE);
  gst_bus_set_flushing(bus, FALSE);

  provider->unplug("cam2");
  EXPECT_TRUE(changes(GST_MESSAGE_DEVICE_REMOVED));
  EXPECT_THAT(listed(), testing::ElementsAre(both));
  provider->plug("cam2");
  EXPECT_TRUE(changes(GST_MESSAGE_DEVICE_ADDED));
  EXPECT_THAT(listed(), testing::UnorderedElementsAre(both, two));

  gst_device_monitor_stop(monitor);
  gst_object_unref(bus);
  gst_object_unref(monitor);
}

TEST_F(GStreamerTest, ElementsStartAndStopOnAnyThreadWhileTheirCameraComesAndGoes) {
  const auto provider = rigs::install(camera());
  ASSERT_TRUE(CFRunLoopStartThread(CFRunLoopGetMain()));
  std::atomic<int> running = 2;
  const auto run = [&] {
    for (int i = 0; i < 20; ++i) {
      const Pipeline pipeline("brvsrc source=cam wait=true name=s ! fakesink sync=false");
      pipeline.play();
      GstStructure* stats = nullptr;
      g_object_get(pipeline.element("s"), "stats", &stats, nullptr);
      gst_structure_free(stats);
    }
    --running;
  };
  std::thread first(run), second(run);
  while (running > 0) {
    if (!provider->unplug("cam")) provider->plug("cam");
    CFRunLoopPerformAndWait(
        CFRunLoopGetMain(), [](void*) {}, nullptr);  // else changes come faster than they are seen
  }
  first.join();
  second.join();
  CFRunLoopEndThread(CFRunLoopGetMain());
}

}  // namespace
