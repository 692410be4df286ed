// The binary interface as hosts know it that were built long ago: what does not compile here any more breaks them.
#include <BRV_AVCapture.h>

#define HAS(name, value) _Static_assert((name) == (value), #name)
#define FIELD(record, offset, type, name)                                              \
  _Static_assert(offsetof(BRV_##record##Buffer, name) == (offset), #record " " #name); \
  _Static_assert(__builtin_types_compatible_p(__typeof__(((BRV_##record##Buffer*)0)->name), type), #record " " #name)
#define IS(name, result, ...) _Static_assert(__builtin_types_compatible_p(name, result(*)(__VA_ARGS__)), #name)
#define CALL(name, result, ...) IS(name##_Function, result, __VA_ARGS__)

HAS(BRV_DEVICE_STATE, 0x6B726564);
HAS(BRV_SOURCE_STATE, 0x6B6E6F73);
HAS(BRV_DEVICE_STATE_ATTACHED, 0x6B647361);
HAS(BRV_DEVICE_STATE_REMOVED, 0x6B647372);
HAS(BRV_FORMAT_PIXEL_BUFFER, 0x63767078);
HAS(BRV_FORMAT_PCM, 0x6670636D);
HAS(BRV_FLAG_NOT_FIRST, 0x01);
HAS(BRV_FLAG_FORMAT_CHANGED, 0x20);
HAS(BRV_PROPERTY_INT64, 2);
HAS(BRV_PROPERTY_STRING, 6);

HAS(sizeof(BRV_VideoBuffer), 48);
FIELD(Video, 0, int32_t, format);
FIELD(Video, 4, int32_t, width);
FIELD(Video, 8, int32_t, height);
FIELD(Video, 12, int32_t, rowBytes);
FIELD(Video, 16, float, pixelAspectRatio);
FIELD(Video, 24, int64_t, timeStamp);
FIELD(Video, 32, int32_t, flags);
FIELD(Video, 40, void*, data);
HAS(sizeof(BRV_AudioBuffer), 48);
FIELD(Audio, 0, int32_t, format);
FIELD(Audio, 4, int32_t, sampleRate);
FIELD(Audio, 8, int32_t, channels);
FIELD(Audio, 12, int32_t, bitsPerSample);
FIELD(Audio, 16, int32_t, dataLength);
FIELD(Audio, 24, int64_t, timeStamp);
FIELD(Audio, 32, int32_t, flags);
FIELD(Audio, 40, void*, data);

IS(BRV_LocalizeStringCallback, const char*, const char*);
IS(BRV_GetPreferenceCallback, void, void*, const char*, char*, int*);
IS(BRV_SetPreferenceCallback, void, void*, const char*, const char*);
IS(BRV_LogCallback, void, void*, int, const char*, ...);
IS(BRV_DeviceStateChangedCallback, void, void*, int);
IS(BRV_SourceChangedCallback, void, void*, int);
IS(BRV_VideoDataArrivedCallback, void, void*, BRV_VideoBuffer*);
IS(BRV_AudioDataArrivedCallback, void, void*, BRV_AudioBuffer*);
IS(BRV_PropertyCallback, void, void*, int, const void*);

CALL(BRV_IntitializeLibrary, int, void);
CALL(BRV_UninitializeLibrary, void, void);
CALL(BRV_RegisterLocalizeStringCallback, void, BRV_LocalizeStringCallback);
CALL(BRV_RegisterPreferenceCallback, void, BRV_GetPreferenceCallback, BRV_SetPreferenceCallback, void*);
CALL(BRV_RegisterLogCallback, void, void*, BRV_LogCallback, void*);
CALL(BRV_RegisterDeviceStateChangedCallback, void, void*, BRV_DeviceStateChangedCallback, void*);
CALL(BRV_RegisterSourceChangedCallback, void, void*, const char*, BRV_SourceChangedCallback, void*);
CALL(BRV_GetModelInfo, void, void*, char*, int*);
CALL(BRV_ConnectDevice, int, void);
CALL(BRV_DisconnectDevice, void, void);
CALL(BRV_GetDeviceState, int, void);
CALL(BRV_GetDeviceGroupDisplayName, void, const char*, char*, int*);
CALL(BRV_GetDeviceCount, int, void);
CALL(BRV_GetDeviceId, void, void*, char*, int*);
CALL(BRV_GetSourceCount, int, void);
CALL(BRV_GetSourceId, void, void*, int, char*, int*);
CALL(BRV_GetSourceDisplayName, void, void*, const char*, void*, char*, int*);
CALL(BRV_GetSourceState, int, void);
CALL(BRV_GetErrorMessage, void, void*, void*, int, char*, int*);
CALL(BRV_DeleteString, void, char*);
CALL(BRV_ShowCustomConfigDialog, int, void);
CALL(BRV_RegisterVideoDataArrivedCallback, void, void*, const char*, BRV_VideoDataArrivedCallback, void*);
CALL(BRV_RegisterAudioDataArrivedCallback, void, void*, const char*, BRV_AudioDataArrivedCallback, void*);
CALL(BRV_SourceSupportsProperty, int, void*, const char*, const char*);
CALL(BRV_GetProperty, int, void*, BRV_PropertyCallback, const char*, const void*, const char*);
CALL(BRV_GetTimescaleTicksPerSec, int, void*, const char*);
CALL(BRV_QueryParameterOptions, void, void*, const char*, const char*, char*, int*);
CALL(BRV_GetSourceSettings, void, void*, const char*, char*, int*);
CALL(BRV_SetSourceSettings, int, void*, const char*, const char*);
CALL(BRV_GetValidParameterValues, int, void*, const char*, char*, int*);
