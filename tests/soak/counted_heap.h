// Heap accounting for the soak run: this program's replacements of every operator new and delete
// (through which the library's allocations go too) count the live blocks and bytes. They live in a
// translation unit of their own, apart from any new-expression, so that the compiler never sees a
// block from operator new reach free() through an inlined replacement.
#ifndef VELMORA_SOAK_COUNTED_HEAP_H
#define VELMORA_SOAK_COUNTED_HEAP_H

namespace velmora {
namespace soak {

/// Bytes in blocks allocated through operator new and not yet deleted.
long long liveHeapBytes();
/// Blocks allocated through operator new and not yet deleted.
long long liveHeapBlocks();

}  // namespace soak
}  // namespace velmora

#endif
