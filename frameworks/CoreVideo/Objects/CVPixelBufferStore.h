#pragma once

// The idle buffers of one pool, and the count of those that are out.

#include <CoreVideo/Objects/OpaqueCVBuffer.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

/// Shared by a pool and its buffers, because either may live longer. Closed by the pool's end: from then on
/// a returning buffer is freed. Any thread; the lock is held for a few pointer moves only.
class CVPixelBufferStore : public std::enable_shared_from_this<CVPixelBufferStore> {
 public:
  explicit CVPixelBufferStore(const CVPixelLayout& layout) noexcept : _layout(layout) {}

  /// Makes idle buffers, as many as there is memory for. Before the store is shared.
  void makeIdle(std::size_t count) noexcept;

  /// An idle buffer or a new one. kCVReturnWouldExceedAllocationThreshold when `limit` buffers or more are out.
  CVReturn take(std::uint64_t limit, Ref<OpaqueCVBuffer>* bufferOut) noexcept;

  /// Takes in a buffer without references, which has no attachments and no locks any more. The caller holds the store.
  void giveBack(OpaqueCVBuffer* buffer) noexcept;

  /// Frees the idle buffers and keeps none from here on. The handler is not running any more and will not run.
  void close() noexcept;

  /// See CVPixelBufferPoolSetFreeBufferHandler.
  void setFreeBufferHandler(std::function<void()> handler);

 private:
  const CVPixelLayout _layout;
  std::mutex _mutex;
  OpaqueCVBuffer* _idle = nullptr;  // the one returned last comes first: its bytes are the likeliest in cache
  std::uint64_t _outCount = 0;
  bool _closed = false;
  bool _isAwaited = false;

  std::mutex _handlerLock;  // held while the handler runs
  std::function<void()> _freeBufferHandler;
};
