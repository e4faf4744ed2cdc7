/** \file
 * liboxa: the log service. An asynchronous, process-wide text log: callers format a line,
 * the line is stamped and queued, and one writer thread sends it to standard output, the
 * debug stream (standard error) and a set of numbered, rotating files.
 *
 * A line reads "[YYYY-MM-DD hh:mm:ss.000][LVL][FILE:name][LINE:n] text" and ends in CR LF.
 * The time is local; the millisecond field is always 000. name is the caller's file name
 * without its directory.
 *
 * Files: the one being written is DIR "oxa_log_N_w.log"; when the next line would take it past
 * the maximum size it is renamed DIR "oxa_log_N.log" and N + 1 is opened. With cyclic
 * numbering N runs 1..100 and then starts at 1 again, replacing the old file 1. A new process
 * starts at 1 and truncates what an earlier run left there. A single line longer than the
 * maximum size still goes into a file of its own.
 */
#ifndef OXA_LOG_H_
#define OXA_LOG_H_

#include <stdbool.h>

#include "oxa_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Levels, in the order the filter uses: a line is accepted when its level is at most the
 * service's level. DBG (2) sits below INF (3): level 2 keeps errors and debug lines.
 */
typedef enum log_level {
  OXA_LOG_DISABLE = 0, /**< printed "DISABLE"; level 0 accepts only lines of level 0 */
  OXA_LOG_ERR = 1,     /**< printed "ERR" */
  OXA_LOG_DBG = 2,     /**< printed "DBG" */
  OXA_LOG_INF = 3      /**< printed "INF"; the default level */
} log_level;

/** Where lines go. All targets are off at first. */
typedef enum log_services {
  OXA_LOG_TO_CONSOLE = 0, /**< standard output */
  OXA_LOG_TO_DEBUG = 1,   /**< standard error, through OXA_OutputDebugString */
  OXA_LOG_TO_FILES = 2    /**< numbered files in a directory */
} log_services;

/** Results of the log functions besides 0. */
#define OXA_LOG_NOT_STARTED (-2)   /**< the service is not running and may not start */
#define OXA_LOG_FILTERED (-3)      /**< the line's level is above the service's level */
#define OXA_LOG_QUEUE_FULL (-4)    /**< no room in the 2 MiB staging buffer: line dropped */
#define OXA_LOG_NO_TARGET (-5)     /**< no target is on */
#define OXA_LOG_BAD_ARGUMENT (-6)  /**< null file or format, unknown target, long directory */
#define OXA_LOG_FORMAT_FAILED (-7) /**< the line could not be formatted */
#define OXA_LOG_FILE_FAILED (-8)   /**< a log file failed; only reported on the debug channel */

/**
 * Formats one line (printf rules) and queues it; the writer thread writes it out later. The
 * first line that has somewhere to go starts the service. A line is cut at 2,048 bytes in
 * all, prefix and CR LF included. Returns 0 when queued; -6 for a null file or format; -3 when
 * level is above the service's level; -5 when no target is on; -2 after StopLogService(true)
 * until StartLogService (or when the service stops meanwhile); -1 when the service could not
 * start (memory, thread); -7 when formatting failed; -4 when the staging buffer is full (the
 * line is dropped: retry later). A line that is not queued is lost; nothing is printed.
 * Thread-safe; the caller never waits for file I/O.
 */
OXA_API int WriteLog(log_level level, const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
/** Sets the service's level (any value; lines of a higher level are filtered); always 0. */
OXA_API int AdjustLogLevel(log_level level);
/**
 * Turns a target on; 0, or -6 for an unknown target. For OXA_LOG_TO_FILES, parameter is the
 * directory (a char string; null or "" for "./oxalog/"; "\" is read as "/"; at most 256
 * characters), size the maximum file size in bytes (0 for 2 MiB) and cyclic non-zero for
 * numbering 1..100 in a cycle. The directory is created (one level) when missing. A directory
 * that is too long leaves the files as they were, still returns 0 and says so on the debug
 * channel. Lines whose file cannot be opened are reported there too.
 */
OXA_API int EnableTarget(log_services target, const void* parameter, unsigned int size,
                         unsigned int cyclic);
/**
 * Turns a target off; 0, or -6 for an unknown target (nothing changed). Lines accepted before
 * the call still reach the target. When no target is left on, the service stops: queued lines
 * are written out first and the writer thread ends; the next line that has a target starts it
 * again.
 */
OXA_API int DisableTarget(log_services target);
/** Allows the service to start again after StopLogService(true); always 0. Starts nothing. */
OXA_API int StartLogService(void);
/**
 * Stops the service, writing out every queued line first; always 0 (also when it was not
 * running). With stop true the service then refuses to start (WriteLog gives -2) until
 * StartLogService; with false the next line that has a target starts it again. Files are turned
 * off; standard output and the debug stream keep their switches.
 */
OXA_API int StopLogService(bool stop);
/**
 * The library's one-call switch. Non-zero flags: allow starting, standard output on when bit
 * 0 is set, files in directory (size 2 MiB, not cyclic) when bit 1 is set, level 3. Flags 0:
 * standard output and files off and StopLogService(true). The debug stream is left alone.
 * Always 0: a directory that is refused is only reported on the debug channel.
 */
OXA_API int OXA_Log(unsigned int flags, const char* directory);
/** Does nothing. */
OXA_API void oxa2_log(void);

#ifdef __cplusplus
}  // extern "C"

/**
 * The log service singleton's interface. The object is built on first use and stopped at
 * process exit (lines still queued then are dropped).
 */
class OXA_API LogService {
 public:
  LogService(const LogService&) = delete;
  LogService& operator=(const LogService&) = delete;

  /**
   * Starts the writer thread; 0 (also when running), -2 while StopLogService(true) holds, -1
   * when the staging buffer or the thread cannot be had (nothing started).
   */
  int ServiceStart();
  /**
   * Stops the writer; 0. With wait true every queued line is written first; with false
   * queued lines are dropped and only the line being written is finished. Files go off.
   */
  int ServiceStop(bool wait);
  /**
   * Queues a ready line of length bytes, its terminator included (files get length - 1 bytes).
   * 0; -6 for a null line, -2 when the service is not running (PushData never starts it), -4
   * when the staging buffer has no room (the line is dropped).
   */
  int PushData(const char* line, unsigned int length);
  /**
   * Files on (with directory, size and cyclic as for EnableTarget) or off; 0, or -6 when the
   * directory is too long (files stay as they were; unlike EnableTarget, the -6 is returned).
   */
  int SwitchFileService(bool on, const char* directory, unsigned int size, bool cyclic);

 private:
  friend LogService* GetLogService();
  LogService() = default;
  ~LogService() = default;
};

/** The singleton, built on first use in a thread-safe way; never null. */
OXA_API LogService* GetLogService();

/**
 * Forms a line's prefix, "[YYYY-MM-DD hh:mm:ss.000][LVL][FILE:name][LINE:n] ", into buffer
 * (at most size bytes, terminator included) from the local time now. Returns what snprintf
 * would: the full length of the prefix, even when it was cut; -1 for a null buffer with a
 * non-zero size. A null file counts as "", and an unknown level prints "UNKNOWN".
 */
OXA_API int FormatTimeAndName(char* buffer, unsigned int size, log_level level, const char* file,
                              int line);
#endif  // __cplusplus

#endif /* OXA_LOG_H_ */
