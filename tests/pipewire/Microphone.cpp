#include "Microphone.h"

#include <runtime/Scheduler.h>
#include <spa/param/audio/format-utils.h>

#include <algorithm>
#include <cstring>

namespace test::pipewire {
namespace {

// Odd, so that it has an inverse modulo a power of two; neighbouring samples differ much.
constexpr std::uint32_t factor = 2'654'435'761U, inverse = 244'002'641U, channelStep = 12'345;
static_assert(factor * inverse == 1);

}  // namespace

std::uint32_t placeOf(std::uint32_t sample, std::uint32_t channel, int bits) {
  return (sample * inverse - channel * channelStep) & ((1U << bits) - 1);
}

void Microphone::plug() {
  Properties properties = _settings.properties;
  properties.insert({{PW_KEY_MEDIA_CLASS, "Audio/Source"},
                     {PW_KEY_NODE_NAME, _settings.name},
                     {PW_KEY_NODE_DESCRIPTION, _settings.description},
                     {PW_KEY_NODE_GROUP, "pipewire.dummy"}});  // no camera that happens to run is its clock
  spa_audio_info_raw info{};
  info.format = _settings.format, info.rate = _settings.rate, info.channels = _settings.channels;
  for (std::uint32_t i = 0; i < info.channels; ++i)
    info.position[i] = (info.channels == 1   ? SPA_AUDIO_CHANNEL_MONO
                        : info.channels == 2 ? SPA_AUDIO_CHANNEL_FL
                                             : SPA_AUDIO_CHANNEL_AUX0) +
                       i;
  std::uint8_t memory[1024];
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(memory, sizeof memory);
  Stream::plug(properties, PW_STREAM_FLAG_RT_PROCESS,
               {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)});
}

std::optional<Microphone::Heard> Microphone::heardAt(std::int64_t time) const {
  std::lock_guard lock(_lock);
  for (std::size_t i = 0; i < std::min(_cycle, _cycles.size()); ++i) {
    const Heard& cycle = _cycles[(_cycle - 1 - i) % _cycles.size()];
    if (cycle.time > time + 1'000'000) continue;
    const auto on = static_cast<std::uint32_t>((time - cycle.time) * _settings.rate / 1'000'000'000);
    return Heard{time, cycle.run, cycle.place + on};
  }
  return {};
}

void Microphone::process() {
  if (const std::int64_t stall = _stall.exchange(0)) runtime::Scheduler::current().sleepUntil(now() + stall);
  pw_buffer* const buffer = pw_stream_dequeue_buffer(stream());
  if (!buffer) return;
  pw_time time{};
  pw_stream_get_time_n(stream(), &time, sizeof time);
  spa_data& memory = buffer->buffer->datas[0];
  const bool is16 = _settings.format == SPA_AUDIO_FORMAT_S16_LE, isFloat = _settings.format == SPA_AUDIO_FORMAT_F32_LE;
  const std::uint32_t sampleBytes = is16 ? 2 : isFloat ? 4 : 3, stride = sampleBytes * _settings.channels;
  const auto frames = static_cast<std::uint32_t>(std::min<std::uint64_t>(memory.maxsize / stride, buffer->requested));
  auto* to = static_cast<std::uint8_t*>(memory.data);
  {
    std::lock_guard lock(_lock);  // what a cycle brings was heard before it began
    _cycles[_cycle++ % _cycles.size()] = {time.now - frames * 1'000'000'000LL / _settings.rate, run(), _place};
  }
  for (std::uint32_t i = 0; i < frames; ++i, ++_place) {
    for (std::uint32_t channel = 0; channel < _settings.channels; ++channel, to += sampleBytes) {
      const std::uint32_t sample = (_place + channel * channelStep) * factor;
      const float real = static_cast<float>(static_cast<std::int32_t>(sample << 8) >> 8) / 8'388'608.0F;
      std::memcpy(to, isFloat ? static_cast<const void*>(&real) : &sample, sampleBytes);
    }
  }
  *memory.chunk = {0, frames * stride, static_cast<std::int32_t>(stride), 0};
  pw_stream_queue_buffer(stream(), buffer);
}

}  // namespace test::pipewire
