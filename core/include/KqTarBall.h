// KqTarBall.h: a read-only, zero-copy reader of ustar tar archives.
//
// CTarBall maps a whole archive file once (CFile + CMappedMem, read-only) and
// walks its 512-byte header records in place: nothing is copied or unpacked.
// A caller steps through the members (Rewind, NextFile, with GetCurrFile,
// GetFileSize and GetFileOffset describing the current one) or looks one up
// by name (Find) and reads its data straight from the mapping.
//
// Of each header only the name (offset 0, 100 bytes), the size (offset 124,
// 12 bytes, octal) and the magic (offset 257, "ustar") are used; checksums,
// types and name prefixes are ignored, so directories, links and extended
// headers are members like the others. Headers are trusted: a wrong size
// moves the walk elsewhere, and it goes on there while the records it lands
// on pass the end-of-file and magic tests.
//
// No read of the object ever leaves the mapping, whatever the archive holds:
// a record that does not fit whole before the end of the file ends the walk
// as the end of the file does, names are read within their 100-byte field,
// sizes within their 12-byte field, and an offset that would pass 4 GiB ends
// the walk. The data of a member, however, is where its header says: a
// truncated archive can announce more bytes than the file holds after
// GetFileOffset(), and a caller that reads a member of an untrusted archive
// checks GetFileOffset() + GetFileSize() against the archive's length.
//
// All addresses returned point into the read-only mapping and stay valid as
// long as the object lives. Construction problems show in GetStatus() and
// IsFileOk(); navigation problems in negative results. Nothing prints or
// throws. Not thread-safe (one current position); not copyable.
#pragma once

#include "KqFile.h"

#include <cstdint>
#include <string>

namespace KQ {

class KQ_API CTarBall {
public:
    // Opens path read-only, maps it whole and reads its first header. The
    // outcome is in GetStatus(): 0 ready (the first member is current), -2 the
    // file could not be opened, -3 it could not be mapped (an empty file
    // too), -4 its first record is not a whole ustar header.
    explicit CTarBall(const std::string& path);
    CTarBall(const CTarBall&) = delete;
    CTarBall& operator=(const CTarBall&) = delete;

    // The construction status: 0, -2, -3 or -4 (never -1).
    int GetStatus() const;
    // True when the archive is mapped and the status is 0.
    bool IsFileOk() const;

    // Makes the first record current: 0, or -1 when it is not a whole ustar
    // header or nothing is mapped.
    int Rewind();
    // Makes the next member current and returns its record offset. -1, with
    // only the offset moved, when the next record does not fit before the
    // end of the file, the offset would pass 4 GiB, or nothing is mapped; -2
    // when the record there is not a ustar header (the header address then
    // points at that record, size and data still describe the last member).
    // Past the last member of an ordinary archive this is the zero record
    // that ends it: -2, and GetCurrFile() gives an empty name.
    int NextFile();
    // The data address of the member named exactly name (no "./" or trailing
    // "/" tolerance), searching from the current member on; the found member
    // becomes current. Stops at the end-of-archive record, at any walk error
    // and at the end; then rewinds to the first member and returns null, so a
    // member before the start of one search is found by the next. Null
    // without any search when there is no current header.
    const char* Find(const std::string& name);

    // The current header record, read as the member's name: NUL-terminated
    // unless the name fills all 100 bytes of its field (then it runs on into
    // the mode field). Null when no header was ever read.
    const char* GetCurrFile() const;
    // The current member's data length, from its header.
    unsigned int GetFileSize();
    // The address of the current member's first data byte, just after its
    // header (an address, not an offset). Null when no header was ever read.
    const char* GetFileOffset() const;

    // Reads the header at the current record offset: 0, or -1 when the
    // record does not fit whole before the end of the file, nothing is
    // mapped, or it lacks the "ustar" magic (then only the header address
    // moves to it).
    int GetRecord();

    // The value of an octal number as POSIX tar writes them: leading blanks
    // are skipped, then digits 0-7 are taken up to the first other byte, in
    // unsigned 32-bit arithmetic that wraps. "00000001750 " and " 1750" give
    // 1000, "12 " 10, "8", "a" and "" 0. text must be NUL-terminated.
    static unsigned int OctStr2DecInt(const char* text);

private:
    // NextFile without its offset result: 0, -1 or -2 as NextFile gives them,
    // so that Find can walk records that lie beyond 2 GiB.
    int StepToNextMember();
    // The bytes of the archive that may be read: the file's length, or the
    // mapping's if the file changed in between.
    uint32_t ReadableSize() const;
    // True when the 512-byte record at offset lies whole within the archive.
    bool RecordFits(uint64_t offset) const;
    // True when the current header's name is exactly name.
    bool CurrentNameIs(const std::string& name) const;

    CFile m_File;               // the archive, opened read-only
    CMappedMem m_Map;           // the whole archive, PROT_READ
    uint32_t m_RecordOffset;    // offset of the current header; a multiple of 512
    uint32_t m_FileSize;        // current member's data length
    const char* m_pFileData;    // current member's first data byte
    const char* m_pArchive;     // start of the mapping; null unless mapped
    uint32_t m_ArchiveSize;     // low 32 bits of the file's length
    uint32_t m_Padding;         // bytes from the end of the data to the next record
    const char* m_pHeader;      // current header record (and name)
    int32_t m_Status;           // construction status
};

}  // namespace KQ
