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
  char text1[65];
  char text2[65];
  char text3[65];
  unsigned char byte1;
  unsigned char byte2;
} OXA_TRACEINFO;

#ifdef __cplusplus
}  // extern "C"

namespace oxa {

class oxa_tlsTraceInfoOperImpl;

/**
 * Reads and sets the calling thread's trace context. The one instance lives from library load
 * to process exit. Every method works on the calling thread only.
 */
class OXA_API oxa_tlsTraceInfoOper {
 public:
  virtual ~oxa_tlsTraceInfoOper();
  oxa_tlsTraceInfoOper(const oxa_tlsTraceInfoOper&) = delete;
  oxa_tlsTraceInfoOper& operator=(const oxa_tlsTraceInfoOper&) = delete;

  /** The process's instance. */
  static oxa_tlsTraceInfoOper& instance();

  /** Installs a copy of info as the calling thread's context (overwriting it in place). 0/-1. */
  int setTraceInfo(const OXA_TRACEINFO& info);
  /**
   * Copies the calling thread's context to info: 0; -1 when the thread has none (info is then
   * zeroed) or info is null (prints "traceInfo is null ptr" on standard error).
   */
  int getTraceInfo(OXA_TRACEINFO* info);
  /** Drops the calling thread's context; 0, also when it had none. */
  int eraseTraceInfo();

  static oxa_tlsTraceInfoOper m_tlsTraceInfoOper;

 private:
  oxa_tlsTraceInfoOper();

  oxa_tlsTraceInfoOperImpl* impl_;
};

/** Creates the trace context's thread-local key; prints "oxa tls index{N}". 0 or -1. */
OXA_API int oxa_tls_alloc();
/** Destroys that key; -1 without doing anything when it was never created. */
OXA_API int oxa_tls_free();
/** Runs at library load: oxa_tls_alloc(). */
OXA_API void oxa_at_initprocess();
/** Runs at library unload: oxa_tls_free(). */
OXA_API void oxa_at_finiproccess();

}  // namespace oxa
#endif  // __cplusplus

#endif /* OXA_TRACE_H_ */
