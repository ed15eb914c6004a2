// KqBufferedFile.cpp: the buffered file on a stdio stream (Linux: fileno).
#include "KqFile.h"

#include <stdio.h>

namespace KQ {
namespace {

// fopen mode string of a mode; null for values without one.
const char* ModeStringOf(CBufferedFile::Mode_e mode)
{
    switch (mode) {
    case CBufferedFile::eModeRead:
        return "rb";
    case CBufferedFile::eModeReadWrite:
        return "r+b";
    case CBufferedFile::eModeAppend:
        return "ab";
    case CBufferedFile::eModeTruncate:
        return "wb";
    default:
        return nullptr;
    }
}

// fseek without looking at its result, then the position: a failed seek
// gives the unchanged position. 0 without a stream.
long SeekAndTell(FILE* stream, long offset, int whence)
{
    if (stream == nullptr) {
        return 0;
    }
    fseek(stream, offset, whence);
    return ftell(stream);
}

}  // namespace

CBufferedFile::CBufferedFile() : m_pStream(nullptr) {}

CBufferedFile::CBufferedFile(const std::string& path, Mode_e mode, unsigned long bufferSize) : m_pStream(nullptr)
{
    (void)Open(path, mode, bufferSize);
}

CBufferedFile::~CBufferedFile()
{
    if (IsValid()) {
        fclose(m_pStream);
    }
}

bool CBufferedFile::IsValid() const
{
    return m_pStream != nullptr;
}

bool CBufferedFile::Open(const std::string& path, Mode_e mode, unsigned long bufferSize)
{
    const char* modeString = ModeStringOf(mode);
    if (IsValid() || modeString == nullptr) {
        return false;
    }
    m_pStream = fopen(path.c_str(), modeString);
    if (m_pStream == nullptr) {
        return false;
    }
    // stdio allocates the buffer itself; a refused size keeps its default.
    (void)setvbuf(m_pStream, nullptr, _IOFBF, bufferSize);
    return true;
}

size_t CBufferedFile::Read(CSlice<unsigned char>& buffer)
{
    return IsValid() ? fread(buffer.m_pData, 1, buffer.m_Length, m_pStream) : 0;
}

size_t CBufferedFile::Write(const CSlice<unsigned char>& buffer)
{
    return IsValid() ? fwrite(buffer.m_pData, 1, buffer.m_Length, m_pStream) : 0;
}

bool CBufferedFile::Flush() const
{
    return IsValid() && fflush(m_pStream) == 0;
}

long CBufferedFile::GetOffset() const
{
    return IsValid() ? ftell(m_pStream) : 0;
}

long CBufferedFile::GetSize()
{
    if (!IsValid()) {
        return 0;
    }
    const long position = ftell(m_pStream);
    fseek(m_pStream, 0, SEEK_END);
    const long size = ftell(m_pStream);
    fseek(m_pStream, position, SEEK_SET);
    return size;
}

long CBufferedFile::Seek(long offset)
{
    return SeekAndTell(m_pStream, offset, SEEK_CUR);
}

long CBufferedFile::SeekBegin(long offset)
{
    return SeekAndTell(m_pStream, offset, SEEK_SET);
}

long CBufferedFile::SeekEnd(long offset)
{
    return SeekAndTell(m_pStream, offset, SEEK_END);
}

int CBufferedFile::GetFileNo() const
{
    return IsValid() ? fileno(m_pStream) : -1;
}

}  // namespace KQ
