// KqFile.cpp: the unbuffered file on a descriptor (Linux).
#include "KqFileHandle.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace KQ {
namespace {

// open() flags of a mode; unknown values open read-only.
int FlagsOf(CFile::Mode_e mode)
{
    switch (mode) {
    case CFile::eModeReadWrite:
        return O_RDWR;
    case CFile::eModeWrite:
        return O_WRONLY;
    case CFile::eModeAppend:
        return O_WRONLY | O_CREAT | O_APPEND;
    case CFile::eModeCreateNew:
        return O_WRONLY | O_CREAT | O_EXCL;
    case CFile::eModeTruncate:
        return O_WRONLY | O_CREAT | O_TRUNC;
    case CFile::eModeRead:
    default:
        return O_RDONLY;
    }
}

// A byte count from a read/write result: errors count as 0.
size_t CountOf(ssize_t result)
{
    return result < 0 ? 0 : static_cast<size_t>(result);
}

}  // namespace

CFile::CFile() : m_pHandle(new Handle_t{-1}), m_Access(eAccessRead) {}

CFile::CFile(const std::string& path, Mode_e mode, Access_e access, bool sync)
    : m_pHandle(new Handle_t{-1}), m_Access(eAccessRead)
{
    (void)Open(path, mode, access, sync);
}

CFile::~CFile()
{
    if (IsValid()) {
        close(m_pHandle->m_Descriptor);
    }
    delete m_pHandle;
}

bool CFile::IsValid() const
{
    return m_pHandle->m_Descriptor != -1;
}

bool CFile::Open(const std::string& path, Mode_e mode, Access_e access, bool sync)
{
    if (IsValid()) {
        return false;
    }
    m_Access = access;
    const int flags = FlagsOf(mode) | (sync ? O_SYNC : 0);
    m_pHandle->m_Descriptor = open(path.c_str(), flags, INTERNAL::AccessBitsOf(access).m_Permissions);
    return IsValid();
}

size_t CFile::Read(CSlice<unsigned char>& buffer)
{
    return CountOf(read(m_pHandle->m_Descriptor, buffer.m_pData, buffer.m_Length));
}

size_t CFile::Write(const CSlice<unsigned char>& buffer)
{
    return CountOf(write(m_pHandle->m_Descriptor, buffer.m_pData, buffer.m_Length));
}

bool CFile::Flush() const
{
    return fsync(m_pHandle->m_Descriptor) == 0;
}

long CFile::GetOffset() const
{
    return lseek(m_pHandle->m_Descriptor, 0, SEEK_CUR);
}

long CFile::Seek(long offset)
{
    return lseek(m_pHandle->m_Descriptor, offset, SEEK_CUR);
}

long CFile::SeekBegin(long offset)
{
    return lseek(m_pHandle->m_Descriptor, offset, SEEK_SET);
}

long CFile::SeekEnd(long offset)
{
    return lseek(m_pHandle->m_Descriptor, offset, SEEK_END);
}

long CFile::GetSize()
{
    const long offset = GetOffset();
    SeekEnd(0);
    const long size = GetOffset();
    SeekBegin(offset);
    return size;
}

bool CFile::IoControl(unsigned int request, void* arg)
{
    return ioctl(m_pHandle->m_Descriptor, static_cast<unsigned long>(request), arg) >= 0;
}

}  // namespace KQ
