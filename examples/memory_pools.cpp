// Memory pools: a fixed-size pool lending and taking blocks back, an overrun caught by the
// guard bytes, the leak report a pool prints when it goes, and the global pool's size classes.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "oxa_frame.h"
#include "oxa_memory.h"

namespace {

void LendAndTakeBack() {
  std::printf("-- a pool of 64-byte blocks: 2 made at once, at most 4\n");
  OXA_MemoryPool pool(64, 2, 4, 1, -1, 0);
  void* blocks[5];
  for (void*& block : blocks) {
    block = pool.Alloc();
    std::printf("Alloc -> %p  (pool %u bytes, %u idle)\n", block, pool.Size(), pool.IdleSize());
  }
  pool.Free(blocks[1]);
  pool.Free(blocks[2]);
  std::printf("returned %p and %p; the next Alloc gets the latest one back: %p\n", blocks[1],
              blocks[2], pool.Alloc());
  char foreign[64];
  pool.Free(foreign);
  std::printf("a pointer the pool never lent is ignored: still %u idle bytes\n", pool.IdleSize());
  pool.Free(blocks[0]);
  pool.Free(blocks[2]);
  pool.Free(blocks[3]);
}

void OverrunCaught() {
  std::printf("\n-- one byte written past a block\n");
  oxa::CMemoryBlock block(8);
  char* user = block.Ptr(0);
  std::memset(user, 'x', 9);
  std::printf("BoundaryOverflow: %s\n%s\n", block.BoundaryOverflow() ? "true" : "false",
              block.ToString().c_str());
  std::fflush(stdout);
  std::printf("a pool with boundary checks aborts when such a block comes back:\n");
  std::fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    OXA_MemoryPool checked(8, 1, 1, 1, -1, 0);
    char* p = static_cast<char*>(checked.Alloc());
    std::memset(p, 'x', 9);
    checked.Free(p);  // the assertion fires here
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  std::printf("the child ended by signal %d (%s)\n", WIFSIGNALED(status) ? WTERMSIG(status) : 0,
              WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT ? "abort" : "unexpected");
}

void LeakReport() {
  std::printf("\n-- a pool destroyed while one block is still lent\n");
  std::fflush(stdout);
  OXA_MemoryPool* pool = OXA_MemoryPool_Create(32, 0, 4, 0, -1, 0);
  OXA_MemoryPool_Alloc(pool);
  OXA_MemoryPool_Free(pool, OXA_MemoryPool_Alloc(pool));
  OXA_MemoryPool_Destroy(pool);
}

void GlobalClasses() {
  std::printf("\n-- the global pool: five size classes under one limit\n");
  OXA_Init();
  OXA_MemoryPoolGlobal_Init(64u << 20);
  std::printf("after set-up: %u bytes in the initial chunks\n", OXA_MemoryPoolGlobal_Size());
  const unsigned int sizes[] = {100, 500, 501, 6000, 60000, 600000, 10485760, 10485761};
  for (unsigned int size : sizes) {
    unsigned int chunk = size;
    const bool has_class = oxa::OXA_GetMemoryPoolEx(chunk) != nullptr;
    void* p = OXA_MemoryPoolGlobal_Alloc(size);
    std::printf("%8u bytes -> %s (chunk %u)\n", size, p != nullptr ? "lent" : "null",
                has_class ? chunk : 0);
    OXA_MemoryPoolGlobal_Free(p);
  }
  std::printf("idle after freeing all: %u of %u bytes\n", OXA_MemoryPoolGlobal_IdleSize(),
              OXA_MemoryPoolGlobal_Size());
  OXA_Fini();  // the last stop tears the global pool down
  std::printf("after OXA_Fini: %u bytes\n", OXA_MemoryPoolGlobal_Size());
}

}  // namespace

int main() {
  LendAndTakeBack();
  OverrunCaught();
  LeakReport();
  GlobalClasses();
  return 0;
}
