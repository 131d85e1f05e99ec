#include "tal/Buffer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

using Bytes = tal::TBuffer<unsigned char>;

namespace {

std::string text(Bytes const &b) {
  return std::string(reinterpret_cast<char const *>(b.getData()), static_cast<std::size_t>(b.getUsed()));
}

void put(Bytes &b, char const *s) {
  b.init(reinterpret_cast<unsigned char const *>(s), static_cast<int>(std::strlen(s)));
}

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

TEST(BufferTest, AssignAndConversions) {
  Bytes source;
  put(source, "assigned");
  Bytes target(0, 2);
  target.setAllocAlignBytes(8);
  target.assign(source);
  EXPECT_EQ(text(target), "assigned");
  EXPECT_EQ(target.getAllocated(), source.getAllocated());
  EXPECT_EQ(target.getAllocAlignBytes(), 8);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(target.getData()) % 8, 0u);
  unsigned char* raw = target;
  EXPECT_EQ(raw, target.getData());
  Bytes const& constant = target;
  unsigned char const* constRaw = constant;
  EXPECT_EQ(constRaw, target.getData());
  EXPECT_EQ(constant[1], 's');
  EXPECT_EQ(target.getFreePtr(), target.getData() + target.getUsed());
}

TEST(BufferTest, CharBuffersWorkTheSame) {
  tal::TBuffer<char> b;
  b.init("text", 4);
  b.insert(4, "!", 1);
  EXPECT_EQ(std::string(b.getData(), static_cast<std::size_t>(b.getUsed())), "text!");
}

// ---- more of the operations table ------------------------------------------------

/// Records what deleteData receives.
struct CRecordingBuffer : Bytes {
  std::vector<int> freedSizes;
  std::vector<unsigned char*> freedBlocks;
  void deleteData(unsigned char* allocation, int size) override {
    freedBlocks.push_back(allocation);
    freedSizes.push_back(size);
    Bytes::deleteData(allocation, size);
  }
  ~CRecordingBuffer() override { clear(); }
};

TEST(BufferTest, ADefaultBufferIsEmpty) {
  Bytes b;
  EXPECT_EQ(b.getData(), nullptr);
  EXPECT_EQ(b.getUsed(), 0);
  EXPECT_EQ(b.getAllocated(), 0);
  EXPECT_EQ(b.getFree(), 0);
  EXPECT_EQ(b.getAllocAlignBytes(), 1);
  EXPECT_TRUE(b.ownsData());
  EXPECT_EQ(b.getMinGrowFactor(), 0.0);
  EXPECT_EQ(b.getRefCount(), 1);
  EXPECT_EQ(b.getReallocationCount(), 0);
}

TEST(BufferTest, ConstructorCapacityIsTheLargerOfUsedAndAllocate) {
  Bytes more(10, 4);
  EXPECT_EQ(more.getUsed(), 10);
  EXPECT_EQ(more.getAllocated(), 10);
  Bytes none(0, -1);
  EXPECT_EQ(none.getAllocated(), 0);
  EXPECT_EQ(none.getData(), nullptr);
  unsigned char const src[] = {1, 2, 3, 4};
  Bytes exact(src, 4);
  EXPECT_EQ(exact.getAllocated(), 4);
  EXPECT_EQ(exact.getUsed(), 4);
  EXPECT_EQ(exact[3], 4);
}

TEST(BufferTest, GrowthTruncatesTheFactorAndNeverGivesLessThanNeeded) {
  Bytes b(0, 10);
  b.setMinGrowFactor(1.55);
  b.setUsed(10);
  b.addUsed(1); // 10 x 1.55 = 15.5, truncated to 15
  EXPECT_EQ(b.getAllocated(), 15);
  b.addUsed(40); // needs 51, more than 15 x 1.55
  EXPECT_EQ(b.getAllocated(), 51);
  EXPECT_EQ(b.getUsed(), 51);
  Bytes exact(0, 8);
  exact.setUsed(8);
  exact.ensureFree(3);
  EXPECT_EQ(exact.getAllocated(), 11);
  EXPECT_EQ(exact.getUsed(), 8);
  exact.ensureFree(3); // enough already
  EXPECT_EQ(exact.getAllocated(), 11);
  exact.ensureAllocated(20);
  EXPECT_EQ(exact.getAllocated(), 20);
}

TEST(BufferTest, DeleteDataReceivesTheWholeBlockIncludingAlignmentSlack) {
  std::vector<int> sizes;
  {
    CRecordingBuffer b;
    b.setAllocAlignBytes(32); // no block yet: nothing to realign
    EXPECT_EQ(b.getData(), nullptr);
    EXPECT_EQ(b.getReallocationCount(), 0);
    b.setUsed(10);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(b.getData()) % 32, 0u);
    b.setUsed(20);
    ASSERT_EQ(b.freedSizes.size(), 1u);
    EXPECT_EQ(b.freedSizes[0], 10 + 32 - 1);
    b.setAllocAlignBytes(32); // unchanged: no reallocation
    EXPECT_EQ(b.freedSizes.size(), 1u);
    b.setAllocAlignBytes(1); // below 2: stored, the block is kept
    EXPECT_EQ(b.freedSizes.size(), 1u);
    EXPECT_EQ(b.getAllocAlignBytes(), 1);
    b.alloc(25);
    ASSERT_EQ(b.freedSizes.size(), 2u);
    EXPECT_EQ(b.freedSizes[1], 20 + 32 - 1);
    sizes = b.freedSizes;
    b.clear();
    ASSERT_EQ(b.freedSizes.size(), 3u);
    EXPECT_EQ(b.freedSizes[2], 25); // allocated with alignment 1
    sizes = b.freedSizes;
  }
  EXPECT_EQ(sizes.size(), 3u);
}

