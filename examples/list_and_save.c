/* Lists the sources, and saves a picture of one: list_and_save [INDEX [FILE.ppm]] */

#include <BRV_AVCaptureLoader.h>
#include <CoreFoundation/CFRunLoop.h>
#include <CoreVideo/CVPixelBuffer.h>
#include <stdatomic.h>

static BRV_Module brv;

/* On the source's capture queue, one call at a time: keeps the first picture. */
static void on_frame(void* context, BRV_VideoBuffer* frame) {
  _Atomic(CVPixelBufferRef)* picture = context;
  if (!*picture) *picture = CVPixelBufferRetain(frame->data);
}

static char* source_id(int index) {
  int length = 0;
  BRV_GetSourceId_Function get = brv.BRV_GetSourceId;
  get(NULL, index, NULL, &length);
  char* id = malloc((size_t)length + 1);
  if (!id) exit(1);
  get(NULL, index, id, &length);
  return id;
}

static unsigned char clipped(double value) {
  return value <= 0 ? 0 : value >= 255 ? 255 : (unsigned char)(value + 0.5);
}

/* The pixels are Y0 Cb Y1 Cr, two of them in four bytes, luma from 16 to 235. */
static void write_row(const unsigned char* row, size_t width, int is_bt601, FILE* file) {
  for (size_t x = 0; x < width; ++x) {
    const unsigned char* pair = row + x / 2 * 4;
    const double y = (row[2 * x] - 16) * 1.164, cb = pair[1] - 128, cr = pair[3] - 128;
    fputc(clipped(y + cr * (is_bt601 ? 1.596 : 1.793)), file);
    fputc(clipped(y - cb * (is_bt601 ? 0.392 : 0.213) - cr * (is_bt601 ? 0.813 : 0.533)), file);
    fputc(clipped(y + cb * (is_bt601 ? 2.017 : 2.112)), file);
  }
}

static int save(CVPixelBufferRef picture, const char* path) {
  const size_t width = CVPixelBufferGetWidth(picture), height = CVPixelBufferGetHeight(picture);
  const CFTypeRef matrix = CVBufferGetAttachment(picture, kCVImageBufferYCbCrMatrixKey, NULL);
  const int is_bt601 = matrix ? matrix == kCVImageBufferYCbCrMatrix_ITU_R_601_4 : height <= 576;
  FILE* file = fopen(path, "wb");
  if (!file) return 0;
  fprintf(file, "P6 %zu %zu 255\n", width, height);
  CVPixelBufferLockBaseAddress(picture, kCVPixelBufferLock_ReadOnly);
  const unsigned char* pixels = CVPixelBufferGetBaseAddress(picture);
  for (size_t y = 0; y < height; ++y)
    write_row(pixels + y * CVPixelBufferGetBytesPerRow(picture), width, is_bt601, file);
  CVPixelBufferUnlockBaseAddress(picture, kCVPixelBufferLock_ReadOnly);
  return fclose(file) == 0;
}

int main(int argc, char** argv) {
  if (!BRV_OpenModule(&brv, NULL)) return fprintf(stderr, "%s\n", brv.error), 1;
  brv.BRV_IntitializeLibrary();
  brv.BRV_RegisterLogCallback(NULL, NULL, NULL); /* looks for devices */
  for (int i = 0; i < brv.BRV_GetSourceCount(); ++i) {
    char* id = source_id(i);
    printf("%d  %s\n", i, id);
    free(id);
  }

  const char* path = argc > 2 ? argv[2] : "picture.ppm";
  char* id = source_id(argc > 1 ? atoi(argv[1]) : 0);
  _Atomic(CVPixelBufferRef) picture = NULL;
  brv.BRV_RegisterVideoDataArrivedCallback(NULL, id, on_frame, &picture);
  for (int i = 0; i < 100 && !picture; ++i) CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.05, 0);
  brv.BRV_UninitializeLibrary(); /* the picture stays */
  const int is_saved = picture && save(picture, path);
  fprintf(is_saved ? stdout : stderr, is_saved ? "%s: %s\n" : "%s: no picture in %s\n", id, path);
  free(id);
  CVPixelBufferRelease(picture);
  return !is_saved;
}
