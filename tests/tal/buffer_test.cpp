#include "tal/Buffer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

using Bytes = tal::TBuffer<unsigned char>;

namespace {

std::string text(Bytes const& b) { return std::string(reinterpret_cast<char const*>(b.getData()), static_cast<std::size_t>(b.getUsed())); }

void put(Bytes& b, char const* s) { b.init(reinterpret_cast<unsigned char const*>(s), static_cast<int>(std::strlen(s))); }

TEST(BufferTest, GrowFactorDecidesHowOftenItReallocates) {
  Bytes exact;
  for (int i = 0; i < 10; ++i) exact.addUsed(1);
  EXPECT_EQ(exact.getReallocationCount(), 10);
  EXPECT_EQ(exact.getAllocated(), 10);
  Bytes doubling;
  doubling.setMinGrowFactor(2.0);
  for (int i = 0; i < 10; ++i) doubling.addUsed(1);
  EXPECT_LE(doubling.getReallocationCount(), 5);
  EXPECT_EQ(doubling.getUsed(), 10);
  EXPECT_EQ(doubling.getMinGrowFactor(), 2.0);
}

TEST(BufferTest, RealignKeepsContents) {
  Bytes b;
  put(b, "aligned contents");
  b.setAllocAlignBytes(16);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(b.getData()) % 16, 0u);
  EXPECT_EQ(text(b), "aligned contents");
  EXPECT_EQ(b.getAllocAlignBytes(), 16);
  b.addUsed(1000);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(b.getData()) % 16, 0u);
}

struct CCountingBuffer : Bytes {
  static int frees;
  void deleteData(unsigned char* allocation, int size) override {
    ++frees;
    Bytes::deleteData(allocation, size);
  }
  ~CCountingBuffer() override { clear(); } // free through this class while it still exists
};
int CCountingBuffer::frees = 0;

TEST(BufferTest, AttachedMemoryIsNeverFreed) {
  unsigned char foreign[8] = {'f', 'o', 'r', 'e', 'i', 'g', 'n', '!'};
  CCountingBuffer::frees = 0;
  {
    CCountingBuffer b;
    b.attachNoDelete(foreign, 8);
    EXPECT_FALSE(b.ownsData());
    EXPECT_EQ(b.getData(), foreign);
    EXPECT_EQ(b.getUsed(), 8);
    EXPECT_EQ(b.getAllocated(), 8);
    b.addUsed(4); // growth copies into an owned block and drops the foreign one
    EXPECT_TRUE(b.ownsData());
    EXPECT_NE(b.getData(), foreign);
    EXPECT_EQ(std::memcmp(b.getData(), foreign, 8), 0);
    EXPECT_EQ(CCountingBuffer::frees, 0);
  }
  EXPECT_EQ(CCountingBuffer::frees, 1); // only the owned copy
  {
    CCountingBuffer b;
    b.attachNoDelete(foreign, 8);
  }
  EXPECT_EQ(CCountingBuffer::frees, 1);
  EXPECT_EQ(foreign[0], 'f');
}

TEST(BufferTest, CopyTakesCapacityAndContentsNotAlignmentOrFactor) {
  Bytes b(5, 64);
  std::memcpy(b.getData(), "12345", 5);
  b.setAllocAlignBytes(16);
  b.setMinGrowFactor(2.0);
  Bytes copy(b);
  EXPECT_EQ(copy.getAllocAlignBytes(), 1);
  EXPECT_EQ(copy.getMinGrowFactor(), 0.0);
  EXPECT_EQ(copy.getAllocated(), 64);
  EXPECT_EQ(text(copy), "12345");
  Bytes assigned;
  assigned.setMinGrowFactor(3.0);
  assigned = b;
  EXPECT_EQ(assigned.getMinGrowFactor(), 3.0);
  EXPECT_EQ(assigned.getAllocated(), 64);
  EXPECT_TRUE(assigned == b);
}

TEST(BufferTest, EraseFromStartAndEquals) {
  Bytes b;
  put(b, "abcdef");
  int const capacity = b.getAllocated();
  b.eraseFromStart(2);
  EXPECT_EQ(text(b), "cdef");
  b.eraseFromStart(b.getUsed());
  EXPECT_EQ(b.getUsed(), 0);
  EXPECT_EQ(b.getAllocated(), capacity);
  Bytes small, large(0, 100);
  EXPECT_TRUE(small.equals(large));
  EXPECT_TRUE(small == large);
  put(small, "x");
  EXPECT_TRUE(small != large);
}

TEST(BufferTest, ConstructorsAndOperations) {
  Bytes sized(3);
  EXPECT_EQ(sized.getUsed(), 3);
  EXPECT_EQ(sized.getAllocated(), 3);
  Bytes withRoom(3, 10);
  EXPECT_EQ(withRoom.getAllocated(), 10);
  EXPECT_EQ(withRoom.getFree(), 7);
  unsigned char const source[] = {'h', 'e', 'y'};
  Bytes copied(source, 3, 8);
  EXPECT_EQ(text(copied), "hey");
  EXPECT_EQ(copied.getAllocated(), 8);
  copied.insert(1, "XY", 2);
  EXPECT_EQ(text(copied), "hXYey");
  copied.move(0, 3, 2);
  EXPECT_EQ(text(copied), "eyYey");
  copied.move(0, 1, 0);
  unsigned char* free = copied.getFreePtr(20);
  EXPECT_EQ(free, copied.getData() + copied.getUsed());
  EXPECT_GE(copied.getFree(), 20);
  copied.alloc(2);
  EXPECT_EQ(copied.getAllocated(), 2);
  EXPECT_EQ(text(copied), "ey");
  copied.clear();
  EXPECT_EQ(copied.getUsed(), 0);
  EXPECT_EQ(copied.getAllocated(), 0);
  EXPECT_EQ(copied.getData(), nullptr);
  copied.setUsed(4);
  EXPECT_EQ(copied.getAllocated(), 4);
  copied.ensureAllocated(2);
  EXPECT_EQ(copied.getAllocated(), 4);
  copied[0] = 'z';
  EXPECT_EQ(copied.getData()[0], 'z');
}

TEST(BufferTest, SlicesOfBuffers) {
  tal::P<Bytes> b = tal::newObj<Bytes>();
  put(*b, "slice me");
  tal::TConstBufferSlice<unsigned char> slice(b.get(), 2, 3);
  EXPECT_EQ(std::string(reinterpret_cast<char const*>(slice.getData()), 3), "ice");
  EXPECT_EQ(b->getRefCount(), 2); // the slice holds a reference
  tal::TConstBufferSlice<unsigned char> whole(b.get());
  EXPECT_EQ(whole.getLength(), 8);
  tal::TConstBufferSlice<unsigned char> none(nullptr, 0, 5);
  EXPECT_EQ(none.getData(), nullptr);
  EXPECT_EQ(none.getLength(), 5);
}

} // namespace
