/** \file
 * liboxa: files, directories and shared objects. A thin layer over system descriptors with
 * the library's own open, permission and file-type codes. Offsets and sizes are 64-bit on
 * every target, so files beyond 4 GiB work on the 32-bit target too.
 */
#ifndef OXA_FILE_H_
#define OXA_FILE_H_

#include "oxa_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/** A file handle is the system descriptor; OXA_INVALID_FILE means none. */
typedef int OXA_FILE_HANDLE;
/** The invalid file handle, returned by OXA_OpenFile on failure. */
#define OXA_INVALID_FILE (-1)

/** \name Open flags of OXA_OpenFile */
/**@{*/
#define OXA_FOPEN_READ 0x1     /**< open for reading */
#define OXA_FOPEN_WRITE 0x2    /**< open for writing */
#define OXA_FOPEN_CREATE 0x4   /**< create when missing */
#define OXA_FOPEN_APPEND 0x8   /**< every write goes to the end */
#define OXA_FOPEN_TRUNC 0x10   /**< truncate to 0 bytes */
#define OXA_FOPEN_EXCL 0x40    /**< with OXA_FOPEN_CREATE: fail when the file exists */
#define OXA_FOPEN_DIRECT 0x800 /**< bypass the page cache (O_DIRECT) */
/**@}*/

/** \name Permission codes
 * Creation flags of OXA_OpenFile and the bits OXA_FileStat and OXA_FindFileInDir report.
 */
/**@{*/
#define OXA_FPROT_OTHER_EXEC 0x1   /**< others execute (mode 01) */
#define OXA_FPROT_OTHER_WRITE 0x2  /**< others write (mode 02) */
#define OXA_FPROT_OTHER_READ 0x4   /**< others read (mode 04) */
#define OXA_FPROT_GROUP_EXEC 0x10  /**< group execute (mode 010) */
#define OXA_FPROT_GROUP_WRITE 0x20 /**< group write (mode 020) */
#define OXA_FPROT_GROUP_READ 0x40  /**< group read (mode 040) */
#define OXA_FPROT_USER_EXEC 0x100  /**< owner execute (mode 0100) */
#define OXA_FPROT_USER_WRITE 0x200 /**< owner write (mode 0200) */
#define OXA_FPROT_USER_READ 0x400  /**< owner read (mode 0400) */
#define OXA_FPROT_DEFAULT 0x1000   /**< creation only: mode 0400 and nothing else */
/** Creation: owner write. Not reported by OXA_FileStat. */
#define OXA_FPROT_WRITE_ALT 0x2000
/** Creation: owner execute. Reported by OXA_FileStat as set-group-id (see below). */
#define OXA_FPROT_EXEC_ALT 0x4000
#define OXA_FPROT_SETGID 0x4000 /**< reported by OXA_FileStat for a set-group-id file */
#define OXA_FPROT_SETUID 0x8000 /**< set-user-id, both ways */
/**@}*/

/** \name File-type codes */
/**@{*/
#define OXA_FTYPE_CHR 1     /**< character device */
#define OXA_FTYPE_UNKNOWN 8 /**< any other type */
#define OXA_FTYPE_SOCK 16   /**< socket */
#define OXA_FTYPE_FIFO 32   /**< FIFO */
#define OXA_FTYPE_LNK 64    /**< symbolic link */
#define OXA_FTYPE_BLK 128   /**< block device */
#define OXA_FTYPE_DIR 256   /**< directory */
#define OXA_FTYPE_REG 512   /**< regular file */
/**@}*/

/** The longest entry name OXA_FindFileInDir reports, terminator included. */
#define OXA_MAX_FILE_NAME 256

/** A file's status, filled by OXA_FileStat. Times are seconds since the epoch. */
typedef struct OXA_FILE_STAT_T {
  uint32_t type;       /**< OXA_FTYPE_* */
  uint32_t uid;        /**< owner user id */
  uint32_t gid;        /**< owner group id */
  uint32_t protection; /**< OXA_FPROT_* bits; the sticky bit is not reported */
  uint32_t device;     /**< device number (low 32 bits) */
  uint32_t links;      /**< link count */
  oxa_uint64 inode;    /**< inode number, all 64 bits */
  oxa_int64 size;      /**< size in bytes */
  oxa_int64 atime;     /**< last access, seconds */
  oxa_int64 ctime;     /**< last status change, seconds */
  oxa_int64 mtime;     /**< last modification, seconds */
} OXA_FILE_STAT_T;

