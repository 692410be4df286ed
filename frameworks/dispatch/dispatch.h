#pragma once

// Serial queues. A queue runs its items one at a time, in the order in which they were added, on a thread
// of its own that starts with the first item that cannot run on its caller's. Concurrent queues, groups,
// timers and priorities are not modelled. A null queue or item is ignored; an item must not throw.

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef struct OpaqueDispatchQueue* dispatch_queue_t;
typedef void* dispatch_queue_attr_t;
typedef void (*dispatch_function_t)(void* context);

#define DISPATCH_QUEUE_SERIAL ((dispatch_queue_attr_t)0)

/// A new serial queue, which the caller releases. `label` is copied and may be null; `attributes` is not read.
dispatch_queue_t dispatch_queue_create(const char* label, dispatch_queue_attr_t attributes);

/// Gives a reference back. Items that still wait keep the queue and run; nothing blocks here but, at the
/// last reference, the end of an already finished thread. After the last reference, the items that still
/// run may add further ones, but not retain the queue again.
void dispatch_release(dispatch_queue_t queue);

/// Adds an item and returns. The queue keeps itself until the item has run. Does not allocate once the
/// queue has held as many items before; when memory or threads run out before that, it throws std::bad_alloc or
/// std::system_error, and nothing has been added.
void dispatch_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work);

/// Runs an item after everything added before it, and returns when it has run; on an idle queue it runs
/// on the calling thread, else on the queue's. Called from an item of the same queue, or from what such an
/// item runs synchronously elsewhere, it could never return: the process is aborted with a message that
/// names the queue. Out of memory, it runs when the queue has nothing else to do.
void dispatch_sync_f(dispatch_queue_t queue, void* context, dispatch_function_t work);

/// True while the calling thread runs an item of this queue, also from what that item runs synchronously on
/// another queue.
bool dispatch_queue_is_current(dispatch_queue_t queue);

CF_EXTERN_C_END

#ifdef __cplusplus

#include <memory>
#include <type_traits>

/// Adds an item as dispatch_async_f does, in two steps, for a caller whose lock the item takes: the first under the
/// lock, which keeps the order; the second after it, so that the queue's thread does not run into the lock. When the
/// first returns true, the second must follow; until then the caller holds the queue. The first throws as
/// dispatch_async_f does.
[[nodiscard]] bool dispatch_enqueue_f(dispatch_queue_t queue, void* context, dispatch_function_t work);
void dispatch_wake(dispatch_queue_t queue);

/// Runs `block` as dispatch_sync_f does.
template <typename Block>
void dispatch_sync(dispatch_queue_t queue, Block&& block) {
  using Callable = std::remove_reference_t<Block>;
  dispatch_sync_f(queue, const_cast<void*>(static_cast<const void*>(std::addressof(block))),
                  [](void* context) { (*static_cast<Callable*>(context))(); });
}

#endif
