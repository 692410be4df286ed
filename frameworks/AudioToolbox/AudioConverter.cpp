#include <AudioToolbox/AudioConverter.h>

#include <AudioToolbox/Converter/ConversionEngine.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>
#include <new>
#include <utility>
#include <vector>

using namespace AudioConversion;

namespace {

// The lists come from callers, declared with one buffer and sized for more.
AudioBuffer* buffersOf(AudioBufferList& list) noexcept {
  return list.mBuffers;
}

// A list with room for as many buffers as any format has, whatever the callback sets it to.
class InputList {
 public:
  explicit InputList(const PCMFormat& format) noexcept : _list(new (_storage) AudioBufferList) {
    _list->mNumberBuffers = format.bufferCount();
    for (unsigned b = 0; b < kMaxSourceChannels; ++b) {
      new (buffersOf(*_list) + b) AudioBuffer{format.interleaved ? format.channels : 1, 0, nullptr};
    }
  }
  InputList(const InputList&) = delete;
  InputList& operator=(const InputList&) = delete;

  AudioBufferList* get() noexcept { return _list; }

 private:
  alignas(AudioBufferList) std::byte _storage[sizeof(AudioBufferList) + (kMaxSourceChannels - 1) * sizeof(AudioBuffer)];
  AudioBufferList* _list;
};

// Whether a list has the format's shape and holds `frames` frames.
bool listHolds(const AudioBufferList& list, const PCMFormat& format, size_t frames) noexcept {
  if (list.mNumberBuffers != format.bufferCount()) return false;
  const AudioBuffer* const buffers = list.mBuffers;
  const size_t bytes = frames * format.bytesPerFrame();
  return std::all_of(buffers, buffers + list.mNumberBuffers, [bytes](const AudioBuffer& buffer) {
    return bytes == 0 || (buffer.mData && buffer.mDataByteSize >= bytes);
  });
}

template <typename Byte>
SamplePlanes<Byte> planesOfList(const PCMFormat& format, const AudioBufferList& list) noexcept {
  const AudioBuffer* const buffers = list.mBuffers;
  Byte* first[kMaxChannels] = {};
  for (unsigned b = 0; b < format.readBufferCount(); ++b) first[b] = static_cast<Byte*>(buffers[b].mData);
  return planesOf(format, first);
}

}  // namespace

struct OpaqueAudioConverter {
 public:
  OpaqueAudioConverter(const PCMFormat& source, const PCMFormat& destination)
      : _source(source),
        _destination(destination),
        _engine(makeEngine(source, destination, kAudioChannelLayoutTag_Unknown | source.channels)) {}

  OSStatus setInputLayout(AudioChannelLayoutTag layout) {
    if ((layout & 0xFFFF) != _source.channels) return kAudioConverterErr_BadPropertySizeError;
    _engine = makeEngine(_source, _destination, layout);
    reset();
    return noErr;
  }

  void reset() noexcept {
    _pending = {};
    _ended = false;
    _engine->reset();
  }

  OSStatus fill(AudioConverterComplexInputDataProc proc, void* userData, UInt32& frames, AudioBufferList& list) {
    const size_t wanted = std::exchange(frames, 0);
    if (!listHolds(list, _destination, wanted)) return kAudioConverterErr_InvalidOutputSize;

    OutputPlanes out = planesOfList<std::byte>(_destination, list);
    size_t produced = 0;
    OSStatus status = noErr;
    while (status == noErr) {
      const size_t count = _engine->produce(_pending, out, wanted - produced);
      produced += count;
      if (produced == wanted || _ended) break;
      if (count > 0) out = out.advancedBy(count);
      status = pull(proc, userData, wanted - produced);
    }
    holdPending();

    frames = static_cast<UInt32>(produced);
    AudioBuffer* const buffers = buffersOf(list);
    for (unsigned b = 0; b < _destination.bufferCount(); ++b) {
      buffers[b].mDataByteSize = static_cast<UInt32>(produced * _destination.bytesPerFrame());
    }
    return status;
  }

 private:
  // Nothing is pending when this is called.
  OSStatus pull(AudioConverterComplexInputDataProc proc, void* userData, size_t outputFrames) {
    InputList list(_source);
    const size_t most = std::numeric_limits<UInt32>::max();
    UInt32 packets = static_cast<UInt32>(std::min(_engine->inputWanted(outputFrames), most));
    const OSStatus status = proc(this, &packets, list.get(), nullptr, userData);
    if (status != noErr) return status;
    if (packets == 0) {
      _ended = true;
      _engine->finish();
      return noErr;
    }
    if (!listHolds(*list.get(), _source, packets)) return kAudioConverterErr_InvalidInputSize;
    _pending = {planesOfList<const std::byte>(_source, *list.get()), packets};
    _pendingIsHeld = false;
    return noErr;
  }

