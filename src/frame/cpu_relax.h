// A hint to the processor inside a short busy wait: the waiting core eases off (and, on
// hyper-threaded parts, leaves the pipeline to its sibling) without giving up its time slice,
// which on a loaded machine could cost milliseconds.
#ifndef OXA_SRC_FRAME_CPU_RELAX_H_
#define OXA_SRC_FRAME_CPU_RELAX_H_

namespace oxa::internal {

#if defined(__x86_64__) || defined(__i386__)
inline void CpuRelax() { __builtin_ia32_pause(); }
#elif defined(__arm__) || defined(__aarch64__)
inline void CpuRelax() { __asm__ __volatile__("yield" ::: "memory"); }
#else
inline void CpuRelax() {}
#endif

}  // namespace oxa::internal

#endif  // OXA_SRC_FRAME_CPU_RELAX_H_
