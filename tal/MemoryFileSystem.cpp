#include "tal/MemoryFileSystem.h"

#include "tal/PositionalStream.h"
#include "tal/ReadBlocks.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include <sys/mman.h>

namespace tal {
namespace {

std::string keyOf(CURI const& uri) { return uri.toNormalized().toString(true).toUTF8(); }

} // namespace

namespace {

/// A file's bytes. Up to 1 MiB they live in the C heap; beyond, in an
/// anonymous mapping that grows without copying (mremap) and asks for huge
/// pages, so that writing a large file costs about as much as writing it to
/// the page cache (fresh small pages cost a fault each). Bytes past the end
/// are never handed out: growing zero-fills what was not written.
class CByteStore {
public:
  CByteStore() = default;
  CByteStore(CByteStore const&) = delete;
  CByteStore& operator=(CByteStore const&) = delete;
  ~CByteStore() { release(); }

  unsigned char* data() { return m_data; }
  unsigned char const* data() const { return m_data; }
  std::size_t size() const { return m_size; }

  /// Makes the size `size`, zero-filling new bytes. Throws std::bad_alloc.
  void resize(std::size_t size) {
    if (size > m_size) {
      reserve(size);
      std::memset(m_data + m_size, 0, size - m_size);
    }
    m_size = size;
  }
  /// Writes `size` bytes at `offset`, growing (and zero-filling a gap) as needed. Throws std::bad_alloc.
  void write(std::size_t offset, void const* bytes, std::size_t size) {
    if (size == 0) return;
    if (offset > kMax || size > kMax - offset) throw std::bad_alloc();
    std::size_t const end = offset + size;
    if (end > m_size) {
      reserve(end);
      if (offset > m_size) std::memset(m_data + m_size, 0, offset - m_size);
      m_size = end;
    }
    std::memcpy(m_data + offset, bytes, size);
  }

private:
  static constexpr std::size_t kMax = std::size_t(1) << 46; // beyond any memory this process can have
  static constexpr std::size_t kHeapLimit = std::size_t(1) << 20;
  static constexpr std::size_t kHugePage = std::size_t(2) << 20;

  void reserve(std::size_t needed) {
    if (needed <= m_capacity) return;
    if (needed > kMax) throw std::bad_alloc();
    std::size_t capacity = std::max(needed, m_capacity + m_capacity / 2);
    if (capacity <= kHeapLimit) {
      capacity = std::max<std::size_t>(capacity, 64);
      void* grown = std::realloc(m_data, capacity);
      if (grown == nullptr) throw std::bad_alloc();
      m_data = static_cast<unsigned char*>(grown);
    } else {
      capacity = std::max(capacity, 2 * m_capacity);
      capacity = (capacity + kHugePage - 1) / kHugePage * kHugePage;
      void* mapped;
      if (m_mapped) {
        mapped = ::mremap(m_data, m_capacity, capacity, MREMAP_MAYMOVE);
      } else {
        mapped = ::mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      }
      if (mapped == MAP_FAILED) throw std::bad_alloc();
      ::madvise(mapped, capacity, MADV_HUGEPAGE); // a hint: without huge pages it works all the same
      if (!m_mapped) {
        if (m_size > 0) std::memcpy(mapped, m_data, m_size);
        std::free(m_data);
        m_mapped = true;
      }
      m_data = static_cast<unsigned char*>(mapped);
    }
    m_capacity = capacity;
  }
  void release() {
    if (m_mapped)
      ::munmap(m_data, m_capacity);
    else
      std::free(m_data);
    m_data = nullptr;
    m_size = m_capacity = 0;
    m_mapped = false;
  }