TEST(BufferTest, AttachingFreesTheOwnBlockFirst) {
  unsigned char foreign[4] = {9, 8, 7, 6};
  CRecordingBuffer b;
  b.setUsed(6);
  unsigned char* const own = b.getData();
  b.attachNoDelete(foreign, 4);
  ASSERT_EQ(b.freedBlocks.size(), 1u);
  EXPECT_EQ(b.freedBlocks[0], own);
  EXPECT_EQ(b.getData(), foreign);
  b.clear(); // never frees the foreign memory
  EXPECT_EQ(b.freedBlocks.size(), 1u);
  EXPECT_TRUE(b.ownsData());
  EXPECT_EQ(b.getUsed(), 0);
  b.attachNoDelete(foreign, 4);
  b.alloc(2); // a new owned block; the foreign one is dropped
  EXPECT_EQ(b.freedBlocks.size(), 1u);
  EXPECT_TRUE(b.ownsData());
  EXPECT_EQ(b.getUsed(), 2);
  EXPECT_EQ(b[0], 9);
  EXPECT_EQ(b[1], 8);
}

TEST(BufferTest, InsertAtEitherEndAndWhileGrowing) {
  Bytes b;
  put(b, "mid");
  b.insert(0, "<<", 2);
  EXPECT_EQ(text(b), "<<mid");
  b.insert(b.getUsed(), ">>", 2);
  EXPECT_EQ(text(b), "<<mid>>");
  b.insert(3, "", 0);
  EXPECT_EQ(text(b), "<<mid>>");
  EXPECT_EQ(b.getAllocated(), 7);
}

TEST(BufferTest, MoveHandlesOverlapBothWays) {
  Bytes b;
  put(b, "abcdefgh");
  b.move(2, 0, 5); // forward, overlapping
  EXPECT_EQ(text(b), "ababcdeh");
  put(b, "abcdefgh");
  b.move(0, 2, 5); // backward, overlapping
  EXPECT_EQ(text(b), "cdefgfgh");
}

TEST(BufferTest, AllocKeepsWhatFitsAndFreePointers) {
  Bytes b;
  put(b, "keep");
  b.alloc(10);
  EXPECT_EQ(b.getAllocated(), 10);
  EXPECT_EQ(text(b), "keep");
  EXPECT_EQ(b.getFreePtr(), b.getData() + 4);
  unsigned char* const before = b.getData();
  EXPECT_EQ(b.getFreePtr(6), before + 4); // fits: no reallocation
  b.alloc(1); // shrinking keeps what fits
  EXPECT_EQ(b.getAllocated(), 1);
  EXPECT_EQ(text(b), "k");
}

TEST(BufferTest, AssignmentToItselfAndEquality) {
  Bytes b;
  put(b, "same");
  Bytes& alias = b;
  b = alias;
  EXPECT_EQ(text(b), "same");
  Bytes other(4, 100);
  std::memcpy(other.getData(), "same", 4);
  EXPECT_TRUE(b.equals(other));
  other[3] = 'E';
  EXPECT_FALSE(b == other);
  EXPECT_TRUE(b != other);
  tal::TBuffer<char> chars;
  chars.init("text", 4);
  EXPECT_EQ(std::string(chars.getData(), 4), "text");
}

TEST(BufferTest, SliceDefaultsAndEmptySlices) {
  tal::TConstBufferSlice<unsigned char> empty;
  EXPECT_EQ(empty.getBuffer(), nullptr);
  EXPECT_EQ(empty.getData(), nullptr);
  EXPECT_EQ(empty.getStart(), 0);
  EXPECT_EQ(empty.getLength(), 0);
  tal::TConstBufferSlice<unsigned char> noBuffer(static_cast<Bytes const*>(nullptr));
  EXPECT_EQ(noBuffer.getLength(), 0);
  tal::P<Bytes> b = tal::newObj<Bytes>();
  put(*b, "abc");
  {
    tal::TConstBufferSlice<unsigned char> nothing(b.get(), 3, 0);
    EXPECT_EQ(nothing.getData(), b->getData() + 3);
    EXPECT_EQ(nothing.getLength(), 0);
    tal::TConstBufferSlice<unsigned char> copy = nothing;
    EXPECT_EQ(b->getRefCount(), 3);
  }
  EXPECT_EQ(b->getRefCount(), 1);
}

} // namespace
