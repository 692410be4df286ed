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

enum {
  BRV_DEVICE_STATE = 0x6B726564,
  BRV_SOURCE_STATE = 0x6B6E6F73,
  BRV_DEVICE_STATE_ATTACHED = 0x6B647361,
  BRV_DEVICE_STATE_REMOVED = 0x6B647372,
  BRV_FORMAT_PIXEL_BUFFER = 0x63767078,
  BRV_FORMAT_PCM = 0x6670636D
};

enum {
  BRV_FLAG_NOT_FIRST = 0x01,
  BRV_FLAG_FORMAT_CHANGED = 0x20
};

enum {
  BRV_PROPERTY_INT64 = 2,
  BRV_PROPERTY_STRING = 6
};

typedef struct BRV_VideoBuffer {
  int32_t format;
  int32_t width;
  int32_t height;
  int32_t rowBytes;
  float pixelAspectRatio;
  int32_t reserved0;
  int64_t timeStamp;
  int32_t flags;
  int32_t reserved1;
  void* data;
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

typedef struct BRV_AudioBuffer {
  int32_t format;
  int32_t sampleRate;
  int32_t channels;
  int32_t bitsPerSample;
  int32_t dataLength;
  int32_t reserved0;
  int64_t timeStamp;
  int32_t flags;
  int32_t reserved1;
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

typedef const char* (*BRV_LocalizeStringCallback)(const char* key);

typedef void (*BRV_GetPreferenceCallback)(void* context, const char* key, char* buffer, int* length);

typedef void (*BRV_SetPreferenceCallback)(void* context, const char* key, const char* value);

typedef void (*BRV_LogCallback)(void* context, int level, const char* format, ...);

typedef void (*BRV_DeviceStateChangedCallback)(void* context, int state);

typedef void (*BRV_SourceChangedCallback)(void* context, int change);

typedef void (*BRV_VideoDataArrivedCallback)(void* context, BRV_VideoBuffer* buffer);

typedef void (*BRV_AudioDataArrivedCallback)(void* context, BRV_AudioBuffer* buffer);

typedef void (*BRV_PropertyCallback)(void* context, int valueType, const void* value);

BRV_EXPORT int BRV_IntitializeLibrary(void);
typedef int (*BRV_IntitializeLibrary_Function)(void);

BRV_EXPORT void BRV_UninitializeLibrary(void);
typedef void (*BRV_UninitializeLibrary_Function)(void);

BRV_EXPORT void BRV_RegisterLocalizeStringCallback(BRV_LocalizeStringCallback callback);
typedef void (*BRV_RegisterLocalizeStringCallback_Function)(BRV_LocalizeStringCallback callback);

BRV_EXPORT void BRV_RegisterPreferenceCallback(BRV_GetPreferenceCallback get, BRV_SetPreferenceCallback set,
                                               void* context);
typedef void (*BRV_RegisterPreferenceCallback_Function)(BRV_GetPreferenceCallback get, BRV_SetPreferenceCallback set,
                                                        void* context);

BRV_EXPORT void BRV_RegisterLogCallback(void* unread, BRV_LogCallback callback, void* context);
typedef void (*BRV_RegisterLogCallback_Function)(void* unread, BRV_LogCallback callback, void* context);

BRV_EXPORT void BRV_RegisterDeviceStateChangedCallback(void* unread, BRV_DeviceStateChangedCallback callback,
                                                       void* context);
typedef void (*BRV_RegisterDeviceStateChangedCallback_Function)(void* unread, BRV_DeviceStateChangedCallback callback,
                                                                void* context);

BRV_EXPORT void BRV_RegisterSourceChangedCallback(void* unread, const char* sourceId,
                                                  BRV_SourceChangedCallback callback, void* context);
typedef void (*BRV_RegisterSourceChangedCallback_Function)(void* unread, const char* sourceId,
                                                           BRV_SourceChangedCallback callback, void* context);

BRV_EXPORT void BRV_GetModelInfo(void* unread, char* buffer, int* length);
typedef void (*BRV_GetModelInfo_Function)(void* unread, char* buffer, int* length);

BRV_EXPORT int BRV_ConnectDevice(void);
typedef int (*BRV_ConnectDevice_Function)(void);

BRV_EXPORT void BRV_DisconnectDevice(void);
typedef void (*BRV_DisconnectDevice_Function)(void);

BRV_EXPORT int BRV_GetDeviceState(void);
typedef int (*BRV_GetDeviceState_Function)(void);

BRV_EXPORT void BRV_GetDeviceGroupDisplayName(const char* languageCode, char* buffer, int* length);
typedef void (*BRV_GetDeviceGroupDisplayName_Function)(const char* languageCode, char* buffer, int* length);

BRV_EXPORT int BRV_GetDeviceCount(void);
typedef int (*BRV_GetDeviceCount_Function)(void);

BRV_EXPORT void BRV_GetDeviceId(void* unread, char* buffer, int* length);
typedef void (*BRV_GetDeviceId_Function)(void* unread, char* buffer, int* length);

BRV_EXPORT int BRV_GetSourceCount(void);
typedef int (*BRV_GetSourceCount_Function)(void);

BRV_EXPORT void BRV_GetSourceId(void* unread, int index, char* buffer, int* length);
typedef void (*BRV_GetSourceId_Function)(void* unread, int index, char* buffer, int* length);

BRV_EXPORT void BRV_GetSourceDisplayName(void* unread0, const char* sourceId, void* unread1, char* buffer, int* length);
typedef void (*BRV_GetSourceDisplayName_Function)(void* unread0, const char* sourceId, void* unread1, char* buffer,
                                                  int* length);

BRV_EXPORT int BRV_GetSourceState(void);
typedef int (*BRV_GetSourceState_Function)(void);

BRV_EXPORT void BRV_GetErrorMessage(void* unread0, void* unread1, int errorCode, char* buffer, int* length);
typedef void (*BRV_GetErrorMessage_Function)(void* unread0, void* unread1, int errorCode, char* buffer, int* length);

BRV_EXPORT void BRV_DeleteString(char* string);
typedef void (*BRV_DeleteString_Function)(char* string);

BRV_EXPORT int BRV_ShowCustomConfigDialog(void);
typedef int (*BRV_ShowCustomConfigDialog_Function)(void);

BRV_EXPORT void BRV_RegisterVideoDataArrivedCallback(void* unread, const char* sourceId,
                                                     BRV_VideoDataArrivedCallback callback, void* context);
typedef void (*BRV_RegisterVideoDataArrivedCallback_Function)(void* unread, const char* sourceId,
                                                              BRV_VideoDataArrivedCallback callback, void* context);

BRV_EXPORT void BRV_RegisterAudioDataArrivedCallback(void* unread, const char* sourceId,
                                                     BRV_AudioDataArrivedCallback callback, void* context);
typedef void (*BRV_RegisterAudioDataArrivedCallback_Function)(void* unread, const char* sourceId,
                                                              BRV_AudioDataArrivedCallback callback, void* context);

BRV_EXPORT int BRV_SourceSupportsProperty(void* unread, const char* sourceId, const char* propertyName);
typedef int (*BRV_SourceSupportsProperty_Function)(void* unread, const char* sourceId, const char* propertyName);

BRV_EXPORT int BRV_GetProperty(void* context, BRV_PropertyCallback callback, const char* propertyName,
                               const void* required, const char* sourceId);
typedef int (*BRV_GetProperty_Function)(void* context, BRV_PropertyCallback callback, const char* propertyName,
                                        const void* required, const char* sourceId);

BRV_EXPORT int BRV_GetTimescaleTicksPerSec(void* unread, const char* sourceId);
typedef int (*BRV_GetTimescaleTicksPerSec_Function)(void* unread, const char* sourceId);

BRV_EXPORT void BRV_QueryParameterOptions(void* unread, const char* sourceId, const char* parameterName, char* buffer,
                                          int* length);
typedef void (*BRV_QueryParameterOptions_Function)(void* unread, const char* sourceId, const char* parameterName,
                                                   char* buffer, int* length);

BRV_EXPORT void BRV_GetSourceSettings(void* unread, const char* sourceId, char* buffer, int* length);
typedef void (*BRV_GetSourceSettings_Function)(void* unread, const char* sourceId, char* buffer, int* length);

BRV_EXPORT int BRV_SetSourceSettings(void* unread, const char* sourceId, const char* settingsText);
typedef int (*BRV_SetSourceSettings_Function)(void* unread, const char* sourceId, const char* settingsText);

BRV_EXPORT int BRV_GetValidParameterValues(void* unread, const char* sourceId, char* buffer, int* length);
typedef int (*BRV_GetValidParameterValues_Function)(void* unread, const char* sourceId, char* buffer, int* length);

#if defined(__cplusplus)
}
#endif

#endif
