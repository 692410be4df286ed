#pragma once

// A sink that writes down what it is given, and that can be told what to answer and what to do.

#include <Hardware.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <variant>
#include <vector>

#include "simulated/RigParser.h"

class RecordingSink final : public hardware::Sink {
 public:
  struct Video {
    CMTime time;
    CMTime duration;
    std::int32_t width;
    bool hasImage;
    bool isLost;
  };
  struct Audio {
    CMTime time;
    std::uint32_t frameCount;
    std::uint32_t bytes;  // in all buffers
    AudioStreamBasicDescription format;
  };

  void videoFrameCaptured(const hardware::VideoFrame& frame) override {
    video.push_back({frame.presentationTime, frame.duration, frame.width, frame.hasImage, false});
    order += 'v';
    if (videoRoom > 0) --videoRoom;
    if (onVideo) onVideo(frame);
  }
  void videoFrameLost(CMTime time, CMTime duration) override {
    video.push_back({time, duration, 0, false, true});
    order += 'l';
  }
  void audioChunkCaptured(const hardware::AudioChunk& chunk) override {
    std::uint32_t bytes = 0;
    for (UInt32 i = 0; i < chunk.buffers->mNumberBuffers; ++i)
      bytes += (&chunk.buffers->mBuffers[0] + i)->mDataByteSize;
    audio.push_back({chunk.presentationTime, chunk.frameCount, bytes, chunk.format->stream});
    order += 'a';
    if (audioRoom > 0) --audioRoom;
  }
  bool hasRoomForVideo() override { return videoRoom != 0; }
  bool hasRoomForAudio() override { return audioRoom != 0; }

  std::vector<Video> video;
  std::vector<Audio> audio;
  std::string order;
  int videoRoom = -1;  // negative: without end
  int audioRoom = -1;
  std::function<void(const hardware::VideoFrame&)> onVideo;
};

/// The rig of a text that is known to be right.
inline hardware::simulated::Rig makeRig(const std::string& text, const std::string& fileName = "test.rig") {
  auto result = hardware::simulated::parseRig(text, fileName);
  if (const auto* error = std::get_if<hardware::simulated::RigError>(&result)) {
    ADD_FAILURE() << error->message();
    return {};
  }
  return std::get<hardware::simulated::Rig>(std::move(result));
}
