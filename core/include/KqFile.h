// KqFile.h: files, mapped memory and the file system.
//
// - CFile: an unbuffered file on a descriptor, one system call per operation.
// - CBufferedFile: a stdio stream with full buffering of a chosen size.
// - CMappedMem: one shared memory mapping of a CFile or of anonymous memory.
// - CFs: stateless path and file helpers (copy, move, rename, delete, mkdir).
// - CDirectory: an open directory: its entries, its size, files in it.
//
// None of these classes prints or throws; a failure shows in the result of
// the operation and errno is left as the failing system call set it. Objects
// that own a descriptor, stream, mapping or directory are not copied and
// release it in their destructor. No operation locks: an object is used by
// one thread at a time.
#pragma once

#include "KqCore.h"

#include <cstdint>
#include <cstdio>
#include <string>

namespace KQ {

// ---- CFile, CBufferedFile, CMappedMem ----

// An open file on a descriptor, without buffering: every operation is one
// system call (GetSize a few), and short counts are returned as the system
// gave them. The object alone owns the descriptor and closes it when it is
// destroyed; there is no Close, and an object is opened at most once.
// It also records the access class of its last Open attempt, even a failed
// one, from which CMappedMem takes the protection of a mapping.
// I/O on a file that is not open goes to the system with descriptor -1 and
// fails there: 0 bytes, false, or -1 for offsets and sizes.
// Not thread-safe; not copyable.
class KQ_API CFile {
public:
    // How the file is opened (the flags passed to open). The int base makes
    // every value a valid one, so values out of the table are well defined.
    enum Mode_e : int {
        eModeRead = 0,       // O_RDONLY; also any value above 5
        eModeReadWrite = 1,  // O_RDWR
        eModeWrite = 2,      // O_WRONLY
        eModeAppend = 3,     // O_WRONLY | O_CREAT | O_APPEND
        eModeCreateNew = 4,  // O_WRONLY | O_CREAT | O_EXCL: fails on an existing path
        eModeTruncate = 5    // O_WRONLY | O_CREAT | O_TRUNC
    };

    // The access class: permission bits of a file that Open creates (less the
    // umask), and the protection of a CMappedMem of the file.
    enum Access_e : int {
        eAccessRead = 0,               // 0444; PROT_READ
        eAccessReadWrite = 1,          // 0666; PROT_READ | PROT_WRITE
        eAccessReadWriteExecute = 2    // 0777; PROT_READ | PROT_WRITE | PROT_EXEC
        // any value above 2: permission bits 0, PROT_NONE
    };

    // Not open; the access class reads as eAccessRead until an Open.
    CFile();
    // Opens as Open does; the result is dropped, test IsValid().
    CFile(const std::string& path, Mode_e mode, Access_e access, bool sync);
    // Closes the descriptor if open.
    ~CFile();
    CFile(const CFile&) = delete;
    CFile& operator=(const CFile&) = delete;

    // True while the object holds a descriptor.
    bool IsValid() const;
    // Opens path with the flags of mode (plus O_SYNC when sync) and the
    // permission bits of access. False, with nothing changed, on an open
    // object; else records access (kept even if the open fails) and returns
    // true when a descriptor was obtained.
    bool Open(const std::string& path, Mode_e mode, Access_e access, bool sync);

    // One read() of up to buffer.m_Length bytes into buffer.m_pData. The
    // bytes read; 0 at end of file and on error. The slice is not changed.
    size_t Read(CSlice<unsigned char>& buffer);
    // One write() of the buffer.m_Length bytes at buffer.m_pData. The bytes
    // written (possibly fewer); 0 on error.
    size_t Write(const CSlice<unsigned char>& buffer);
    // fsync: true when the data reached the device.
    bool Flush() const;

    // The current offset; -1 on error.
    long GetOffset() const;
    // Moves by offset from the current position; the new offset or -1.
    long Seek(long offset);
    // Moves to offset from the start; the new offset or -1.
    long SeekBegin(long offset);
    // Moves to offset from the end (SeekEnd(0) gives the length); the new
    // offset or -1.
    long SeekEnd(long offset);
    // The file's length; the offset is moved and put back, so no other use of
    // the descriptor may run meanwhile. -1 when the file is not open.
    long GetSize();

    // ioctl(descriptor, request, arg); true when the result is not negative.
    bool IoControl(unsigned int request, void* arg);

private:
    friend class CMappedMem;
    struct Handle_t;

    Handle_t* m_pHandle;  // owned; holds the descriptor, -1 when not open
    Access_e m_Access;    // access class of the last Open past its open test
};

// An open file on a stdio stream with full buffering (setvbuf _IOFBF), the
// buffer allocated by stdio. The size is handed to setvbuf at Open; glibc,
// given no buffer of the caller's, keeps its own size (the file system's
// block size) and only takes the mode. The object alone owns
// the stream and closes it when destroyed; there is no Close, and an object
// is opened at most once. On an object that is not open, Read, Write,
// GetOffset, GetSize and the seeks return 0, Flush false and GetFileNo -1.
// Not thread-safe; not copyable.
class KQ_API CBufferedFile {
public:
    // The fopen mode string. The numbering differs from CFile::Mode_e.
    enum Mode_e : int {
        eModeRead = 0,       // "rb"
        eModeReadWrite = 1,  // "r+b"
        eModeAppend = 2,     // "ab": every write goes to the end
        eModeTruncate = 3    // "wb"
    };

