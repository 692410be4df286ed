#include <CoreMedia/CMBlockBuffer.h>

#include <CoreMedia/Memory/CMMemoryCache.h>
#include <runtime/NSObject.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

namespace {

// No sample comes near this; a larger request is a mistake in a length.
constexpr std::size_t LargestOwnBlock = std::size_t{1} << 31;
constexpr std::size_t LargestPieceReserve = 64;

/// A memory block and the run of data in it. Not an owner by itself: `giveBack` ends the block.
struct Piece {
  char* data = nullptr;
  std::size_t length = 0;
  void* block = nullptr;
  std::size_t blockLength = 0;
  bool isOwn = false;
  CMBlockBufferCustomBlockSource source{};

  void giveBack() noexcept {
    if (isOwn) {
      CMMemoryCache::free(block, blockLength);
    } else if (source.FreeBlock) {
      source.FreeBlock(source.refCon, block, blockLength);
    }
  }
};

/// Checks the arguments that creating and appending have in common, and allocates when the caller brings no memory.
OSStatus makePiece(void* memoryBlock, std::size_t blockLength, const CMBlockBufferCustomBlockSource* source,
                   std::size_t offsetToData, std::size_t dataLength, Piece* pieceOut) noexcept {
  if (blockLength == 0) return kCMBlockBufferBadLengthParameterErr;
  if (offsetToData > blockLength) return kCMBlockBufferBadOffsetParameterErr;
  if (dataLength > blockLength - offsetToData) return kCMBlockBufferBadLengthParameterErr;
  if (source && (source->version != 0 || !memoryBlock)) return kCMBlockBufferBadCustomBlockSourceErr;

  Piece piece{.length = dataLength, .block = memoryBlock, .blockLength = blockLength};
  if (source) piece.source = *source;
  if (!memoryBlock) {
    piece.isOwn = true;
    piece.block = blockLength <= LargestOwnBlock ? CMMemoryCache::allocate(blockLength) : nullptr;
    if (!piece.block) return kCMBlockBufferBlockAllocationFailedErr;
  }
  piece.data = static_cast<char*>(piece.block) + offsetToData;
  *pieceOut = piece;
  return kCMBlockBufferNoErr;
}

}  // namespace

struct OpaqueCMBlockBuffer final : public NSObject {
 public:
  /// A run of bytes in one piece.
  struct Span {
    char* data;
    std::size_t length;
  };

  OpaqueCMBlockBuffer() noexcept = default;
  ~OpaqueCMBlockBuffer() override {
    for (Piece& piece : _morePieces) piece.giveBack();
    if (_firstPiece.block) _firstPiece.giveBack();
  }

  static void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return CMMemoryCache::allocate(size); }
  static void operator delete(void* memory, std::size_t size) noexcept { CMMemoryCache::free(memory, size); }

  std::size_t length() const noexcept { return _length; }

  void reservePieces(std::size_t count) {
    if (count > 1) _morePieces.reserve(count - 1);
  }

  /// Takes the piece over, unless it throws.
  void append(const Piece& piece) {
    if (_firstPiece.block) {
      _morePieces.push_back(piece);
    } else {
      _firstPiece = piece;
    }
    _length += piece.length;
  }

  /// From `offset`, which lies inside the data, to the end of its piece.
  Span spanAt(std::size_t offset) const noexcept {
    if (offset < _firstPiece.length) return spanIn(_firstPiece, offset);
    offset -= _firstPiece.length;
    for (const Piece& piece : _morePieces) {
      if (offset < piece.length) return spanIn(piece, offset);
      offset -= piece.length;
    }
    return {nullptr, 0};
  }

 private:
  static Span spanIn(const Piece& piece, std::size_t offset) noexcept {
    return {piece.data + offset, piece.length - offset};
  }

  // Nearly every buffer is one piece: that one costs no list.
  Piece _firstPiece;
  std::vector<Piece> _morePieces;
  std::size_t _length = 0;
};

OSStatus CMBlockBufferCreateEmpty(CFAllocatorRef, uint32_t subBlockCapacity, CMBlockBufferFlags,
                                  CMBlockBufferRef* blockBufferOut) {
  if (!blockBufferOut) return kCMBlockBufferBadPointerParameterErr;
  *blockBufferOut = nullptr;
  auto buffer = Ref<OpaqueCMBlockBuffer>::adopt(new (std::nothrow) OpaqueCMBlockBuffer);
  if (!buffer) return kCMBlockBufferStructureAllocationFailedErr;
  try {
    buffer->reservePieces(std::min<std::size_t>(subBlockCapacity, LargestPieceReserve));
  } catch (const std::bad_alloc&) {
    return kCMBlockBufferStructureAllocationFailedErr;
  }
  *blockBufferOut = buffer.leak();
  return kCMBlockBufferNoErr;
}

