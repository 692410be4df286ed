#pragma once

// Conversion between linear PCM formats: sample type, byte order, packing, interleaving, channel count
// and sample rate. Compressed formats are not modelled.
//
// A converter belongs to one thread at a time. It produces frames on demand and pulls its input through
// a callback; between calls it keeps the input it has pulled but not yet used, so that successive calls
// convert one continuous stream without a seam. After the callback has reported the end of the input the
// converter hands out what it still holds, treating the signal's ends as if the signal went on; then
// AudioConverterReset makes it ready for an unrelated piece.

#include <CoreAudio/CoreAudioTypes.h>

CF_EXTERN_C_BEGIN

typedef struct OpaqueAudioConverter* AudioConverterRef;

enum {
  kAudioConverterErr_FormatNotSupported = 0x666D743F,               // 'fmt?'
  kAudioConverterErr_OperationNotSupported = 0x6F703F3F,            // 'op??'
  kAudioConverterErr_PropertyNotSupported = 0x70726F70,             // 'prop'
  kAudioConverterErr_InvalidInputSize = 0x696E737A,                 // 'insz'
  kAudioConverterErr_InvalidOutputSize = 0x6F74737A,                // 'otsz'
  kAudioConverterErr_UnspecifiedError = 0x77686174,                 // 'what'
  kAudioConverterErr_BadPropertySizeError = 0x2173697A,             // '!siz'
  kAudioConverterErr_RequiresPacketDescriptionsError = 0x21706B64,  // '!pkd'
  kAudioConverterErr_InputSampleRateOutOfRange = 0x21697372,        // '!isr'
  kAudioConverterErr_OutputSampleRateOutOfRange = 0x216F7372,       // '!osr'
};

/// A null pointer where there must be none. All functions below return it.
enum { kAudio_ParamError = -50 };

/// Supplies input. On entry `*ioNumberDataPackets` is how many packets (frames) the converter would like; the callee
/// sets it to how many it supplies, more or fewer, and points the buffers of `ioData` at them (the list has room for
/// 32). The memory must stay valid until the next call of the callback or the end of the
/// AudioConverterFillComplexBuffer call it happens in, whichever is first. 0 packets with a result of 0 mean that the
/// input has ended. A non-zero result stops the conversion: what was produced so far is handed out, the status
/// returned, and the next call goes on from there. `outDataPacketDescription` is null. The callback must not throw, and
/// must not call the converter.
typedef OSStatus (*AudioConverterComplexInputDataProc)(AudioConverterRef inAudioConverter, UInt32* ioNumberDataPackets,
                                                       AudioBufferList* ioData,
                                                       AudioStreamPacketDescription** outDataPacketDescription,
                                                       void* inUserData);

/// Makes a converter that the caller disposes of. Both formats: linear PCM of signed 8, 16, 24 or 32-bit or unsigned
/// 8-bit integers or 32 or 64-bit floats, packed or not (integers in containers of up to 4 bytes, aligned high or low),
/// either byte order, interleaved or planar, 1 to 8 channels (a source up to 32), 8 to 192 kHz. Anything else:
/// kAudioConverterErr_FormatNotSupported, or one of the two sample-rate codes. The first converter between two rates
/// tabulates its filter, which takes some milliseconds.
///
/// Channels: equal counts map one to one; one channel goes to all outputs; more than two are mixed down to two by the
/// layout set with kAudioConverterInputChannelLayout, and without one the first two are taken; otherwise channels
/// beyond the smaller count are left out or silent. Two channels go to one as their mean.
///
/// Samples: integer output is rounded to nearest (ties to even), not dithered, and held at the type's limits; NaN
/// becomes 0. Where neither rate nor channels change, every sample is exact or rounded once, and equal sample types
/// keep every bit.
///
/// Rates: output frame n is the signal at the input time n * inputRate / outputRate. Between 48 and 44.1 kHz the
/// response is flat within 0.001 dB to 20 kHz and more than 120 dB down from 23 kHz; other rates scale with the lower
/// of the two. Of live input, less than 100 output frames are held back there. A whole piece has as many output frames
/// as its input times the ratio of the rates, rounded to nearest, halves up. Infinite and NaN input counts as 0.
OSStatus AudioConverterNew(const AudioStreamBasicDescription* inSourceFormat,
                           const AudioStreamBasicDescription* inDestinationFormat,
                           AudioConverterRef* outAudioConverter);

OSStatus AudioConverterDispose(AudioConverterRef inAudioConverter);

/// Forgets all input held and begins a new, unrelated piece. Keeps every allocation.
OSStatus AudioConverterReset(AudioConverterRef inAudioConverter);

typedef UInt32 AudioConverterPropertyID;
enum { kAudioConverterInputChannelLayout = 0x69636C20 /* 'icl ' */ };

/// The only property is the channel layout of the input, an AudioChannelLayout. A layout whose channel count differs
/// from the input's is refused with kAudioConverterErr_BadPropertySizeError; one of that count but without a known
/// order of channels is as good as none. Setting it begins a new piece.
///
/// Mixed down to two, a side's own channels count 1, centre and surrounds -3 dB, a single rear surround -6 dB on either
/// side; the low-frequency channel is left out. All is scaled so that input within full scale cannot clip.
OSStatus AudioConverterSetProperty(AudioConverterRef inAudioConverter, AudioConverterPropertyID inPropertyID,
                                   UInt32 inPropertyDataSize, const void* inPropertyData);

/// Produces up to `*ioOutputDataPacketSize` frames into `outOutputData`, pulling input as needed, and sets it and each
/// buffer's mDataByteSize to what was produced: less only when the input ended or failed. Once the input has ended, the
/// callback is not called again before a reset. Buffers smaller than the request, or a list of the wrong shape:
/// kAudioConverterErr_InvalidOutputSize, and nothing is pulled. Input buffers smaller than the callback's count, or a
/// list of the wrong shape: kAudioConverterErr_InvalidInputSize, and that input is ignored. `outPacketDescription` is
/// not used. Allocates nothing once it has seen the sizes in use.
OSStatus AudioConverterFillComplexBuffer(AudioConverterRef inAudioConverter,
                                         AudioConverterComplexInputDataProc inInputDataProc,
                                         void* inInputDataProcUserData, UInt32* ioOutputDataPacketSize,
                                         AudioBufferList* outOutputData,
                                         AudioStreamPacketDescription* outPacketDescription);

CF_EXTERN_C_END
