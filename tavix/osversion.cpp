#include "llib/mac/genutils.h"
#include "platform/gestalt.h"

static unsigned char TwoDecimalDigits(unsigned char value) {
    return static_cast<unsigned char>(((value / 10) % 10) << 4 | (value % 10));
}

unsigned short LMakeMacOSVersion(unsigned char major, unsigned char minor) {
    const unsigned char low =
        minor <= 8 ? static_cast<unsigned char>(minor << 4) : TwoDecimalDigits(minor);
    return static_cast<unsigned short>(TwoDecimalDigits(major) << 8 | low);
}

bool IsOSMacVersionOrLater(unsigned char major, unsigned char minor) {
    // The result of the query is not checked: an unanswered query compares as version 0.
    SInt32 version = 0;
    Gestalt(gestaltSystemVersion, &version);
    return version >= static_cast<SInt32>(LMakeMacOSVersion(major, minor));
}

bool IsOSMacTigerOrLater() {
    static const bool tigerOrLater = IsOSMacVersionOrLater(10, 4);
    return tigerOrLater;
}

bool IsOSMacLeopardOrLater() {
    static const bool leopardOrLater = IsOSMacVersionOrLater(10, 5);
    return leopardOrLater;
}
