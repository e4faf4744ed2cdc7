/** \file
 * liboxa: the per-thread trace context that follows work from thread to thread.
 */
#ifndef OXA_TRACE_H_
#define OXA_TRACE_H_

#include "oxa_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The flat copy of a trace context: three texts of up to 64 characters and two bytes, 197
 * bytes with no gaps. The library gives the fields no meaning; it stores, copies and installs
 * them. A text of 64 characters or more is not terminated inside its field.
 */
typedef struct OXA_TRACEINFO {
  char text1[65];      /**< first text: up to 64 characters and a terminating zero */
  char text2[65];      /**< second text, as text1 */
  char text3[65];      /**< third text, as text1 */
  unsigned char byte1; /**< first byte, carried unchanged */
  unsigned char byte2; /**< second byte, carried unchanged */
} OXA_TRACEINFO;

#ifdef __cplusplus
}  // extern "C"

namespace oxa {

class oxa_tlsTraceInfoOperImpl;

/**
 * Reads and sets the calling thread's trace context. The one instance lives from library load
 * to process exit. Every method works on the calling thread only and is thread-safe; results
 * are 0 or -1, and nothing is stored in the last-error slot. A thread keeps its context until
 * eraseTraceInfo, or until it ends, when the context is reclaimed.
 */
class OXA_API oxa_tlsTraceInfoOper {
 public:
  virtual ~oxa_tlsTraceInfoOper();
  oxa_tlsTraceInfoOper(const oxa_tlsTraceInfoOper&) = delete;
  oxa_tlsTraceInfoOper& operator=(const oxa_tlsTraceInfoOper&) = delete;

  /** The process's instance; never fails. */
  static oxa_tlsTraceInfoOper& instance();

  /**
   * Installs a copy of info as the calling thread's context (a context it already has is
   * overwritten in place). Each text is copied up to its terminator, or 65 characters when it
   * has none. Returns 0; -1 when memory runs out, or when the thread-local key does not exist
   * (prints "OXA_ThreadTls_SetValue failed! g_oxa_store_tls_handle{N}" on standard error); a
   * context the call had just made is then dropped again.
   */
  int setTraceInfo(const OXA_TRACEINFO& info);
  /**
   * Copies the calling thread's context to info. At most 64 characters of each text are
   * copied and the 65th byte of the field is not written, so a text of 64 characters or more is
   * not terminated inside its field. Returns 0; -1 when the thread has none (all 197 bytes of
   * info are zeroed) or info is null (prints "traceInfo is null ptr" on standard error).
   */
  int getTraceInfo(OXA_TRACEINFO* info);
  /** Drops the calling thread's context and frees it; 0, also when it had none. */
  int eraseTraceInfo();

  /** The one instance, built at library load; instance() returns it. */
  static oxa_tlsTraceInfoOper m_tlsTraceInfoOper;

 private:
  oxa_tlsTraceInfoOper();

  oxa_tlsTraceInfoOperImpl* impl_;
};

/**
 * Creates the trace context's thread-local key, which the load hook does. Returns 0 and prints
 * "oxa tls index{N}" with the key on standard error; -1 when the system refuses a key (prints
 * "tls_alloc, but OXA_ThreadTls_Create failed!"); every trace call then returns -1.
 */
OXA_API int oxa_tls_alloc();
/**
 * Destroys that key, which the unload hook does. 0; -1 without doing anything when it was
 * never created or is destroyed already, -1 also when the system refuses.
 */
OXA_API int oxa_tls_free();
/** Runs at library load, after the static objects: calls oxa_tls_alloc(). */
OXA_API void oxa_at_initprocess();
/** Runs at library unload: calls oxa_tls_free(). The doubled s is part of the name. */
OXA_API void oxa_at_finiproccess();

}  // namespace oxa
#endif  // __cplusplus

#endif /* OXA_TRACE_H_ */
