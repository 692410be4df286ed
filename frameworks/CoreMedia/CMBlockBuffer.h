#pragma once

// Bytes of a sample, in one piece or several. Counted; the bytes do not move while the buffer lives.

#include <CoreFoundation/CFBase.h>

CF_EXTERN_C_BEGIN

typedef struct OpaqueCMBlockBuffer* CMBlockBufferRef;
typedef uint32_t CMBlockBufferFlags;

enum {
  kCMBlockBufferNoErr = 0,
  kCMBlockBufferStructureAllocationFailedErr = -12700,
  kCMBlockBufferBlockAllocationFailedErr = -12701,
  kCMBlockBufferBadCustomBlockSourceErr = -12702,
  kCMBlockBufferBadOffsetParameterErr = -12703,
  kCMBlockBufferBadLengthParameterErr = -12704,
  kCMBlockBufferBadPointerParameterErr = -12705,
  kCMBlockBufferEmptyBBufErr = -12706,
};

/// How to give back a memory block that the buffer did not allocate. Only FreeBlock is called, once, when the buffer
/// goes.
typedef struct CMBlockBufferCustomBlockSource {
  uint32_t version;
  void* (*AllocateBlock)(void* refCon, size_t sizeInBytes);
  void (*FreeBlock)(void* refCon, void* doomedMemoryBlock, size_t sizeInBytes);
  void* refCon;
} CMBlockBufferCustomBlockSource;

/// A buffer without bytes, to which pieces are appended.
OSStatus CMBlockBufferCreateEmpty(CFAllocatorRef structureAllocator, uint32_t subBlockCapacity,
                                  CMBlockBufferFlags flags, CMBlockBufferRef* blockBufferOut);

/// A buffer over `blockLength` bytes, of which `dataLength` from `offsetToData` are its data. With a null
/// `memoryBlock` it allocates them (16-byte aligned, not cleared); otherwise it uses the given ones and gives them back
/// through `customBlockSource` (may be null: then the memory is not the buffer's to free; not allowed without a
/// `memoryBlock`). On an error the given memory stays the caller's. A zero `blockLength` is a bad length; `dataLength`
/// may be 0.
OSStatus CMBlockBufferCreateWithMemoryBlock(CFAllocatorRef structureAllocator, void* memoryBlock, size_t blockLength,
                                            CFAllocatorRef blockAllocator,
                                            const CMBlockBufferCustomBlockSource* customBlockSource,
                                            size_t offsetToData, size_t dataLength, CMBlockBufferFlags flags,
                                            CMBlockBufferRef* blockBufferOut);

/// Appends a piece of memory, as CMBlockBufferCreateWithMemoryBlock would make one. Only while the buffer is being
/// built.
OSStatus CMBlockBufferAppendMemoryBlock(CMBlockBufferRef theBuffer, void* memoryBlock, size_t blockLength,
                                        CFAllocatorRef blockAllocator,
                                        const CMBlockBufferCustomBlockSource* customBlockSource, size_t offsetToData,
                                        size_t dataLength, CMBlockBufferFlags flags);

size_t CMBlockBufferGetDataLength(CMBlockBufferRef theBuffer);

/// Pointer to the byte at `offset`, how many bytes follow it in one piece, and the total length. Each out
/// argument may be null.
OSStatus CMBlockBufferGetDataPointer(CMBlockBufferRef theBuffer, size_t offset, size_t* lengthAtOffsetOut,
                                     size_t* totalLengthOut, char** dataPointerOut);

/// True when `length` bytes from `offset` are in one piece; length 0 stands for the rest.
Boolean CMBlockBufferIsRangeContiguous(CMBlockBufferRef theBuffer, size_t offset, size_t length);

OSStatus CMBlockBufferCopyDataBytes(CMBlockBufferRef theSourceBuffer, size_t offsetToData, size_t dataLength,
                                    void* destination);

CF_EXTERN_C_END
