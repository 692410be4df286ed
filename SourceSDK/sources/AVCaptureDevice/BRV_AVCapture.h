/*
 * The C interface of the capture-source plug-in: everything that a host needs to drive the module.
 *
 * The host loads the module, looks the entry points up by name (BRV_AVCaptureLoader.h does both; the BRV_..._Function
 * types give each its pointer type), and calls them from one thread at a time. It may also call the entry points marked
 * "read-only" from inside a data callback. Callbacks and contexts belong to the host; the module stores them
 * and never frees them. Nothing throws.
 *
 * Text passed in is NUL-terminated UTF-8. A null source identifier or name is treated as an unknown one.
 *
 * Text handed out follows the two-call convention. Length call: `buffer` null, `length` non-null; stores the
 * number of bytes without the terminator. Copy call: `buffer` non-null; copies the text with its terminator
 * and leaves `*length` alone unless stated. Both null: nothing happens. The host completes one pair before it
 * begins the next of the same entry point.
 *
 * Arguments named `unread` keep their places and are ignored. Entry points declared with (void) here read no
 * arguments and accept whatever a host passes.
 *
 * Order of use: translation and preference callbacks may be registered first; then BRV_IntitializeLibrary,
 * BRV_RegisterLogCallback (which enumerates the devices), BRV_RegisterDeviceStateChangedCallback, enumeration,
 * registrations and queries per source, BRV_DisconnectDevice, BRV_UninitializeLibrary. Device changes are
 * noticed while the process's main thread runs its main loop (CFRunLoopRunInMode). A host that has no main loop, or
 * another one, calls CFRunLoopStartThread before BRV_IntitializeLibrary: a thread of the frameworks then is what is
 * called the main thread here, until CFRunLoopEndThread after BRV_UninitializeLibrary. CFRunLoopPerformAndWait makes
 * calls there: none of the module's meets another, and no source comes or goes between them.
 *
 * The library may be initialised again after it was uninitialised, and twice in a row, which keeps its sources. Outside
 * that time the entry points find no source and do nothing.
 *
 * Compiles as C11 and as C++.
 */
#ifndef BRV_AVCAPTURE_H
#define BRV_AVCAPTURE_H

#include <stddef.h>
#include <stdint.h>