    // Not open.
    CBufferedFile();
    // Opens as Open does; the result is dropped, test IsValid().
    CBufferedFile(const std::string& path, Mode_e mode, unsigned long bufferSize);
    // fclose of the stream if open (writing out what is buffered).
    ~CBufferedFile();
    CBufferedFile(const CBufferedFile&) = delete;
    CBufferedFile& operator=(const CBufferedFile&) = delete;

    // True while the object holds a stream.
    bool IsValid() const;
    // fopen with the mode string of mode, then full buffering of bufferSize
    // bytes. False on an open object, on a mode outside 0 to 3 and when fopen
    // fails.
    bool Open(const std::string& path, Mode_e mode, unsigned long bufferSize);

    // fread of up to buffer.m_Length bytes: the bytes read (0 at end of file).
    size_t Read(CSlice<unsigned char>& buffer);
    // fwrite of buffer.m_Length bytes: the bytes accepted by the stream.
    size_t Write(const CSlice<unsigned char>& buffer);
    // fflush: true when the buffered bytes were handed to the system.
    bool Flush() const;

    // ftell: the current position (-1 if ftell fails).
    long GetOffset() const;
    // The stream's length; the position is moved and put back.
    long GetSize();
    // fseek from the current position, then ftell. A failed seek is not
    // reported: the unchanged position comes back.
    long Seek(long offset);
    // As Seek, from the start.
    long SeekBegin(long offset);
    // As Seek, from the end.
    long SeekEnd(long offset);
    // fileno of the stream.
    int GetFileNo() const;

private:
    std::FILE* m_pStream;  // owned; null when not open
};

// One shared memory mapping: a view of an open CFile, or a block of anonymous
// shared memory (shared with processes forked afterwards). The protection
// comes from a CFile::Access_e. The object maps at most once and unmaps only
// in its destructor; a file's mapping outlives the CFile it was made from.
// Every refusal of mmap shows as false and IsValid() false, errno kept: a
// length of 0 (so an empty file), an offset that is not a multiple of the
// page size, a file not open for reading, or a writable protection on a file
// not opened with eModeReadWrite.
// Not thread-safe; not copyable.
class KQ_API CMappedMem {
public:
    // Nothing mapped, size 0.
    CMappedMem();
    // Maps as MapFile does; the result is dropped, test IsValid().
    CMappedMem(CFile& file, unsigned long length, unsigned long offset);
    // Maps as MapMemory does; the result is dropped, test IsValid().
    CMappedMem(unsigned long size, CFile::Access_e access);
    // munmap if mapped.
    ~CMappedMem();
    CMappedMem(const CMappedMem&) = delete;
    CMappedMem& operator=(const CMappedMem&) = delete;

    // True while a mapping exists.
    bool IsValid() const;
    // Maps length bytes of file from offset, with the protection of the
    // file's access class; length 0 takes the whole file's length whatever
    // the offset. False without any call when already mapped or when file is
    // not open; false when mmap refuses (the size is kept).
    bool MapFile(CFile& file, unsigned long length, unsigned long offset);
    // Maps size bytes of zeroed anonymous shared memory with the protection
    // of access. False when already mapped or when mmap refuses.
    bool MapMemory(unsigned long size, CFile::Access_e access);

    // Start of the mapping; null when nothing is mapped.
    void* GetPointer() const;
    // Length of the mapping, as last passed to mmap (0 before any attempt).
    unsigned long GetSize() const;

protected:
    // The one mmap of both mapping operations: m_Size bytes of file from
    // offset, anonymous when file is not open. Leaves null on failure.
    void PerformMap(const CFile& file, unsigned long offset);
    // munmap of the mapping; its result (0 on success). Destructor only.
    int PerformUnmap();

private:
    void* m_pMemory;        // start of the mapping; null when not mapped
    unsigned long m_Size;   // length passed to mmap
};

// ---- CFs, CDirectory ----

// CFs: stateless helpers for paths and files, all static.
//
// The path helpers (StripPath, RemoveExtension, NormalizeFilename,
// NormalizePath) work on text only: they never touch the file system and
// cannot fail. The file helpers return true on success and false on any
// failure; they print nothing and leave errno as the failing call set it.
// Nothing is kept between calls, so every helper may be called from any
// thread; what they do to the file system is as atomic as the single calls
// they make (a rename is atomic, a copy is not).
class KQ_API CFs {
public:
    // The file name part of path: what follows the last backslash if there
    // is one (a backslash wins over any slash), else what follows the last
    // '/', else path itself. "dir/" gives "".
    static std::string StripPath(const std::string& path);
    // StripPath(path) without its last ".ext"; "archive.tar.gz" gives
    // "archive.tar" and ".profile" gives "".
    static std::string RemoveExtension(const std::string& path);
    // name with every backslash turned into '/', then without a leading
    // drive prefix ("C:") if its second character is ':'. Nothing else is
    // normalised. The second argument is not used.
    static std::string NormalizeFilename(const std::string& name, const std::string& unused);
    // NormalizeFilename(path), then with a '/' appended unless it is empty
    // or already ends in one. The second argument is not used.
    static std::string NormalizePath(const std::string& path, const std::string& unused);