  unsigned char* m_data = nullptr;
  std::size_t m_size = 0;
  std::size_t m_capacity = 0;
  bool m_mapped = false;
};

} // namespace

/// One file's bytes, guarded by their own lock. Every change counts up the
/// file's version (under the lock), so a stream can tell without the lock
/// whether the bytes it has buffered are still the file's bytes.
class CMemoryFileSystem::CFile : public CBase {
public:
  std::size_t readAt(long long offset, void* buffer, std::size_t size) {
    CMutexLock lock(m_mutex);
    return copyOut(offset, buffer, size);
  }
  /// Like readAt, and gives the version the bytes belong to.
  std::size_t readAt(long long offset, void* buffer, std::size_t size, unsigned long long& version) {
    CMutexLock lock(m_mutex);
    version = m_version.load(std::memory_order_relaxed);
    return copyOut(offset, buffer, size);
  }
  void writeAt(long long offset, void const* data, std::size_t size) {
    CMutexLock lock(m_mutex);
    m_bytes.write(static_cast<std::size_t>(offset), data, size);
    changed();
  }
  long long size() const { return m_size.load(std::memory_order_acquire); }
  void truncate(long long length) {
    CMutexLock lock(m_mutex);
    m_bytes.resize(static_cast<std::size_t>(length));
    changed();
  }
  std::string copy() {
    CMutexLock lock(m_mutex);
    return std::string(reinterpret_cast<char const*>(m_bytes.data()), m_bytes.size());
  }
  void assign(std::string const& bytes) {
    CMutexLock lock(m_mutex);
    m_bytes.resize(0);
    m_bytes.write(0, bytes.data(), bytes.size());
    changed();
  }
  unsigned long long version() const { return m_version.load(std::memory_order_acquire); }

private:
  std::size_t copyOut(long long offset, void* buffer, std::size_t size) const {
    if (offset >= static_cast<long long>(m_bytes.size())) return 0;
    std::size_t n = std::min(size, m_bytes.size() - static_cast<std::size_t>(offset));
    std::memcpy(buffer, m_bytes.data() + offset, n);
    return n;
  }
  void changed() {
    m_size.store(static_cast<long long>(m_bytes.size()), std::memory_order_release);
    m_version.fetch_add(1, std::memory_order_acq_rel);
  }

