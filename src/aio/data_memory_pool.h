// Pooled memory of one bound socket: records for queued requests and the fourteen size
// classes of blocks that hold copies of outgoing data.
//
// The pools are Boost.Pool pools with the new/delete allocator; they never throw (the
// allocator uses nothrow new) and report exhaustion as a null block. Every pool starts by
// growing 32 chunks at a time.
#ifndef OXA_SRC_AIO_DATA_MEMORY_POOL_H_
#define OXA_SRC_AIO_DATA_MEMORY_POOL_H_

#include <stddef.h>

#include <boost/pool/pool.hpp>

namespace oxa::internal {

// Chunks a pool asks the system for the first time it grows.
constexpr size_t kPoolGrowthChunks = 32;

// A pool of fixed-size chunks that can give its wholly free blocks back to the system even
// though chunks come back in any order: Boost's release_memory needs a free list sorted by
// address, and keeping it sorted on every free would make each free walk the list. The sort
// is done only when a trim asks for it.
class TrimmablePool : public boost::pool<boost::default_user_allocator_new_delete> {
 public:
  explicit TrimmablePool(size_t chunk_bytes) : pool(chunk_bytes, kPoolGrowthChunks) {}

  // Gives every block none of whose chunks is in use back to the system.
  void Trim();

 private:
  void SortFreeList();
};

// Records of queued requests come from plain pools: they are never trimmed.
using RecordPool = boost::pool<boost::default_user_allocator_new_delete>;

// Fourteen pools of data blocks, one per size class.
class CDataMemoryPool {
 public:
  static constexpr int kClassCount = 14;
  static constexpr int kLargestClass = 16384;

  CDataMemoryPool();

  // The block size class of a length of 1..16384 bytes (the smallest class that holds it),
  // or 0 outside that range.
  static int ClassBytes(int length);

  // A block of the class of `length`, or null when the pool is exhausted.
  void* Take(int length);
  // Gives back a block taken for the same length.
  void Give(void* block, int length);
  // Gives every wholly free block of all fourteen pools back to the system.
  void Trim();

 private:
  static int ClassIndex(int length);

  TrimmablePool pools_[kClassCount];
};

}  // namespace oxa::internal

#endif  // OXA_SRC_AIO_DATA_MEMORY_POOL_H_