  // The callback's memory is good for this call alone; what is left of it is copied.
  void holdPending() {
    if (_pending.frames == 0 || _pendingIsHeld) return;
    const size_t bytes = _pending.frames * _source.bytesPerFrame();
    const std::byte* buffers[kMaxChannels] = {};
    if (_held.size() < bytes * _source.readBufferCount()) _held.resize(bytes * _source.readBufferCount());
    for (unsigned b = 0; b < _source.readBufferCount(); ++b) {
      std::memcpy(_held.data() + b * bytes, _pending.planes.channel[b], bytes);
      buffers[b] = _held.data() + b * bytes;
    }
    _pending.planes = planesOf(_source, buffers);
    _pendingIsHeld = true;
  }

  PCMFormat _source;
  PCMFormat _destination;
  std::unique_ptr<ConversionEngine> _engine;
  PendingInput _pending;
  std::vector<std::byte> _held;
  bool _pendingIsHeld = false;
  bool _ended = false;
};

OSStatus AudioConverterNew(const AudioStreamBasicDescription* inSourceFormat,
                           const AudioStreamBasicDescription* inDestinationFormat,
                           AudioConverterRef* outAudioConverter) {
  if (!outAudioConverter) return kAudio_ParamError;
  *outAudioConverter = nullptr;
  if (!inSourceFormat || !inDestinationFormat) return kAudio_ParamError;

  PCMFormat source;
  PCMFormat destination;
  if (!parsePCMFormat(*inSourceFormat, kMaxSourceChannels, source) ||
      !parsePCMFormat(*inDestinationFormat, kMaxChannels, destination)) {
    return kAudioConverterErr_FormatNotSupported;
  }
  if (!isSampleRateInRange(source.sampleRate)) return kAudioConverterErr_InputSampleRateOutOfRange;
  if (!isSampleRateInRange(destination.sampleRate)) return kAudioConverterErr_OutputSampleRateOutOfRange;
  try {
    *outAudioConverter = new OpaqueAudioConverter(source, destination);
    return noErr;
  } catch (const std::exception&) {  // no memory
    return kAudioConverterErr_UnspecifiedError;
  }
}

OSStatus AudioConverterDispose(AudioConverterRef inAudioConverter) {
  if (!inAudioConverter) return kAudio_ParamError;
  delete inAudioConverter;
  return noErr;
}

OSStatus AudioConverterReset(AudioConverterRef inAudioConverter) {
  if (!inAudioConverter) return kAudio_ParamError;
  inAudioConverter->reset();
  return noErr;
}

OSStatus AudioConverterSetProperty(AudioConverterRef inAudioConverter, AudioConverterPropertyID inPropertyID,
                                   UInt32 inPropertyDataSize, const void* inPropertyData) {
  if (!inAudioConverter || !inPropertyData) return kAudio_ParamError;
  if (inPropertyID != kAudioConverterInputChannelLayout) return kAudioConverterErr_PropertyNotSupported;
  if (inPropertyDataSize < sizeof(AudioChannelLayout)) return kAudioConverterErr_BadPropertySizeError;
  AudioChannelLayout layout;
  std::memcpy(&layout, inPropertyData, sizeof layout);
  try {
    return inAudioConverter->setInputLayout(layout.mChannelLayoutTag);
  } catch (const std::exception&) {  // no memory
    return kAudioConverterErr_UnspecifiedError;
  }
}

OSStatus AudioConverterFillComplexBuffer(AudioConverterRef inAudioConverter,
                                         AudioConverterComplexInputDataProc inInputDataProc,
                                         void* inInputDataProcUserData, UInt32* ioOutputDataPacketSize,
                                         AudioBufferList* outOutputData, AudioStreamPacketDescription*) {
  if (!inAudioConverter || !inInputDataProc || !ioOutputDataPacketSize || !outOutputData) return kAudio_ParamError;
  try {
    return inAudioConverter->fill(inInputDataProc, inInputDataProcUserData, *ioOutputDataPacketSize, *outOutputData);
  } catch (const std::exception&) {  // no memory to hold the input that was left
    inAudioConverter->reset();
    return kAudioConverterErr_UnspecifiedError;
  }
}