  CMutex m_mutex;
  CByteStore m_bytes;
  std::atomic<unsigned long long> m_version{0};
  std::atomic<long long> m_size{0};
};

namespace {

/// Reads smaller than this go through a stream's read buffer of this size.
constexpr std::size_t kReadBufferSize = 64 * 1024;

/// A stream's view of a memory file. Small reads come from the stream's own
/// two buffers (CReadBlocks), each serving while the file's version is the one
/// it was filled at, so they take no lock; writes go straight to the file.
class CMemoryHandle : public CBase, public virtual IPositionalFile {
public:
  CMemoryHandle(P<CMemoryFileSystem::CFile> file, CURI const& uri, bool lengthUnknown)
      : m_file(std::move(file)), m_uri(uri), m_lengthUnknown(lengthUnknown) {}
  std::size_t readAt(long long offset, void* buffer, std::size_t size) override {
    if (size >= kReadBufferSize) return m_file->readAt(offset, buffer, size);
    // A read that runs past the buffer gets what the buffer holds (the stream asks again for the rest).
    return m_blocks.read(offset, m_file->version(), buffer, size,
                         [&](unsigned char* into, std::size_t capacity, unsigned long long& version) {
                           return m_file->readAt(offset, into, capacity, version);
                         });
  }
  void writeAt(long long offset, void const* data, std::size_t size) override {
    try {
      m_file->writeAt(offset, data, size);
    } catch (std::exception const&) { // bad_alloc or length_error: more than memory can hold
      throw CIOError(CIOError::WriteFailed, String("Cannot write file: Out of memory"), uriProps(m_uri), nullptr);
    }
  }
  long long size() override { return m_lengthUnknown ? -1 : m_file->size(); }
  void truncate(long long length) override {
    if (length < 0)
      throw CIOError(CIOError::SetLengthFailed, String("Cannot set file length: Negative length"), uriProps(m_uri),
                     nullptr);
    try {
      m_file->truncate(length);
    } catch (std::exception const&) { // bad_alloc or length_error
      throw CIOError(CIOError::SetLengthFailed, String("Cannot set file length: Out of memory"), uriProps(m_uri),
                     nullptr);
    }
  }
  void sync() override {} // nothing outlives the process's memory anyway
  void closeFile() override {
    m_file = nullptr;
    m_blocks.release();
  }

private:
  P<CMemoryFileSystem::CFile> m_file;
  CURI m_uri;
  bool m_lengthUnknown;
  CReadBlocks m_blocks{kReadBufferSize};
};

} // namespace

CMemoryFileSystem::CMemoryFileSystem() = default;
CMemoryFileSystem::~CMemoryFileSystem() = default;

P<CMemoryFileSystem::CFile> CMemoryFileSystem::find(CURI const& uri) const {
  CMutexLock lock(m_mutex);
  auto it = m_files.find(keyOf(uri));
  return it == m_files.end() ? P<CFile>() : it->second;
}

P<IInOutStream> CMemoryFileSystem::openStream(CURI const& uri, int access, int const& flags) {
  if (access != AccessRead && access != AccessReadWrite)
    throw CInvalidArgError(String("CMemoryFileSystem::openStream"), String("access must be 1 or 3"), uriProps(uri));
  P<CFile> file;
  bool lengthUnknown = false;
  {
    CMutexLock lock(m_mutex);
    P<CFile>& slot = m_files[keyOf(uri)];
    if (!slot && (flags & (OpenCreate | OpenCreateForRead))) slot = newObj<CFile>();
    file = slot;
    if (!file) m_files.erase(keyOf(uri));
    lengthUnknown = m_lengthUnknown;
  }
  if (!file) throw CIOError(CIOError::OpenFailed, String("Cannot open file: No such file"), uriProps(uri), nullptr);
  P<IPositionalFile> handle = P<IPositionalFile>::adopt(new CMemoryHandle(file, uri, lengthUnknown));
  return P<IInOutStream>::adopt(
      new CPositionalStream(handle, uri, access == AccessReadWrite, 0, "tal::CMemoryFileSystem::CStream", this));
}

bool CMemoryFileSystem::exists(CURI const& uri) { return find(uri) != nullptr; }

void CMemoryFileSystem::remove(CURI const& uri) {
  CMutexLock lock(m_mutex);
  if (m_files.erase(keyOf(uri)) == 0)
    throw CIOError(CIOError::DeleteFailed, String("Cannot delete file: No such file"), uriProps(uri), nullptr);
}

void CMemoryFileSystem::sync(IOutStream& stream) {
  auto* const positional = dynamic_cast<CPositionalStream*>(&stream);
  if (!positional || !positional->isOwnedBy(this))
    throw CInvalidArgError(String("CMemoryFileSystem::sync"),
                           String("the stream was not opened by this CMemoryFileSystem"), uriProps(stream.getURI()));
  positional->sync(); // StreamClosed once closed; otherwise nothing is pending
}

void CMemoryFileSystem::move(CURI const& from, CURI const& to) {
  std::string const fromKey = keyOf(from);
  std::string const toKey = keyOf(to);
  CMutexLock lock(m_mutex);
  auto const it = m_files.find(fromKey);
  if (it == m_files.end())
    throw CIOError(CIOError::MoveFailed, String("Cannot move file: No such file"), uriProps(from), nullptr);
  if (fromKey == toKey) return;
  P<CFile> const file = it->second;
  m_files[toKey] = file; // the replaced file lives on in the streams open on it
  m_files.erase(fromKey);
}

void CMemoryFileSystem::setFile(CURI const& uri, std::string bytes) {
  P<CFile> file = newObj<CFile>();
  file->assign(bytes);
  CMutexLock lock(m_mutex);
  m_files[keyOf(uri)] = file;
}

std::string CMemoryFileSystem::getFile(CURI const& uri) const {
  P<CFile> file = find(uri);
  if (!file) throw CIOError(CIOError::OpenFailed, String("Cannot open file: No such file"), uriProps(uri), nullptr);
  return file->copy();
}

void CMemoryFileSystem::setLengthUnknown(bool unknown) {
  CMutexLock lock(m_mutex);
  m_lengthUnknown = unknown;
}

} // namespace tal
