// KqSocketAddress.cpp: the socket address interface (its out-of-line
// destructor anchors the interface's type information in the library).
#include "KqSocket.h"

namespace KQ {

ISocketAddress::~ISocketAddress() = default;

}  // namespace KQ