OSStatus CMBlockBufferCreateWithMemoryBlock(CFAllocatorRef structureAllocator, void* memoryBlock, size_t blockLength,
                                            CFAllocatorRef blockAllocator,
                                            const CMBlockBufferCustomBlockSource* customBlockSource,
                                            size_t offsetToData, size_t dataLength, CMBlockBufferFlags flags,
                                            CMBlockBufferRef* blockBufferOut) {
  CMBlockBufferRef buffer = nullptr;
  OSStatus status = CMBlockBufferCreateEmpty(structureAllocator, 1, flags, blockBufferOut ? &buffer : nullptr);
  if (status != kCMBlockBufferNoErr) return status;
  *blockBufferOut = nullptr;
  status = CMBlockBufferAppendMemoryBlock(buffer, memoryBlock, blockLength, blockAllocator, customBlockSource,
                                          offsetToData, dataLength, flags);
  if (status == kCMBlockBufferNoErr) {
    *blockBufferOut = buffer;
  } else {
    buffer->release();
  }
  return status;
}

OSStatus CMBlockBufferAppendMemoryBlock(CMBlockBufferRef theBuffer, void* memoryBlock, size_t blockLength,
                                        CFAllocatorRef, const CMBlockBufferCustomBlockSource* customBlockSource,
                                        size_t offsetToData, size_t dataLength, CMBlockBufferFlags) {
  if (!theBuffer) return kCMBlockBufferBadPointerParameterErr;
  if (dataLength > SIZE_MAX - theBuffer->length()) return kCMBlockBufferBadLengthParameterErr;
  Piece piece;
  const OSStatus status = makePiece(memoryBlock, blockLength, customBlockSource, offsetToData, dataLength, &piece);
  if (status != kCMBlockBufferNoErr) return status;
  try {
    theBuffer->append(piece);
  } catch (const std::bad_alloc&) {
    // The caller's memory stays the caller's.
    if (piece.isOwn) piece.giveBack();
    return kCMBlockBufferStructureAllocationFailedErr;
  }
  return kCMBlockBufferNoErr;
}

size_t CMBlockBufferGetDataLength(CMBlockBufferRef theBuffer) {
  return theBuffer ? theBuffer->length() : 0;
}

OSStatus CMBlockBufferGetDataPointer(CMBlockBufferRef theBuffer, size_t offset, size_t* lengthAtOffsetOut,
                                     size_t* totalLengthOut, char** dataPointerOut) {
  if (!theBuffer) return kCMBlockBufferBadPointerParameterErr;
  if (theBuffer->length() == 0) return kCMBlockBufferEmptyBBufErr;
  if (offset >= theBuffer->length()) return kCMBlockBufferBadOffsetParameterErr;

  const OpaqueCMBlockBuffer::Span span = theBuffer->spanAt(offset);
  if (lengthAtOffsetOut) *lengthAtOffsetOut = span.length;
  if (totalLengthOut) *totalLengthOut = theBuffer->length();
  if (dataPointerOut) *dataPointerOut = span.data;
  return kCMBlockBufferNoErr;
}

Boolean CMBlockBufferIsRangeContiguous(CMBlockBufferRef theBuffer, size_t offset, size_t length) {
  if (!theBuffer || offset >= theBuffer->length()) return false;
  const std::size_t rest = theBuffer->length() - offset;
  if (length > rest) return false;
  return theBuffer->spanAt(offset).length >= (length == 0 ? rest : length);
}

OSStatus CMBlockBufferCopyDataBytes(CMBlockBufferRef theSourceBuffer, size_t offsetToData, size_t dataLength,
                                    void* destination) {
  if (!theSourceBuffer || !destination) return kCMBlockBufferBadPointerParameterErr;
  const std::size_t total = theSourceBuffer->length();
  if (total == 0) return kCMBlockBufferEmptyBBufErr;
  if (offsetToData > total) return kCMBlockBufferBadOffsetParameterErr;
  if (dataLength > total - offsetToData) return kCMBlockBufferBadLengthParameterErr;

  auto* out = static_cast<char*>(destination);
  while (dataLength > 0) {
    const OpaqueCMBlockBuffer::Span span = theSourceBuffer->spanAt(offsetToData);
    const std::size_t count = std::min(span.length, dataLength);
    std::memcpy(out, span.data, count);
    out += count;
    offsetToData += count;
    dataLength -= count;
  }
  return kCMBlockBufferNoErr;
}
