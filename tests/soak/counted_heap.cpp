#include "counted_heap.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long long> g_liveBytes{0};
std::atomic<long long> g_liveBlocks{0};
constexpr std::size_t kHeader = 16;

void* countedAllocate(std::size_t size) {
  void* block = malloc(size + kHeader);
  if (block == nullptr) {
    return nullptr;
  }
  *static_cast<std::size_t*>(block) = size;
  g_liveBytes.fetch_add(static_cast<long long>(size), std::memory_order_relaxed);
  g_liveBlocks.fetch_add(1, std::memory_order_relaxed);
  return static_cast<char*>(block) + kHeader;
}

void countedFree(void* pointer) {
  if (pointer == nullptr) {
    return;
  }
  void* block = static_cast<char*>(pointer) - kHeader;
  g_liveBytes.fetch_sub(static_cast<long long>(*static_cast<std::size_t*>(block)),
                        std::memory_order_relaxed);
  g_liveBlocks.fetch_sub(1, std::memory_order_relaxed);
  free(block);
}

}  // namespace

void* operator new(std::size_t size) {
  void* pointer = countedAllocate(size);
  if (pointer == nullptr) {
    throw std::bad_alloc();
  }
  return pointer;
}
void* operator new[](std::size_t size) {
  return operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return countedAllocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return countedAllocate(size);
}
void operator delete(void* pointer) noexcept {
  countedFree(pointer);
}
void operator delete[](void* pointer) noexcept {
  countedFree(pointer);
}
void operator delete(void* pointer, std::size_t) noexcept {
  countedFree(pointer);
}
void operator delete[](void* pointer, std::size_t) noexcept {
  countedFree(pointer);
}
void operator delete(void* pointer, const std::nothrow_t&) noexcept {
  countedFree(pointer);
}
void operator delete[](void* pointer, const std::nothrow_t&) noexcept {
  countedFree(pointer);
}

namespace velmora {
namespace soak {

long long liveHeapBytes() {
  return g_liveBytes.load();
}

long long liveHeapBlocks() {
  return g_liveBlocks.load();
}

}  // namespace soak
}  // namespace velmora
