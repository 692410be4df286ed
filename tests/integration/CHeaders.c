/* The C interfaces compile as C11. */

#include <AudioToolbox/AudioConverter.h>
#include <AudioToolbox/AudioFormat.h>
#include <BRV_AVCapture.h>
#include <CoreAudio/CoreAudioTypes.h>
#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFDictionary.h>
#include <CoreFoundation/CFNumber.h>
#include <CoreFoundation/CFRunLoop.h>
#include <CoreFoundation/CFString.h>
#include <CoreFoundation/CFURL.h>
#include <CoreMedia/CMSampleBuffer.h>
#include <CoreMediaIO/CMIOHardware.h>
#include <CoreVideo/CVPixelBuffer.h>
#include <dispatch/dispatch.h>

/* Something to compile. */
extern const size_t video_record_size;
const size_t video_record_size = sizeof(BRV_VideoBuffer);
