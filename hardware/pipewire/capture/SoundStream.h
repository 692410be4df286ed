#pragma once

// The sound of a microphone. The server gives a stream of sound two buffers, whatever is asked for: its data thread
// takes each cycle out of them at once, into a ring from which the device's lane delivers.

#include <Hardware.h>

#include <optional>

#include "capture/Admission.h"
#include "capture/ChunkRing.h"
#include "capture/Stamps.h"
#include "capture/StreamHandler.h"
#include "listing/SoundFormats.h"
#include "server/EventLoop.h"

namespace hardware::pipewire {

class SoundStream final : public StreamHandler {
 public:
  SoundStream(Sink& sink, Admission& admission, EventLoop& loop, SoundFormat format);

  /// What the next request asks for.
  void select(SoundFormat format);

  Connection::Use use() const override { return Connection::Use::sound; }
  Properties properties() const override;
  pw_stream_flags flags() const override;
  std::vector<const spa_pod*> request(spa_pod_builder& builder) const override;
  void attach(pw_stream* stream) override;
  runtime::Nanoseconds longestSilence() const override { return 800'000'000; }

 private:
  void process();
  void keep(const spa_data& memory, const pw_time& time);
  void deliver();
  std::int32_t rate() const;

  Sink& _sink;
  Admission& _admission;
  Signal _arrival;  ///< of a chunk in the ring

  // Changed only while there is no stream.
  SoundFormat _format;
  pw_stream* _stream = nullptr;
  spa_hook _listener{};
  std::optional<ChunkRing> _ring;
  std::optional<SoundClock> _clock;
};

}  // namespace hardware::pipewire
