/* The C interfaces as a program in C sees them. */

#include <CoreAudio/CoreAudioTypes.h>
#include <CoreFoundation/CFDictionary.h>
#include <CoreFoundation/CFNumber.h>
#include <CoreMedia/CMBlockBuffer.h>
#include <CoreMedia/CMFormatDescription.h>
#include <CoreMedia/CMSampleBuffer.h>
#include <CoreMedia/CMTime.h>
#include <CoreVideo/CVImageBuffer.h>
#include <CoreVideo/CVPixelBuffer.h>

const char* recyclePixelBufferFromC(void);

static CFDictionaryRef makeAttributes(void) {
  const SInt32 numbers[3] = {kCVPixelFormatType_422YpCbCr8_yuvs, 16, 16};
  const void* keys[3] = {kCVPixelBufferPixelFormatTypeKey, kCVPixelBufferWidthKey, kCVPixelBufferHeightKey};
  const void* values[3];
  for (int i = 0; i < 3; ++i) values[i] = CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt32Type, &numbers[i]);
  CFDictionaryRef attributes = CFDictionaryCreate(kCFAllocatorDefault, keys, values, 3, NULL, NULL);
  for (int i = 0; i < 3; ++i) CFRelease(values[i]);
  return attributes;
}

/* Null when all went well, otherwise what did not. */
const char* recyclePixelBufferFromC(void) {
  CFDictionaryRef attributes = makeAttributes();
  CVPixelBufferPoolRef pool = NULL;
  const CVReturn status = CVPixelBufferPoolCreate(kCFAllocatorDefault, NULL, attributes, &pool);
  CFRelease(attributes);
  if (status != kCVReturnSuccess) return "the pool was refused";

  CVPixelBufferRef first = NULL;
  CVPixelBufferRef second = NULL;
  CVPixelBufferPoolCreatePixelBuffer(kCFAllocatorDefault, pool, &first);
  CVPixelBufferRelease(first);
  CVPixelBufferPoolCreatePixelBuffer(kCFAllocatorDefault, pool, &second);
  CFRelease(second);
  CVPixelBufferPoolRelease(pool);
  return first && first == second ? NULL : "the buffer was not handed out again";
}
