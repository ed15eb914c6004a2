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

}  // namespace KQ
