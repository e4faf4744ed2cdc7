/** \file
 * liboxa: the umbrella header. Include this one, or only the family headers you need. It
 * compiles as C too: the classes and C++ entry points are seen only by C++ code.
 */
#ifndef OXA_H_
#define OXA_H_

#include "oxa_addr.h"
#include "oxa_aio.h"
#include "oxa_alarm.h"
#include "oxa_atomic.h"
#include "oxa_base.h"
#include "oxa_event.h"
#include "oxa_file.h"
#include "oxa_frame.h"
#include "oxa_hash.h"
#include "oxa_lockfree.h"
#include "oxa_log.h"
#include "oxa_memory.h"
#include "oxa_msgq.h"
#include "oxa_netclass.h"
#include "oxa_netflow.h"
#include "oxa_netinfo.h"
#include "oxa_socket.h"
#include "oxa_string.h"
#include "oxa_sync.h"
#include "oxa_sysinfo.h"
#include "oxa_thread.h"
#include "oxa_threadpool.h"
#include "oxa_threadpoolflex.h"
#include "oxa_time.h"
#include "oxa_timer.h"
#include "oxa_trace.h"

#endif /* OXA_H_ */