#if defined(__cplusplus)
#define BRV_STATIC_ASSERT(condition) static_assert(condition, #condition)
extern "C" {
#else
#include <assert.h>
#define BRV_STATIC_ASSERT(condition) _Static_assert(condition, #condition)
#endif

#if defined(BRV_BUILDING_MODULE)
#define BRV_EXPORT __attribute__((visibility("default")))
#else
#define BRV_EXPORT
#endif

/*
 * An entry point: its prototype, and the type of a pointer to it, BRV_..._Function. A host that names its pointers like
 * the entry points defines BRV_NO_PROTOTYPES before it includes this header, and gets the types alone.
 */
#if defined(BRV_NO_PROTOTYPES)
#define BRV_ENTRY_POINT(result, name, arguments) typedef result(*name##_Function) arguments
#else
#define BRV_ENTRY_POINT(result, name, arguments) \
  BRV_EXPORT result name arguments;              \
  typedef result(*name##_Function) arguments
#endif

/* ---- Four-character codes: first character in the most significant byte ---- */

enum {
  BRV_DEVICE_STATE = 0x6B726564,          /* 'kred': what BRV_GetDeviceState returns */
  BRV_SOURCE_STATE = 0x6B6E6F73,          /* 'knos': what BRV_GetSourceState returns */
  BRV_DEVICE_STATE_ATTACHED = 0x6B647361, /* 'kdsa': devices were looked for after one was plugged in */
  BRV_DEVICE_STATE_REMOVED = 0x6B647372,  /* 'kdsr': sources were looked through after a device was unplugged */
  BRV_FORMAT_PIXEL_BUFFER = 0x63767078,   /* 'cvpx': BRV_VideoBuffer.data is a CVPixelBufferRef */
  BRV_FORMAT_PCM = 0x6670636D             /* 'fpcm': BRV_AudioBuffer.data points to PCM samples */
};

/* Bits of `flags` in both records. */
enum {
  BRV_FLAG_NOT_FIRST = 0x01,     /* video only: clear on the first picture that a source takes, heard or not */
  BRV_FLAG_FORMAT_CHANGED = 0x20 /* the format or the timescale changed since the previous record */
};

/* Value types of BRV_PropertyCallback. */
enum {
  BRV_PROPERTY_INT64 = 2, /* `value` points to an int64_t */
  BRV_PROPERTY_STRING = 6 /* `value` points to NUL-terminated UTF-8 */
};

/* ---- Media records ---- */

/*
 * Time stamps are the host's monotonic clock (CLOCK_MONOTONIC), counted in ticks: those of two sources can be compared,
 * and a frame's age in seconds is that clock's present time less timeStamp / ticks per second. Sources that play a clip
 * at the host's pace count from 0 instead. Before the first sample there are no ticks per second (-1), and a source
 * without media has 0: look before you divide.
 */

/*
 * One video frame. The record and its pixel buffer are valid during the callback only; to keep the picture,
 * CVPixelBufferRetain it. The pixel buffer is neither locked nor retained for the host; its pixels are
 * 'yuvs' (8-bit 4:2:2, Y0 Cb Y1 Cr).
 *
 * At most 16 pictures of a source can be out at once. A host that keeps that many gets no more until it releases one:
 * they are dropped, and counted as "no_buffer". Keep a few, and copy what you need for longer.
 *
 * Luma is from 16 to 235 and chroma from 16 to 240, unless a camera sends something else and says so. The buffer's
 * attachments kCVImageBufferYCbCrMatrixKey, ...ColorPrimariesKey and ...TransferFunctionKey (CoreVideo/CVImageBuffer.h)
 * tell the colours where they are known. Without them BT.601 is customary up to 576 rows, and BT.709 above.
 */
typedef struct BRV_VideoBuffer {
  int32_t format;         /* BRV_FORMAT_PIXEL_BUFFER */
  int32_t width;          /* display width in pixels */
  int32_t height;         /* display height in pixels */
  int32_t rowBytes;       /* bytes from one row to the next */
  float pixelAspectRatio; /* width of a pixel divided by its height */
  int32_t reserved0;      /* not written */
  int64_t timeStamp;      /* presentation time, in ticks of BRV_GetTimescaleTicksPerSec */
  int32_t flags;          /* BRV_FLAG_... */
  int32_t reserved1;      /* not written */
  void* data;             /* CVPixelBufferRef */
} BRV_VideoBuffer;

BRV_STATIC_ASSERT(sizeof(BRV_VideoBuffer) == 48);
BRV_STATIC_ASSERT(offsetof(BRV_VideoBuffer, format) == 0);
BRV_STATIC_ASSERT(offsetof(BRV_VideoBuffer, width) == 4);
BRV_STATIC_ASSERT(offsetof(BRV_VideoBuffer, height) == 8);
BRV_STATIC_ASSERT(offsetof(BRV_VideoBuffer, rowBytes) == 12);
BRV_STATIC_ASSERT(offsetof(BRV_VideoBuffer, pixelAspectRatio) == 16);
BRV_STATIC_ASSERT(offsetof(BRV_VideoBuffer, timeStamp) == 24);
BRV_STATIC_ASSERT(offsetof(BRV_VideoBuffer, flags) == 32);
BRV_STATIC_ASSERT(offsetof(BRV_VideoBuffer, data) == 40);

/*
 * One run of sound: 44,100 Hz, 16-bit signed little-endian, left and right interleaved, 4 bytes a frame. The
 * record and its samples are valid during the callback only. Time stamps count ticks of the property "audio_timescale",
 * which is not that of BRV_GetTimescaleTicksPerSec where a camera is paired with a microphone of its own.
 */
typedef struct BRV_AudioBuffer {
  int32_t format;        /* BRV_FORMAT_PCM */
  int32_t sampleRate;    /* 44100 */
  int32_t channels;      /* 2 */
  int32_t bitsPerSample; /* 16 */
  int32_t dataLength;    /* bytes at `data` */
  int32_t reserved0;     /* not written */
  int64_t timeStamp;     /* presentation time of the first frame, see above */
  int32_t flags;         /* BRV_FLAG_FORMAT_CHANGED or 0 */
  int32_t reserved1;     /* not written */
  void* data;
} BRV_AudioBuffer;

BRV_STATIC_ASSERT(sizeof(BRV_AudioBuffer) == 48);
BRV_STATIC_ASSERT(offsetof(BRV_AudioBuffer, format) == 0);
BRV_STATIC_ASSERT(offsetof(BRV_AudioBuffer, sampleRate) == 4);
BRV_STATIC_ASSERT(offsetof(BRV_AudioBuffer, channels) == 8);
BRV_STATIC_ASSERT(offsetof(BRV_AudioBuffer, bitsPerSample) == 12);
BRV_STATIC_ASSERT(offsetof(BRV_AudioBuffer, dataLength) == 16);
BRV_STATIC_ASSERT(offsetof(BRV_AudioBuffer, timeStamp) == 24);
BRV_STATIC_ASSERT(offsetof(BRV_AudioBuffer, flags) == 32);
BRV_STATIC_ASSERT(offsetof(BRV_AudioBuffer, data) == 40);

/* ---- Callbacks of the host ---- */

/*
 * Returns the text for a key in the host's language, never null, valid until the calling entry point has
 * returned; an unknown key is best returned as it is. The keys: "p_source_systemdevice", the device group's name; and
 * for titles "av_source_no_video_settings", "av_source_no_audio_settings", "av_source_no_fps_settings",
 * "av_source_no_video_format_name" and "av_source_no_audio_format_name". Called on any thread of the module, one call
 * at a time. It must not wait for the main thread or for the thread that drives the module.
 */
typedef const char* (*BRV_LocalizeStringCallback)(const char* key);

/*
 * Reads a preference; none is asked for at present. With a null `buffer`: stores the value's length in bytes in
 * `*length`, 0 or less for none. Otherwise writes at most `*length` bytes, no terminator.
 */
typedef void (*BRV_GetPreferenceCallback)(void* context, const char* key, char* buffer, int* length);

/* Writes a preference; none is written at present. */
typedef void (*BRV_SetPreferenceCallback)(void* context, const char* key, const char* value);

/*
 * Receives a log line. `format` is always "%s    %s" with two strings after it: the place in the module
 * ("File:line", or "File:line x 300" for a summary of suppressed lines) and the message, at most 511 bytes,
 * usually with its own line end. Levels: 2 banners, 3 refusals and set-up failures, 4 everything else. Called on
 * any thread, capture threads included, possibly several at once; it must not call the module back with
 * anything but read-only entry points, and must not wait for the main thread or for the thread that drives the module.
 *
 * Only the log tells that a source refused a second camera or microphone, what a camera said to a failed "Video
 * Settings", that a FireWire bus cannot be opened, and that a settings record could not be written. Devices that cannot
 * be opened are among the "unoffered_devices", and every sample that is dropped is in an account (BRV_GetProperty).
 */
typedef void (*BRV_LogCallback)(void* context, int level, const char* format, ...);

/*
 * `state` is BRV_DEVICE_STATE_ATTACHED or _REMOVED. Called on the main thread; the host enumerates again. It must not
 * wait for the thread that drives the module, where that is another one.
 */
typedef void (*BRV_DeviceStateChangedCallback)(void* context, int state);

/* Something about a source changed. No part of the module calls it at present. */
typedef void (*BRV_SourceChangedCallback)(void* context, int change);

/*
 * Receives one frame, on the source's video capture queue: one call at a time for a source, different
 * sources at the same time. While it runs, later frames of the source wait or are dropped and reported in the log. It
 * may call read-only entry points; it must not register or unregister, change settings or uninitialise,
 * and must not wait for the main thread or for the thread that drives the module.
 */
typedef void (*BRV_VideoDataArrivedCallback)(void* context, BRV_VideoBuffer* buffer);

/*
 * Receives one run of sound, on the source's audio capture queue, under the same rules. The sound of a camcorder is
 * stamped in the timescale of its pictures: it is dropped, which the log says once, until the first picture has come.
 */
typedef void (*BRV_AudioDataArrivedCallback)(void* context, BRV_AudioBuffer* buffer);

/* Receives a property's value inside BRV_GetProperty. The value lives only during the call. */
typedef void (*BRV_PropertyCallback)(void* context, int valueType, const void* value);

/* ---- Lifecycle and host services ---- */

/*
 * A host calls BRV_UninitializeLibrary before it closes the module: closing stops nothing. The module stays mapped
 * until the process ends, so sources that still run go on, and go on calling the host, whose callbacks and contexts
 * must last until then. A host that loads the module again finds it as it left it.
 */

/* Starts the library: creates the device manager and the state behind the host's services. Always 1. */
BRV_ENTRY_POINT(int, BRV_IntitializeLibrary, (void));

/*
 * Stops and removes every source, forgets every callback. Afterwards no callback of the host is running or will
 * be called. The library can be initialised again. Frames that the host retained stay readable.
 */
BRV_ENTRY_POINT(void, BRV_UninitializeLibrary, (void));

/* Replaces the translation callback; null: keys are used as they are. Allowed before initialisation. */
BRV_ENTRY_POINT(void, BRV_RegisterLocalizeStringCallback, (BRV_LocalizeStringCallback callback));

/*
 * Replaces the preference callbacks. They count as registered only when both and the context are non-null.
 * Allowed before initialisation.
 */
BRV_ENTRY_POINT(void, BRV_RegisterPreferenceCallback,
                (BRV_GetPreferenceCallback get, BRV_SetPreferenceCallback set, void* context));

/*
 * Installs the log callback (a null context switches logging off; the rate limits of every line start
 * again) and looks for devices: the first call is what fills the list of sources, a later one adds new devices.
 */
BRV_ENTRY_POINT(void, BRV_RegisterLogCallback, (void* unread, BRV_LogCallback callback, void* context));

/* Replaces the device-state callback; null removes it. */
BRV_ENTRY_POINT(void, BRV_RegisterDeviceStateChangedCallback,
                (void* unread, BRV_DeviceStateChangedCallback callback, void* context));

/* Replaces a source's change callback. An unknown source is ignored. */
BRV_ENTRY_POINT(void, BRV_RegisterSourceChangedCallback,
                (void* unread, const char* sourceId, BRV_SourceChangedCallback callback, void* context));

/* ---- The device group and its sources ---- */

/* The model text. Stores the length in `*length` in both calls: `length` must not be null. Read-only. */
BRV_ENTRY_POINT(void, BRV_GetModelInfo, (void* unread, char* buffer, int* length));

/* Does nothing; 1. */
BRV_ENTRY_POINT(int, BRV_ConnectDevice, (void));

/* Stops every source; their callbacks stay registered. */
BRV_ENTRY_POINT(void, BRV_DisconnectDevice, (void));

/* Always BRV_DEVICE_STATE. Read-only. */
BRV_ENTRY_POINT(int, BRV_GetDeviceState, (void));

/* The group's name. The copy call also makes `languageCode` the language of the titles of parameter options. */
BRV_ENTRY_POINT(void, BRV_GetDeviceGroupDisplayName, (const char* languageCode, char* buffer, int* length));

/* The number of device groups: 1. Read-only. */
BRV_ENTRY_POINT(int, BRV_GetDeviceCount, (void));

/* The group's identifier. Read-only. */
BRV_ENTRY_POINT(void, BRV_GetDeviceId, (void* unread, char* buffer, int* length));

/* The number of sources. Read-only. */
BRV_ENTRY_POINT(int, BRV_GetSourceCount, (void));

/*
 * The identifier of the source at `index`, 0 to count - 1: what all entry points below take as `sourceId`. It stays the
 * same as long as the source exists, while a removal moves the indexes after it down. Outside the range the length is
 * 0 and the text empty. Between the two calls no source may come or go, so make both on the main thread, or on a thread
 * that the main thread waits for.
 */
BRV_ENTRY_POINT(void, BRV_GetSourceId, (void* unread, int index, char* buffer, int* length));

/* The source's name for display: its identifier; no look-up is made. Read-only. */
BRV_ENTRY_POINT(void, BRV_GetSourceDisplayName,
                (void* unread0, const char* sourceId, void* unread1, char* buffer, int* length));

/* Always BRV_SOURCE_STATE. Read-only. */
BRV_ENTRY_POINT(int, BRV_GetSourceState, (void));

/*
 * The message for an error code of BRV_SetSourceSettings; with 0 - index, why the source at that index delivers
 * nothing: what kept it from starting, or what its camera or microphone says while it cannot go on (another program
 * holds it, say; capture resumes by itself, and the message goes with the reason). The length call fetches the source's
 * pending error, once; without one the previous message stays. The copy call hands out what the last length call left.
 * What the camera said to a failed "Video Settings" is in the log instead, and a value that names no choice has no
 * message.
 */
BRV_ENTRY_POINT(void, BRV_GetErrorMessage, (void* unread0, void* unread1, int errorCode, char* buffer, int* length));

/* Frees a string that the module allocated with new char[]. Null is ignored. None is handed out at present. */
BRV_ENTRY_POINT(void, BRV_DeleteString, (char* string));

/* There is no dialog; 0. */
BRV_ENTRY_POINT(int, BRV_ShowCustomConfigDialog, (void));

/* ---- Media, properties and timing of one source ---- */

/*
 * Stops the source, replaces its video callback and, when callback and context are both non-null, starts it
 * again; otherwise the whole source stays stopped, its sound included. After the return the earlier callback
 * is not running and will not be called. Blocks for the time of the start. Until the host has set "Video Settings",
 * every start chooses the format, which takes 100 ms; where that is not the active one, the frame rate is its highest
 * then. A source without video ignores the pair but is stopped and started all the same. What keeps the source from
 * starting, or its format from being chosen, is in the log, and BRV_GetErrorMessage has it under 0 - index.
 */
BRV_ENTRY_POINT(void, BRV_RegisterVideoDataArrivedCallback,
                (void* unread, const char* sourceId, BRV_VideoDataArrivedCallback callback, void* context));

/* The same for the source's audio callback. */
BRV_ENTRY_POINT(void, BRV_RegisterAudioDataArrivedCallback,
                (void* unread, const char* sourceId, BRV_AudioDataArrivedCallback callback, void* context));

/* 1 or 0 for "ProvidesVideo", "ProvidesAudio" and "HDV"; 0 for any other name or source. Read-only. */
BRV_ENTRY_POINT(int, BRV_SourceSupportsProperty, (void* unread, const char* sourceId, const char* propertyName));

/*
 * Calls back with a property's value before it returns, and returns 1 when it has one; but 0 for "device_id". Anything
 * else, a medium that the source lacks, or a null `required` (which is not otherwise read): no call, 0. A null callback
 * is not called; the result is the same. Read-only.
 *
 *   "frame_duration"   integer: of a frame, in ticks of the source's timescale; 0 before the first sample, -1 for a
 *                      source without media
 *   "audio_timescale"  integer: ticks per second of the sound's time stamps; -1 before the first
 *   "video_device_id", "audio_device_id"
 *                      text: the unique identifier of the camera or the microphone, the same after a replug
 *   "device_id"        text: the audio device's identifier where there is sound, otherwise the video device's
 *   "provider"         text: where the devices come from, for display
 *   "error"            text: the source's pending error, which stays pending; see BRV_GetErrorMessage
 *   "video_account", "audio_account"
 *                      text: a record, see below
 *
 * An account tells what became of the samples of a medium since the source was made, through stops, changes of format
 * and another microphone. It is a record "account" of texts, each a decimal number. "captured" is always the sum of the
 * others:
 *
 *   "delivered"       to the host's callback
 *   "late"            the callback was still busy with an earlier one
 *   "no_buffer"       the host keeps too many pictures, or memory is short
 *   "lost_by_device"  it never came, or without a picture
 *   "not_converted"   or not decoded
 *   "invalid_time"    sound of a camcorder before its first picture
 *   "stopped"         it was waiting when the source stopped
 *   "unheard"         there was no callback
 *   "pending"         it waits for the callback, or for the rest of a buffer
 *
 * Sound is counted in buffers as they come from the device, of which several may make one of the host's; and in a child
 * "frames" in sample frames: "captured" at the device's rate is "dropped" and "converted"; "produced" at 44,100 Hz is
 * "delivered", "undelivered" and "pending". To read an account delays no delivery.
 *
 * With the identifier of the device group (BRV_GetDeviceId) as `sourceId`, two texts: "provider", and
 * "unoffered_devices", what is plugged in and has no source: a record "devices" with a child "device" for each, of the
 * texts "name" and "reason".
 */
BRV_ENTRY_POINT(int, BRV_GetProperty,
                (void* context, BRV_PropertyCallback callback, const char* propertyName, const void* required,
                 const char* sourceId));

/*
 * Ticks per second of the source's time stamps. -1 before its first sample and for an unknown source, 0 for a source
 * without media. Read-only.
 */
BRV_ENTRY_POINT(int, BRV_GetTimescaleTicksPerSec, (void* unread, const char* sourceId));

/* ---- Settings of one source ---- */

/*
 * Three parameters can be set: "Video Settings" (the capture format), "Video FPS" (the frame-rate range of that format)
 * and "Audio Settings" (the sound format). A choice is named by its index. Records are trees in XML: an element
 * "record" with its name, and in it a field as an empty element named after its type ("text", "uint16", "int32"), with
 * its name and its value, and further records. Values are escaped as in any XML; whatever else stands in a text makes
 * it no record. A C++ host reads them with lumora's zXML::ParseBuffer. What is selected, and what sets it again:
 *
 *   <?xml version="1.0" encoding="UTF-8"?>
 *   <record name="settings">
 *     <record name="parameter"><text name="name" value="Video Settings"/><int32 name="value" value="1"/></record>
 *     <record name="parameter"><text name="name" value="Video FPS"/><int32 name="value" value="0"/></record>
 *   </record>
 *
 * The entry points that hand out a record follow a variant of the two-call convention. Length call: builds the record
 * and stores its length in bytes in `*length`; a record that cannot be written leaves 0, and a line in the log, except
 * where stated. Copy call: copies `*length` bytes, the length that was stored, without a terminator, and forgets the
 * record. It never copies more than there is.
 */

/*
 * The choices of one parameter: record "parameter" with the texts "name", "type" ("int") and "global" ("false"), and
 * for each choice a child "option" with the 16-bit "value" and, where it has a title, a child "title" with the texts
 * "lang" (the language of the last copy call of BRV_GetDeviceGroupDisplayName) and "value". Without a choice there is
 * one option, 0, whose title says so; for an unknown parameter there is none. At most 65,536 are listed. An unknown
 * source leaves `*length` as it was: set it to 0 before. When the source goes between the two calls, the copy call
 * fills `buffer` with zero bytes: an empty text, which is no record.
 */
BRV_ENTRY_POINT(void, BRV_QueryParameterOptions,
                (void* unread, const char* sourceId, const char* parameterName, char* buffer, int* length));

/*
 * What is selected: record "settings" with a child "parameter" for each parameter, of the text "name" and the 32-bit
 * "value". A parameter of a medium that the source lacks has 0; one whose selection is not known is left out. The
 * length is 0 for an unknown source.
 */
BRV_ENTRY_POINT(void, BRV_GetSourceSettings, (void* unread, const char* sourceId, char* buffer, int* length));

/*
 * Starts the source, which runs from then on, then applies the parameters of a settings record in the order in which
 * they stand. 1 when the last one that applies succeeded, also when nothing was to be applied, for an unknown source
 * and for a text that is no such record; otherwise a code of 0 or below for BRV_GetErrorMessage. A value that names no
 * choice fails and changes nothing. Blocks for 100 ms for each video format or frame rate, and for the start, see
 * BRV_RegisterVideoDataArrivedCallback: a frame rate set alone is one of the format that the start has chosen.
 */
BRV_ENTRY_POINT(int, BRV_SetSourceSettings, (void* unread, const char* sourceId, const char* settingsText));

/*
 * What each parameter accepts: record "source" with a child "parameter" for each parameter of the source's media, of
 * the text "name", and below it a child "option" with the 32-bit "value" for each choice. Always 0. A length call for
 * an unknown source, or of a record that cannot be written, leaves `*length` as it was.
 */
BRV_ENTRY_POINT(int, BRV_GetValidParameterValues, (void* unread, const char* sourceId, char* buffer, int* length));

#if defined(__cplusplus)
}
#endif

#endif /* BRV_AVCAPTURE_H */
