// A guarded heap block: 4 guard bytes of 0x16 on each side of the user bytes.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "oxa_memory.h"
#include "oxa_time.h"

#include "memory/pool_assert.h"

#if UINTPTR_MAX == 0xffffffffu
// Size, two pointers, flag, thread id, then the two 64-bit times at 8-byte alignment.
static_assert(sizeof(oxa::CMemoryBlock) == 40, "memory block layout is ABI");
#endif

namespace {

constexpr uint32_t kGuardWord = 0x16161616u;
constexpr unsigned int kGuardBytes = 4;
constexpr const char* kSource = "../memory_block";

// Wall-clock text of a tick: the tick moved onto the wall clock by the current difference
// between the two clocks (taken once per line), in OXA_CTime's fixed layout.
std::string WallText(oxa_uint64 tick_ms, oxa_int64 offset_us) {
  char text[50] = {0};
  OXA_CTime(text, 0, static_cast<oxa_int64>(tick_ms) * 1000 + offset_us);
  return text;
}

// The four bytes at `guard`, each as " 0x%x".
std::string GuardText(const char* guard) {
  std::string text;
  for (unsigned int i = 0; i < kGuardBytes; ++i) {
    char byte[8];
    snprintf(byte, sizeof byte, " 0x%x", static_cast<unsigned char>(guard[i]));
    text += byte;
  }
  return text;
}

}  // namespace

namespace oxa {

CMemoryBlock::CMemoryBlock(unsigned int size)
    : size_(size),
      alloc_(static_cast<char*>(malloc(static_cast<size_t>(size) + 2 * kGuardBytes))),
      user_(alloc_ != nullptr && size != 0 ? alloc_ + kGuardBytes : nullptr),
      m_bUsed(false),
      last_thread_(0),
      create_ms_(OXA_GetTimeTick64()),
      last_ms_(create_ms_) {
  ResetBoundary();
}

CMemoryBlock::~CMemoryBlock() { free(alloc_); }

char* CMemoryBlock::Ptr(OXA_HANDLE thread_id) { return Lend(thread_id, OXA_GetTimeTick64()); }

char* CMemoryBlock::Lend(OXA_HANDLE thread_id, oxa_uint64 now_ms) {
  OXA_POOL_ASSERT(!m_bUsed, "!m_bUsed", kSource, 25, "char* oxa::CMemoryBlock::Ptr(OXA_HANDLE)");
  m_bUsed = true;
  last_thread_ = thread_id;
  last_ms_ = now_ms;
  return user_;
}

void* CMemoryBlock::AllocPtr() const { return alloc_; }

void CMemoryBlock::Reset() {
  Return();
  last_ms_ = OXA_GetTimeTick64();
}

void CMemoryBlock::Return() {
  OXA_POOL_ASSERT(m_bUsed, "m_bUsed", kSource, 37, "void oxa::CMemoryBlock::Reset()");
  m_bUsed = false;
}

bool CMemoryBlock::BoundaryOverflow() const {
  uint32_t tail;
  uint32_t head;
  memcpy(&tail, alloc_ + kGuardBytes + size_, sizeof tail);  // not necessarily aligned
  if (tail != kGuardWord) return true;
  memcpy(&head, alloc_, sizeof head);
  return head != kGuardWord;
}

void CMemoryBlock::ResetBoundary() {
  if (alloc_ == nullptr || user_ == nullptr) return;
  memcpy(alloc_, &kGuardWord, sizeof kGuardWord);
  memcpy(user_ + size_, &kGuardWord, sizeof kGuardWord);
}

oxa_int64 CMemoryBlock::TimeOffset(oxa_uint64 tick) const {
  OXA_POOL_ASSERT(!m_bUsed, "!m_bUsed", kSource, 71,
                  "oxa_int64 oxa::CMemoryBlock::TimeOffset(oxa_uint64) const");
  return static_cast<oxa_int64>(last_ms_ - tick);
}

std::string CMemoryBlock::ToString() const {
  const oxa_int64 offset_us = OXA_TimeNow() - static_cast<oxa_int64>(OXA_GetTimeTick64()) * 1000;
  // "0x%p" doubles the prefix, since %p writes its own 0x; the text is kept as it stands.
  char head[200];
  snprintf(head, sizeof head,
           "{ \"BlockSize\": %u, \"Alloc\": \"0x%p\", \"User\": \"0x%p\", \"Used\": %s, "
           "\"LastThreadId\": \"0x%p\"",
           size_, static_cast<void*>(alloc_), static_cast<void*>(user_), m_bUsed ? "true" : "false",
           reinterpret_cast<void*>(last_thread_));
  std::string text = head;
  text += ", \"CreateTime\": \"" + WallText(create_ms_, offset_us) + "\"";
  text += ", \"LastTime\": \"" + WallText(last_ms_, offset_us) + "\"";
  // A block without a heap buffer has no guards to show.
  const bool has_buffer = alloc_ != nullptr;
  text += ", \"HeaderBoundary\": \"" + (has_buffer ? GuardText(alloc_) : std::string()) + "\"";
  text += ", \"TailBoundary\": \"" +
          (has_buffer ? GuardText(alloc_ + kGuardBytes + size_) : std::string()) + "\" }";
  return text;
}

}  // namespace oxa
