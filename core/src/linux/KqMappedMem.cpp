// KqMappedMem.cpp: shared mappings of files and anonymous memory (Linux).
#include "KqFileHandle.h"

#include <sys/mman.h>

namespace KQ {

CMappedMem::CMappedMem() : m_pMemory(nullptr), m_Size(0) {}

CMappedMem::CMappedMem(CFile& file, unsigned long length, unsigned long offset) : m_pMemory(nullptr), m_Size(0)
{
    (void)MapFile(file, length, offset);
}

CMappedMem::CMappedMem(unsigned long size, CFile::Access_e access) : m_pMemory(nullptr), m_Size(0)
{
    (void)MapMemory(size, access);
}

CMappedMem::~CMappedMem()
{
    if (IsValid()) {
        (void)PerformUnmap();
    }
}

bool CMappedMem::IsValid() const
{
    return m_pMemory != nullptr;
}

bool CMappedMem::MapFile(CFile& file, unsigned long length, unsigned long offset)
{
    if (IsValid() || !file.IsValid()) {
        return false;
    }
    // A negative size cannot happen on an open file; it would make mmap fail.
    m_Size = length != 0 ? length : static_cast<unsigned long>(file.GetSize());
    PerformMap(file, offset);
    return IsValid();
}

bool CMappedMem::MapMemory(unsigned long size, CFile::Access_e access)
{
    if (IsValid()) {
        return false;
    }
    m_Size = size;
    // Opening the empty path fails, but the file keeps the access class: a
    // file that is not open makes PerformMap map anonymous memory.
    const CFile noFile("", CFile::eModeReadWrite, access, false);
    PerformMap(noFile, 0);
    return IsValid();
}

void* CMappedMem::GetPointer() const
{
    return m_pMemory;
}

unsigned long CMappedMem::GetSize() const
{
    return m_Size;
}

void CMappedMem::PerformMap(const CFile& file, unsigned long offset)
{
    const int descriptor = file.m_pHandle->m_Descriptor;
    const int flags = descriptor != -1 ? MAP_SHARED : MAP_SHARED | MAP_ANONYMOUS;
    void* memory = mmap(nullptr, m_Size, INTERNAL::AccessBitsOf(file.m_Access).m_Protection, flags, descriptor, static_cast<off_t>(offset));
    m_pMemory = memory == MAP_FAILED ? nullptr : memory;
}

int CMappedMem::PerformUnmap()
{
    return munmap(m_pMemory, m_Size);
}

}  // namespace KQ