/**
 * One directory entry, filled by OXA_FindFileInDir. Unlike OXA_FILE_STAT_T, times are time
 * values in microseconds (seconds x 1,000,000), and the inode field keeps only the low 32
 * bits of the number (the upper half is 0).
 */
typedef struct OXA_FILE_FIND_T {
  char name[OXA_MAX_FILE_NAME]; /**< the entry's name, zero-filled behind it */
  uint32_t type;                /**< OXA_FTYPE_* */
  uint32_t uid;                 /**< owner user id */
  uint32_t gid;                 /**< owner group id */
  uint32_t protection;          /**< OXA_FPROT_* bits; the sticky bit is not reported */
  uint32_t device;              /**< device number (low 32 bits) */
  uint32_t links;               /**< link count */
  oxa_uint64 inode;             /**< inode number, low 32 bits only */
  oxa_int64 size;               /**< size in bytes */
  oxa_int64 atime;              /**< microseconds */
  oxa_int64 ctime;              /**< microseconds */
  oxa_int64 mtime;              /**< microseconds */
} OXA_FILE_FIND_T;

/** An open directory, owned by the library between OXA_OpenDir and OXA_CloseDir. */
typedef struct OXA_DIR_INFO_T* OXA_DIR_HANDLE;

/**
 * Opens path with OXA_FOPEN_* flags; when the file is created its mode comes from the
 * OXA_FPROT_* permission flags: owner read is always granted, OXA_FPROT_DEFAULT gives 0400
 * alone, OXA_FPROT_WRITE_ALT adds owner write and OXA_FPROT_EXEC_ALT owner execute (the umask
 * applies as usual). The descriptor is inherited across exec. Returns the handle, or -1 for a
 * null path, flags with neither read nor write (errno untouched), or a failed open (errno).
 */
OXA_API OXA_FILE_HANDLE OXA_OpenFile(const char* path, unsigned int flags, int permissions);
/** Closes the handle unless it is -1; a failure is not reported (errno set by the system). */
OXA_API void OXA_CloseFile(OXA_FILE_HANDLE file);
/**
 * One read of up to length bytes. *count (when count is not null) receives the read's
 * result: the bytes read (0 at the end of the file), or (unsigned int)-1 when it failed.
 * Returns 0, or -1 for a null buffer or handle -1 (nothing read, *count and errno untouched)
 * or a failed read (errno from the system).
 */
OXA_API int OXA_ReadFile(OXA_FILE_HANDLE file, void* buffer, unsigned int length,
                         unsigned int* count);
/**
 * One write of up to length bytes; *count (when not null) receives the bytes written, or
 * (unsigned int)-1. Returns 0, or -1 for a null buffer or handle -1 (nothing written,
 * *count and errno untouched) or a failed write (errno from the system).
 */
OXA_API int OXA_WriteFile(OXA_FILE_HANDLE file, const void* buffer, unsigned int length,
                          unsigned int* count);
/**
 * Moves the file position (whence: SEEK_SET, SEEK_CUR or SEEK_END) with a 64-bit offset;
 * *position (when not null) receives the new position, or -1. Returns 0, or -1 when the
 * seek failed (errno from the system; handle -1 fails with EBADF).
 */
OXA_API int OXA_FileSeek(OXA_FILE_HANDLE file, oxa_int64 offset, int whence, oxa_int64* position);
/** Always 1, whatever the handle. */
OXA_API int OXA_FileIsEOF(OXA_FILE_HANDLE file);
/**
 * Fills *stat from the open file (times in seconds). Returns 0, or -1 for handle -1 or a
 * null record (errno untouched) or a failed status call (errno from the system); *stat is
 * left unchanged on failure.
 */
OXA_API int OXA_FileStat(OXA_FILE_HANDLE file, OXA_FILE_STAT_T* stat);
/**
 * Writes the file's data to its device (fsync) unless the handle is -1. A failure is not
 * reported (errno is set by the system).
 */
OXA_API void OXA_FileFlush(OXA_FILE_HANDLE file);
/**
 * Removes a file or an empty directory. Returns 0, or -1 for a null path (errno untouched)
 * or a failed removal (errno from the system).
 */
OXA_API int OXA_DeleteFile(const char* path);
/** Same as OXA_DeleteFile: removes an empty directory or a file; 0, or -1. */
OXA_API int OXA_RemoveDir(const char* path);
/**
 * Renames (replacing an existing new_path as the system allows). Returns 0, or -1 for a
 * null path (errno untouched) or a failed rename (errno from the system).
 */
