// Byte buffers: tal::TBuffer, a growable counted array of plain elements, and
// tal::TConstBufferSlice, a read-only range inside one.
#pragma once

#include "tal/Object.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace tal {

/// Growable counted array of plain elements with separate used length and
/// capacity, optional alignment of the data start and a minimum growth factor.
/// No operation checks its indices or counts: callers pass valid values.
template <class T> class TBuffer : public CBase {
public:
  TBuffer() = default;
  /// Capacity max(used, allocate) (allocate -1: exactly `used`); contents uninitialised.
  TBuffer(int used, int allocate = -1) { setUsedAndCapacity(used, allocate); }
  /// As above, then the first `size` elements copied from `data`.
  TBuffer(T const* data, int size, int allocate = -1) {
    setUsedAndCapacity(size, allocate);
    init(data, size);
  }
  /// Same capacity, used count and contents; alignment 1 and grow factor 0.0.
  TBuffer(TBuffer const& other) : CBase() { assign(other); }
  TBuffer& operator=(TBuffer const& other) {
    if (this != &other) assign(other);
    return *this;
  }
  ~TBuffer() override { freeBlock(); }

  /// Frees a block the buffer owns; a subclass may free its own way.
  virtual void deleteData(T* allocation, int allocationSize) {
    (void)allocationSize;
    delete[] allocation;
  }

  /// Reallocates to other's capacity (own alignment and factor kept), then
  /// copies used count and contents.
  void assign(TBuffer const& other) {
    m_used = 0;
    alloc(other.m_allocated);
    m_used = other.m_used;
    copyElements(m_data, other.m_data, other.m_used);
  }
  void init(T const* data, int size) {
    ensureAllocated(size);
    m_used = size;
    copyElements(m_data, data, size);
  }
  /// Wraps foreign memory that the buffer never frees (it is copied on growth).
  void attachNoDelete(T* data, int size) {
    freeBlock();
    m_allocation = m_data = data;
    m_allocated = m_allocationSize = m_used = size;
    m_ownsData = false;
  }

  void setMinGrowFactor(double factor) { m_minGrowFactor = factor; }
  double getMinGrowFactor() const { return m_minGrowFactor; }
  int getAllocAlignBytes() const { return m_alignment; }
  /// Stores a new alignment; an existing block is realigned when bytes >= 2.
  void setAllocAlignBytes(int bytes) {
    if (bytes == m_alignment) return;
    m_alignment = bytes;
    if (m_allocation && bytes >= 2) alloc(m_allocated);
  }

  void clear() {
    freeBlock();
    m_allocation = m_data = nullptr;
    m_allocated = m_allocationSize = 0;
    m_used = std::min(m_used, 0);
    m_ownsData = true;
  }
  /// Reallocates to exactly `capacity`, keeping min(used, capacity) elements.
  void alloc(int capacity) { reallocate(capacity); }
  void ensureAllocated(int n) {
    if (m_allocated < n) grow(n);
  }
  void ensureFree(int n) {
    if (m_used + n > m_allocated) grow(m_used + n);
  }
  void setUsed(int n) {
    if (n > m_allocated) grow(n);
    m_used = n;
  }
  void addUsed(int n) {
    if (m_used + n > m_allocated) grow(m_used + n);
    m_used += n;
  }

  int getUsed() const { return m_used; }
  int getAllocated() const { return m_allocated; }
  int getFree() const { return m_allocated - m_used; }
  /// How many times the buffer has obtained a new block (for diagnostics and tests).
  int getReallocationCount() const { return m_reallocations; }
  bool ownsData() const { return m_ownsData; }

  T* getData() { return m_data; }
  T const* getData() const { return m_data; }
  operator T*() { return m_data; }
  operator T const*() const { return m_data; }
  T& operator[](int i) { return m_data[i]; }
  T const& operator[](int i) const { return m_data[i]; }
  T* getFreePtr() { return m_data + m_used; }
  T* getFreePtr(int n) {
    ensureFree(n);
    return m_data + m_used;
  }

  /// Opens a gap of n elements at pos and copies n elements from src into it.
  void insert(int pos, void const* src, int n) {
    ensureFree(n);
    int const oldUsed = m_used;
    m_used += n;
    move(pos + n, pos, oldUsed - pos);
    copyElements(m_data + pos, static_cast<T const*>(src), n);
  }
  /// Overlap-safe move of n elements inside the data.
  void move(int to, int from, int n) {
    if (n > 0) std::memmove(static_cast<void*>(m_data + to), m_data + from, sizeof(T) * static_cast<std::size_t>(n));
  }
  void eraseFromStart(int n) {
    move(0, n, m_used - n);
    m_used -= n;
  }

  bool equals(TBuffer const& other) const {
    return m_used == other.m_used &&
           (m_used == 0 || std::memcmp(m_data, other.m_data, sizeof(T) * static_cast<std::size_t>(m_used)) == 0);
  }
  bool operator==(TBuffer const& other) const { return equals(other); }
  bool operator!=(TBuffer const& other) const { return !equals(other); }

private:
  static void copyElements(T* to, T const* from, int n) {
    if (n > 0 && to && from) std::memcpy(static_cast<void*>(to), from, sizeof(T) * static_cast<std::size_t>(n));
  }
  void setUsedAndCapacity(int used, int allocate) {
    reallocate(allocate == -1 ? used : std::max(used, allocate));
    m_used = used;
  }
  void grow(int needed) {
    int const byFactor = static_cast<int>(static_cast<double>(m_allocated) * m_minGrowFactor);
    reallocate(std::max(needed, byFactor));
  }
  void reallocate(int capacity) {
    int const size = capacity > 0 ? capacity + m_alignment - 1 : 0;
    T* block = size > 0 ? new T[static_cast<std::size_t>(size)] : nullptr;
    T* data = block;
    if (block && m_alignment > 1) {
      auto const address = reinterpret_cast<std::uintptr_t>(block);
      auto const misalign = address % static_cast<std::uintptr_t>(m_alignment);
      if (misalign != 0)
        data = reinterpret_cast<T*>(reinterpret_cast<unsigned char*>(block) + (static_cast<std::uintptr_t>(m_alignment) - misalign));
    }
    int const kept = std::min(m_used, capacity);
    copyElements(data, m_data, kept);
    freeBlock();
    m_allocation = block;
    m_data = data;
    m_allocated = capacity;
    m_allocationSize = size;
    m_used = kept;
    m_ownsData = true;
    ++m_reallocations;
  }
  void freeBlock() {
    if (m_ownsData && m_allocation) deleteData(m_allocation, m_allocationSize);
  }

  T* m_allocation = nullptr;
  T* m_data = nullptr;
  int m_allocated = 0;
  int m_allocationSize = 0;
  int m_used = 0;
  int m_alignment = 1;
  bool m_ownsData = true;
  double m_minGrowFactor = 0.0;
  int m_reallocations = 0;
};

/// A read-only range [start, start + length) inside a counted buffer. A slice
/// without a buffer stands for a null data pointer.
template <class T> class TConstBufferSlice {
public:
  TConstBufferSlice() = default;
  TConstBufferSlice(TBuffer<T> const* buffer, int start, int length)
      : m_buffer(const_cast<TBuffer<T>*>(buffer)), m_start(start), m_length(length) {}
  /// The whole used part of `buffer`.
  explicit TConstBufferSlice(TBuffer<T> const* buffer) : TConstBufferSlice(buffer, 0, buffer ? buffer->getUsed() : 0) {}

  P<TBuffer<T>> const& getBuffer() const { return m_buffer; }
  int getStart() const { return m_start; }
  int getLength() const { return m_length; }
  /// The slice's first element, or null when it has no buffer.
  T const* getData() const { return m_buffer ? m_buffer->getData() + m_start : nullptr; }

private:
  P<TBuffer<T>> m_buffer;
  std::int32_t m_start = 0;
  std::int32_t m_length = 0;
};

} // namespace tal
