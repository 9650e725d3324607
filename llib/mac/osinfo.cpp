// The system version as two numbers, and whether the machine runs 64-bit code.
#include <sys/utsname.h>

#include <cstring>

#include "llib/mac/genutils.h"
#include "platform/gestalt.h"

namespace {

// A byte of the packed version read as two decimal digits: 0x10 is 10, 0x68 is 68.
unsigned char DecimalDigits(unsigned int byte) {
    return static_cast<unsigned char>(((byte >> 4) & 0xF) * 10 + (byte & 0xF));
}

} // namespace

void LGetOSVersion(unsigned char& first, unsigned char& second) {
    SInt32 version = 0;
    Gestalt(gestaltSystemVersion, &version);
    first = DecimalDigits((static_cast<unsigned int>(version) >> 8) & 0xFF);
    second = DecimalDigits(static_cast<unsigned int>(version) & 0xFF);
}

bool LIsOS64Bit() {
    if (!IsOSMacLeopardOrLater())
        return false;
    // The machine name the kernel reports stands for the processor's 64-bit ability.
    utsname names{};
    if (uname(&names) != 0)
        return false;
    return strcmp(names.machine, "x86_64") == 0 || strcmp(names.machine, "aarch64") == 0 ||
           strcmp(names.machine, "ppc64le") == 0 || strcmp(names.machine, "s390x") == 0 ||
           strcmp(names.machine, "riscv64") == 0;
}
