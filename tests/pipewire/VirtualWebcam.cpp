// A V4L2 webcam without a kernel that has any: preloaded into the server's daemon, it answers for /dev/webcam as the
// server's V4L2 plug-in asks, and sends the pictures of Scene.h as Motion JPEG, their numbers modulo 10. The file
// VIRTUAL_WEBCAM tells how it is at present:
//   denied    opening is refused (EACCES)
//   busy      another program has it (EBUSY)
//   gone      it was pulled while it ran (ENODEV)
//   lose=N    the number of every Nth frame is used up without one
//   mute      it takes no pictures

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <fstream>
#include <mutex>
#include <string>

#include "Scene.h"

namespace {

constexpr std::uint32_t width = 1920, height = 1080, size = width * height * 2, rate = 30;

std::string state() {
  std::string word;
  std::ifstream(std::getenv("VIRTUAL_WEBCAM")) >> word;
  return word;
}

int fail(int code) {
  errno = code;
  return -1;
}

template <typename Function>
Function* real(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

struct Buffer {
  int memory;
  void* bytes;
};

std::recursive_mutex lock;
int webcam = -1;           ///< the descriptor while it is open, a clock's
std::uint32_t number = 0;  ///< of the next frame
std::vector<Buffer> buffers;
std::deque<std::uint32_t> queued;

void setRunning(bool isRunning) {
  itimerspec period{};
  if (isRunning) period.it_value.tv_nsec = period.it_interval.tv_nsec = 1'000'000'000 / rate;
  timerfd_settime(webcam, 0, &period, nullptr);
  number = 0;
  if (!isRunning) queued.clear();
}

void allocate(std::uint32_t count) {
  for (const Buffer& buffer : buffers) munmap(buffer.bytes, size), close(buffer.memory);
  buffers.clear();
  for (; buffers.size() < count;) {
    const int memory = memfd_create("webcam", MFD_CLOEXEC);
    if (ftruncate(memory, size) != 0) std::abort();
    buffers.push_back({memory, real(&mmap64, "mmap64")(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0)});
  }
}

int dequeue(v4l2_buffer& buffer, const std::string& now) {
  std::uint64_t ticks = 0;
  if (read(webcam, &ticks, sizeof ticks) != sizeof ticks) return fail(EAGAIN);
  if (now == "gone") return fail(ENODEV);
  const auto lose = now.starts_with("lose=") ? static_cast<std::uint32_t>(std::stoi(now.substr(5))) : 0;
  const std::uint32_t sequence = number++;
  if ((lose > 0 && number % lose == 0) || queued.empty()) return fail(EAGAIN);
  static std::vector<std::uint8_t> pictures[10];
  std::vector<std::uint8_t>& picture = pictures[sequence % 10];
  std::uint32_t stride = 0;
  if (picture.empty())
    picture = test::pipewire::packed({test::pipewire::MotionJPEG, width, height}, sequence % 10, stride);
  buffer.index = queued.front();
  queued.pop_front();
  std::memcpy(buffers[buffer.index].bytes, picture.data(), picture.size());
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  buffer.bytesused = static_cast<std::uint32_t>(picture.size()), buffer.length = size, buffer.sequence = sequence;
  buffer.flags = V4L2_BUF_FLAG_MAPPED | V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
  buffer.timestamp = {time.tv_sec, time.tv_nsec / 1000};
  return 0;
}

template <typename Argument>
Argument& as(void* argument) {
  return *static_cast<Argument*>(argument);
}

int control(unsigned long request, void* argument) {
  const std::string now = state();
  const bool isForOne = request == VIDIOC_S_FMT || request == VIDIOC_S_PARM || request == VIDIOC_REQBUFS;
  if (isForOne && now == "busy") return fail(EBUSY);
  switch (request) {
    case VIDIOC_QUERYCAP:
      as<v4l2_capability>(argument) = {};
      as<v4l2_capability>(argument).capabilities =
          (now == "mute" ? V4L2_CAP_META_CAPTURE : V4L2_CAP_VIDEO_CAPTURE) | V4L2_CAP_STREAMING;
      return 0;
    case VIDIOC_ENUM_FMT:
      as<v4l2_fmtdesc>(argument).pixelformat = V4L2_PIX_FMT_MJPEG;
      return as<v4l2_fmtdesc>(argument).index == 0 ? 0 : fail(EINVAL);
    case VIDIOC_ENUM_FRAMESIZES:
      as<v4l2_frmsizeenum>(argument).type = V4L2_FRMSIZE_TYPE_DISCRETE;
      as<v4l2_frmsizeenum>(argument).discrete = {width, height};
      return as<v4l2_frmsizeenum>(argument).index == 0 ? 0 : fail(EINVAL);
    case VIDIOC_ENUM_FRAMEINTERVALS:
      as<v4l2_frmivalenum>(argument).type = V4L2_FRMIVAL_TYPE_DISCRETE;
      as<v4l2_frmivalenum>(argument).discrete = {1, rate};
      return as<v4l2_frmivalenum>(argument).index == 0 ? 0 : fail(EINVAL);
    case VIDIOC_G_FMT:
    case VIDIOC_S_FMT:
    case VIDIOC_TRY_FMT: {
      v4l2_pix_format& picture = as<v4l2_format>(argument).fmt.pix;
      picture = {};
      picture.width = width, picture.height = height, picture.sizeimage = size;
      picture.pixelformat = V4L2_PIX_FMT_MJPEG, picture.field = V4L2_FIELD_NONE;
      return 0;
    }
    case VIDIOC_G_PARM:
    case VIDIOC_S_PARM:
      as<v4l2_streamparm>(argument).parm.capture.timeperframe = {1, rate};
      return 0;
    case VIDIOC_REQBUFS:
      allocate(as<v4l2_requestbuffers>(argument).count);
      return 0;
    case VIDIOC_QUERYBUF:
      as<v4l2_buffer>(argument).length = size;
      as<v4l2_buffer>(argument).m.offset = as<v4l2_buffer>(argument).index << 24;
      return 0;
    case VIDIOC_EXPBUF: {
      auto& exported = as<v4l2_exportbuffer>(argument);
      exported.fd = fcntl(buffers[exported.index].memory, F_DUPFD_CLOEXEC, 0);
      return 0;
    }
    case VIDIOC_QBUF:
      queued.push_back(as<v4l2_buffer>(argument).index);
      return 0;
    case VIDIOC_DQBUF:
      return dequeue(as<v4l2_buffer>(argument), now);
    case VIDIOC_STREAMON:
    case VIDIOC_STREAMOFF:
      setRunning(request == VIDIOC_STREAMON);
      return 0;
    default:
      return fail(ENOTTY);
  }
}

}  // namespace

extern "C" {

int open64(const char* name, int flags, ...) {
  va_list list;
  va_start(list, flags);
  const mode_t permissions = va_arg(list, mode_t);
  va_end(list);
  if (std::strcmp(name, "/dev/webcam") != 0) return real(&open64, "open64")(name, flags, permissions);
  const std::lock_guard guard(lock);
  const std::string now = state();
  if (now == "denied" || now == "gone") return fail(now == "denied" ? EACCES : ENODEV);
  return webcam = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
}

int close(int descriptor) {
  {
    const std::lock_guard guard(lock);
    if (descriptor >= 0 && descriptor == webcam) allocate(0), webcam = -1;
  }
  return real(&close, "close")(descriptor);
}

int ioctl(int descriptor, unsigned long request, ...) noexcept {
  va_list list;
  va_start(list, request);
  void* const argument = va_arg(list, void*);
  va_end(list);
  const std::lock_guard guard(lock);
  return descriptor == webcam ? control(request & 0xFFFFFFFF, argument)
                              : real(&ioctl, "ioctl")(descriptor, request, argument);
}

void* mmap64(void* address, std::size_t length, int protection, int flags, int descriptor, off64_t offset) noexcept {
  const std::lock_guard guard(lock);
  const bool isOurs = descriptor >= 0 && descriptor == webcam;
  return real(&mmap64, "mmap64")(address, length, protection, flags,
                                 isOurs ? buffers[static_cast<std::size_t>(offset >> 24)].memory : descriptor,
                                 isOurs ? 0 : offset);
}

int fstat64(int descriptor, struct stat64* to) noexcept {
  const int result = real(&fstat64, "fstat64")(descriptor, to);
  if (result == 0 && descriptor == webcam) to->st_mode = S_IFCHR | 0660;
  return result;
}

}  // extern "C"
