// Uses the installed library through its umbrella header.
#include "Kq.h"

#include <string>

int main()
{
    std::string hex;
    KQ::HexStream(hex, reinterpret_cast<const unsigned char*>("KQ"), 2);
    KQ::MyPrintf("consumer: %s at %llu ms", hex.c_str(), static_cast<unsigned long long>(KQ::Time::GetUptime()));
    return hex == "4B 51 " ? 0 : 1;
}
