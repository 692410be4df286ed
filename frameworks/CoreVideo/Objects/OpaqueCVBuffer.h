#pragma once

// The object behind CVBufferRef. Pixel buffers are the only kind of picture here, so attachments and pixels
// live in one class. C++ only.

#include <CoreFoundation/Objects/OpaqueCFString.h>
#include <CoreVideo/CVPixelBuffer.h>
#include <runtime/NSObject.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <vector>

class CVPixelBufferStore;

/// Shape of a picture in memory.
struct CVPixelLayout {
  std::size_t width = 0;
  std::size_t height = 0;
  std::size_t bytesPerRow = 0;
  OSType format = 0;

  /// The whole last row is memory of the buffer too, so that vector code may run over a row's end up to the next one.
  std::size_t dataSize() const noexcept { return bytesPerRow * height; }

  /// Checks format and size and works out the rows; the errors are those of CVPixelBufferCreate.
  static CVReturn make(std::size_t width, std::size_t height, OSType format, CVPixelLayout* layoutOut) noexcept;
};

struct OpaqueCVBuffer final : public NSObject {
 public:
  struct Attachment {
    Ref<const OpaqueCFString> key;
    Ref<const NSObject> value;
    CVAttachmentMode mode = kCVAttachmentMode_ShouldNotPropagate;
  };

  /// A buffer that returns to `store` when its last reference goes; with a null store it is freed. Null when there
  /// is no memory.
  static Ref<OpaqueCVBuffer> create(const CVPixelLayout& layout, std::shared_ptr<CVPixelBufferStore> store) noexcept;

  /// Not guarded against readers: the buffer's maker attaches before anyone else sees the buffer.
  void setAttachment(CFStringRef key, CFTypeRef value, CVAttachmentMode mode);
  void removeAllAttachments() noexcept;
  /// Keys are nearly always the frameworks' own constants: looks for the object itself before reading any text.
  const Attachment* attachment(CFStringRef key) const noexcept {
    for (const Attachment& entry : _attachments) {
      if (entry.key.get() == key) return &entry;
    }
    return attachmentByText(key);
  }

  CGSize displaySize() const noexcept { return _displaySize; }
  const CVPixelLayout& layout() const noexcept { return _layout; }

  void lock() noexcept { _lockCount.fetch_add(1, std::memory_order_relaxed); }
  /// False when the buffer was not locked.
  bool unlock() noexcept;
  /// Null while the buffer is not locked.
  void* baseAddress() const noexcept {
    return _lockCount.load(std::memory_order_relaxed) > 0 ? _pixels.get() : nullptr;
  }

 private:
  friend class CVPixelBufferStore;

  struct FreePixels {
    void operator()(std::byte* pixels) const noexcept { std::free(pixels); }
  };
  using Pixels = std::unique_ptr<std::byte, FreePixels>;

  OpaqueCVBuffer(const CVPixelLayout& layout, Pixels pixels, std::shared_ptr<CVPixelBufferStore> store);

  void dispose() override;
  [[gnu::noinline]] const Attachment* attachmentByText(CFStringRef key) const noexcept;
  void updateDisplaySize() noexcept;

  CVPixelLayout _layout;
  CGSize _displaySize;
  std::vector<Attachment> _attachments;
  std::atomic<std::uint32_t> _lockCount{0};
  Pixels _pixels;
  std::shared_ptr<CVPixelBufferStore> _store;
  OpaqueCVBuffer* _nextIdle = nullptr;  // the store's list of idle buffers; guarded by the store's lock
};
