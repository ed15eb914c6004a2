// KqPtrRef.cpp: dropping references and freeing reference-count blocks
// (portable).
#include "KqCore.h"

namespace KQ {

void CPtrRef::DelRef()
{
    if (Atomic::Decrement(&m_RefCount) == 0) {
        m_pDeleteSelf(this);
    }
}

template <>
void CPtrRef::Deleter_t<CPtrRef>::Delete(void* p) noexcept
{
    if (p == nullptr) {
        return;
    }
    CPtrRef* block = static_cast<CPtrRef*>(p);
    block->m_pDelete(block->m_pObject);
    delete block;
}

}  // namespace KQ
