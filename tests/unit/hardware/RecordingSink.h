#pragma once

// A sink that writes down what it is given, and that can be told what to answer and what to do.

#include <Hardware.h>

#include <functional>
#include <string>
#include <vector>

class RecordingSink final : public hardware::Sink {
 public:
  struct Video {
    CMTime time;
    std::int32_t width;
    bool hasImage, isLost;
  };
  struct Audio {
    CMTime time;
    std::uint32_t frameCount, bytes;
  };

  void videoFrameCaptured(const hardware::VideoFrame& frame) override {
    video.push_back({frame.presentationTime, frame.width, frame.hasImage, false});
    order += 'v';
    if (videoRoom > 0) --videoRoom;
    if (onVideo) onVideo(frame);
  }
  void videoFrameLost(CMTime time, CMTime) override { video.push_back({time, 0, false, true}); }
  void audioChunkCaptured(const hardware::AudioChunk& chunk) override {
    std::uint32_t bytes = 0;
    const AudioBuffer* buffers = chunk.buffers->mBuffers;
    for (UInt32 i = 0; i < chunk.buffers->mNumberBuffers; ++i) bytes += buffers[i].mDataByteSize;
    audio.push_back({chunk.presentationTime, chunk.frameCount, bytes});
    order += 'a';
  }
  bool hasRoomForVideo() override { return videoRoom != 0; }
  bool hasRoomForAudio() override { return true; }

  std::vector<Video> video;
  std::vector<Audio> audio;
  std::string order;
  int videoRoom = -1;  // negative: without end
  std::function<void(const hardware::VideoFrame&)> onVideo;
};
