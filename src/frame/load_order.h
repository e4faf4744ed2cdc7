// The order in which the library's static objects are built when it is loaded.
//
// Each static object that another load-time object, or code running before main, may use
// carries one of these priorities (GCC's init_priority), so the order is fixed by these
// numbers and not by the order in which the linker happens to meet the object files.
// Objects are destroyed in the reverse order at unload: every one is registered for
// destruction right after its construction.
#ifndef OXA_SRC_FRAME_LOAD_ORDER_H_
#define OXA_SRC_FRAME_LOAD_ORDER_H_

// Priorities 0-100 are reserved for the C++ runtime; ours start above.
#define OXA_LOAD_TIMER_LOCK 1001       // the timer table's lock
#define OXA_LOAD_SOCKET_ENGINE 1002    // serial-number lock, per-descriptor mutex tables
#define OXA_LOAD_COND_ATTR_MAP 1003    // the condition-attribute map and its lock
#define OXA_LOAD_STREAMS 1004          // the standard stream objects
#define OXA_LOAD_GLOBAL_POOL 1005      // the global memory pool's statics
#define OXA_LOAD_INIT_LOCK 1006        // the initialisation lock
#define OXA_LOAD_TRACE_SINGLETON 1007  // the trace-context singleton
#define OXA_LOAD_TRACE_KEY 1008        // last: the trace context's thread-local key

/** Places a static object at a given step of the load order. */
#define OXA_LOAD_AT(step) __attribute__((init_priority(step)))

#endif  // OXA_SRC_FRAME_LOAD_ORDER_H_
