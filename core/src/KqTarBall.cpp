// KqTarBall.cpp: walking the header records of a mapped ustar archive
// (portable: CFile and CMappedMem do the system calls).
#include "KqTarBall.h"

#include <algorithm>
#include <cstring>

namespace KQ {
namespace {

const uint32_t RECORD_SIZE = 512;
const size_t NAME_FIELD_WIDTH = 100;
const size_t SIZE_FIELD_OFFSET = 124;
const size_t SIZE_FIELD_WIDTH = 12;
const size_t MAGIC_FIELD_OFFSET = 257;

// An octal number of at most width bytes: leading blanks skipped, then digits
// 0-7 up to the first other byte (NUL included), wrapping in 32 bits.
uint32_t ParseOctal(const char* text, size_t width)
{
    size_t i = 0;
    while (i < width && (text[i] == ' ' || text[i] == '\t')) {
        ++i;
    }
    uint32_t value = 0;
    for (; i < width && text[i] >= '0' && text[i] <= '7'; ++i) {
        value = value * 8u + static_cast<uint32_t>(text[i] - '0');
    }
    return value;
}

}  // namespace

CTarBall::CTarBall(const std::string& path)
    : m_File(path, CFile::eModeRead, CFile::eAccessRead, false),
      m_Map(m_File, 0, 0),
      m_RecordOffset(0),
      m_FileSize(0),
      m_pFileData(nullptr),
      m_pArchive(nullptr),
      m_ArchiveSize(0),
      m_Padding(0),
      m_pHeader(nullptr),
      m_Status(0)
{
    if (!m_File.IsValid()) {
        m_Status = -2;
        return;
    }
    m_ArchiveSize = static_cast<uint32_t>(m_File.GetSize());
    if (!m_Map.IsValid()) {
        m_Status = -3;
        return;
    }
    m_pArchive = static_cast<const char*>(m_Map.GetPointer());
    if (GetRecord() != 0) {
        m_Status = -4;
    }
}

int CTarBall::GetStatus() const
{
    return m_Status;
}

bool CTarBall::IsFileOk() const
{
    return m_pArchive != nullptr && m_Status == 0;
}

int CTarBall::Rewind()
{
    m_RecordOffset = 0;
    return GetRecord();
}

int CTarBall::NextFile()
{
    const int result = StepToNextMember();
    return result < 0 ? result : static_cast<int>(m_RecordOffset);
}

const char* CTarBall::Find(const std::string& name)
{
    if (m_pHeader == nullptr) {
        return nullptr;
    }
    while (m_pHeader[0] != '\0') {
        if (CurrentNameIs(name)) {
            return m_pFileData;
        }
        if (StepToNextMember() < 0) {
            break;
        }
    }
    (void)Rewind();
    return nullptr;
}

const char* CTarBall::GetCurrFile() const
{
    return m_pHeader;
}

unsigned int CTarBall::GetFileSize()
{
    return m_FileSize;
}

const char* CTarBall::GetFileOffset() const
{
    return m_pFileData;
}

int CTarBall::GetRecord()
{
    if (!RecordFits(m_RecordOffset)) {
        return -1;
    }
    const char* header = m_pArchive + m_RecordOffset;
    m_pHeader = header;
    if (memcmp(header + MAGIC_FIELD_OFFSET, "ustar", 5) != 0) {
        return -1;
    }
    m_FileSize = ParseOctal(header + SIZE_FIELD_OFFSET, SIZE_FIELD_WIDTH);
    const uint32_t tail = m_FileSize % RECORD_SIZE;
    m_Padding = tail != 0 ? RECORD_SIZE - tail : 0;
    m_pFileData = header + RECORD_SIZE;
    return 0;
}

unsigned int CTarBall::OctStr2DecInt(const char* text)
{
    return ParseOctal(text, SIZE_MAX);
}

int CTarBall::StepToNextMember()
{
    if (m_pArchive == nullptr) {
        return -1;
    }
    // Summed in 64 bits so that a huge size cannot wrap back into the archive.
    const uint64_t next = uint64_t(m_RecordOffset) + m_FileSize + m_Padding + RECORD_SIZE;
    m_RecordOffset = static_cast<uint32_t>(next);
    if (!RecordFits(next)) {
        return -1;
    }
    return GetRecord() == 0 ? 0 : -2;
}

uint32_t CTarBall::ReadableSize() const
{
    return static_cast<uint32_t>(std::min<uint64_t>(m_ArchiveSize, m_Map.GetSize()));
}

bool CTarBall::RecordFits(uint64_t offset) const
{
    return m_pArchive != nullptr && offset + RECORD_SIZE <= ReadableSize();
}

bool CTarBall::CurrentNameIs(const std::string& name) const
{
    // A name of the whole field's width has no NUL of its own.
    const void* nul = memchr(m_pHeader, '\0', NAME_FIELD_WIDTH);
    const size_t length = nul != nullptr ? static_cast<size_t>(static_cast<const char*>(nul) - m_pHeader) : NAME_FIELD_WIDTH;
    return length == name.size() && memcmp(m_pHeader, name.data(), length) == 0;
}

}  // namespace KQ