OXA_API int OXA_RenameFile(const char* old_path, const char* new_path);
/**
 * The system's access check (mode: F_OK, or R_OK, W_OK and X_OK combined). Returns 0 when
 * allowed, or -1 with errno: EFAULT for a null path, else as the system set it.
 */
OXA_API int OXA_AccessFile(const char* path, int mode);
/**
 * Copies source to destination through memory maps; a destination that is created gets the
 * source's mode (less the umask), an existing one is truncated and overwritten. Returns 0,
 * or -1 for a null path, when the destination exists and fail_if_exists is non-zero
 * (nothing touched), for an empty source (refused on purpose), or on any failure (errno from
 * the failing call; a created or truncated destination may be left behind). Every
 * descriptor and mapping opened is released on every path.
 */
OXA_API int OXA_CopyFile(const char* source, const char* destination, int fail_if_exists);
/**
 * Creates one directory with mode 0766 (less the umask); parents are not created. Returns
 * 0, or -1 for a null path (errno untouched) or a failure (errno from the system).
 */
OXA_API int OXA_MakeDir(const char* path);
/**
 * Opens a directory for listing and keeps its path with a "/" appended when missing.
 * Returns the handle, or null for a null path, a failed open (errno from the system) or
 * exhausted memory; nothing is left allocated on failure. Close it with OXA_CloseDir.
 */
OXA_API OXA_DIR_HANDLE OXA_OpenDir(const char* path);
/**
 * Fills *entry with the next entry, "." and ".." included, in the system's order; the name
 * is cut to OXA_MAX_FILE_NAME - 1 characters. Returns 0, or -1 for null arguments, at the
 * end of the directory or when reading it fails (*entry untouched; errno set by the system
 * on a read error only). When the entry cannot be examined (for example it vanished), only
 * its name is set, the other fields are 0, and the result is still 0. Symbolic links are
 * followed when the entry is examined. Not safe to call on one handle from two threads at
 * once.
 */
OXA_API int OXA_FindFileInDir(OXA_DIR_HANDLE dir, OXA_FILE_FIND_T* entry);
/**
 * Closes the directory and frees the handle, which must not be used again. Returns 0 (also
 * when the system's close fails), or -1 for null.
 */
OXA_API int OXA_CloseDir(OXA_DIR_HANDLE dir);
/**
 * Copies the running executable's path into buffer, without a terminator (zero the buffer
 * first to get a string). Returns 0, or -1 with errno EINVAL for a null buffer, or with
 * ENOMEM when the path is longer than size, has 260 bytes or more, or cannot be read; the
 * buffer is untouched on failure.
 */
OXA_API int OXA_GetCurExePath(char* buffer, int size);

/**
 * Loads a shared object: dlopen(path, flags). Returns the handle, or null for a null path
 * or a failure (dlerror() tells why).
 */
OXA_API void* OXA_LoadDSoEx(const char* path, int flags);
/** OXA_LoadDSoEx with RTLD_NOW | RTLD_GLOBAL: the handle, or null as there. */
OXA_API void* OXA_LoadDSo(const char* path);
/**
 * Drops one load of a shared object (dlclose). Returns 0, or -1 for null or a failure
 * (dlerror() tells why).
 */
OXA_API int OXA_UnloadDSo(void* handle);
/**
 * Looks up a symbol (dlsym). Returns its address, or null for null arguments or a missing
 * symbol (dlerror() tells why).
 */
OXA_API void* OXA_GetDsoSym(void* handle, const char* symbol);

#ifdef __cplusplus
}  // extern "C"

/**
 * Allocates a directory record with no stream and a zeroed path area of path_length + 1
 * bytes. Returns it, or null, with nothing left allocated, when memory is exhausted or the
 * length is negative. Free it with OXA_FreeDirInfo_Inter.
 */
OXA_API OXA_DIR_INFO_T* OXA_AllocDirInfo_Inter(int path_length);
/** Frees a record from OXA_AllocDirInfo_Inter (null is ignored); its stream is not closed. */
OXA_API void OXA_FreeDirInfo_Inter(OXA_DIR_INFO_T* info);
/**
 * Zeroes *entry, copies name into it (cut to OXA_MAX_FILE_NAME - 1 characters) and, when
 * stat of directory + name succeeds, fills the other fields. directory must end in "/"; no
 * argument may be null. Returns 0 when the status was read, or -1 when only the name is set
 * (the stat failed, errno from the system, or memory for the joined path was exhausted).
 */
OXA_API int OXA_FillFileInfo_Inter(const char* directory, const char* name, OXA_FILE_FIND_T* entry);
#endif  // __cplusplus

#endif /* OXA_FILE_H_ */