    // rename(from, to) succeeded.
    static bool RenameFile(const std::string& from, const std::string& to);
    // Copies the contents of from into to (created, or truncated if it
    // exists) in pieces of 4096 bytes, and gives it from's owner and group;
    // a new destination gets from's permission bits less the umask. False
    // when any step fails: a regular destination created or truncated by
    // the call is then removed. A destination that is the same file as from
    // (same device and inode, links followed) is refused with false and
    // errno EINVAL before anything is touched. Not synced; no timestamps.
    static bool CopyFile(const std::string& from, const std::string& to);
    // Renames from to to; when that fails (e.g. across file systems) copies
    // with CopyFile and then unlinks from, whose result is not tested. False
    // when both fail; a failed copy leaves from in place.
    static bool MoveFile(const std::string& from, const std::string& to);
    // mkdir(path, mode) succeeded: one directory, not its parents; the
    // umask applies.
    static bool MkDir(const std::string& path, unsigned int mode);
    // unlink(path) succeeded.
    static bool DelFile(const std::string& path);
    // stat(path) succeeded: some node exists there, symbolic links followed
    // (false for a dangling link).
    static bool FsNodeExists(const std::string& path);
};

// CDirectory: an open directory stream plus the directory's path.
//
// Lists the directory entry by entry (every entry, or only those that are
// not directories), opens, creates and measures files in it by name, adds
// up the sizes of the files below it to a given depth, and removes the
// whole tree through the shell. Opening a directory that does not exist
// creates it (its parent must exist).
//
// The object owns its stream and is not copyable. It is used by one thread
// at a time: GetNextEntry, GetNextFile and GetSize share the stream
// position. The path (always ending in '/') stays set after a failed Open
// and after Close; the name-based operations use it with or without an open
// stream. Nothing is printed or thrown: failures show as false, null, 0 or
// an empty string, with errno as the failing call set it.
class KQ_API CDirectory : private CUncopyable {
public:
    // No stream, empty path.
    CDirectory();
    // Closes the stream if one is open.
    virtual ~CDirectory();

    // Opens path (a '/' is appended when missing), closing any open stream
    // first; a missing directory whose parent exists is created with mode
    // 0777 less the umask. False for an empty path (nothing changes, an open
    // stream stays open) and when the directory can't be opened or created
    // (the new path is kept, no stream is open).
    bool Open(const std::string& path);
    // Closes the stream if one is open; the path stays.
    void Close();
    // Starts the listing again from the first entry; nothing without a stream.
    void Rewind();
    // The name of the next entry, "." and ".." included; "" at the end and
    // when no stream is open.
    std::string GetNextEntry();
    // The name of the next entry that is not a directory (links are not
    // followed: a link to a directory, a dangling link, a fifo are returned);
    // "" at the end and when no stream is open.
    std::string GetNextFile();
    // Runs "rm -rf '<path>'" through the shell, the path single-quoted
    // (a relative path starting with '-' gets "./" in front); true when the
    // command exits with 0, after which the directory itself is gone. False
    // with errno EINVAL, running nothing, for an empty path and for any path
    // to the root directory. The stream is neither closed nor rewound.
    bool DeleteAllFiles();
    // fopen of path + name with the fopen mode string mode; null on failure.
    // name is appended unchanged and may hold further components.
    FILE* OpenFile(const std::string& name, const std::string& mode) const;
    // fclose(file) and its result; EOF for a null file.
    int CloseFile(FILE* file) const;
    // The byte length (st_size, links followed) of path + name; 0 when it
    // can't be stated.
    uint64_t GetFileSize(const std::string& name) const;
    // Creates path + name with mode 0644 less the umask, or truncates it to
    // length 0 if it exists; true when that succeeded.
    bool CreateFile(const std::string& name) const;
    // The sum of the byte lengths of the non-directory entries from the
    // stream's current position on, descending depth levels into
    // subdirectories (links followed; entries that can't be stated are
    // skipped). 0 counts only this directory's files. Leaves the stream at
    // its end without rewinding: a second call gives 0. 0 without a stream.
    uint64_t GetSize(unsigned int depth);

private:
    struct Handle_t;  // the stream and the last entry read, in the source
    Handle_t* m_pHandle;
    std::string m_Path;
};

}  // namespace KQ
