// The diagnostic identity line: platform, thread tag, last dialog and activity.
#include <cstdio>

#include "llib/gen/debug.h"
#include "llib/mac/genutils.h"

namespace {

void DescribeCommand(char (&activity)[260]) {
    const unsigned int command = gwDebugCurrentCommand;
    switch (command) {
    case 0:
        snprintf(activity, sizeof activity, "Ukn0(LstCmd%d)", static_cast<int>(gwDebugLastCommand));
        break;
    case 1:
        snprintf(activity, sizeof activity, "GloIni1");
        break;
    case 2:
        snprintf(activity, sizeof activity, "GuiIni2");
        break;
    case 3:
        snprintf(activity, sizeof activity, "GuiDes3");
        break;
    case 4:
        snprintf(activity, sizeof activity, "GloDes4");
        break;
    default:
        snprintf(activity, sizeof activity, "(Cmd%d)", static_cast<int>(command));
        break;
    }
}

} // namespace

int LDebugGenerateXIString(char* destination, const char* first, const char* second) {
    destination[0] = 0;
    unsigned char major = 0, minor = 0;
    LGetOSVersion(major, minor);
    char platform[260];
    snprintf(platform, sizeof platform, "Mac%s%d%02d", "Intel", major, minor);

    char tag[8] = "Unknown";
    char lastDialog[32] = "";
    const unsigned int port = LDebugCurrentThreadPort();
    loDebugThreads.Lock();
    for (unsigned int i = 0; i < gnDebugThreads && i < LDEBUG_MAX_THREADS; ++i) {
        const LDebugThreadData& record = gDebugThreadData[i];
        if (__atomic_load_n(&record.dwThreadId, __ATOMIC_ACQUIRE) != port)
            continue;
        if (record.szTag[0] >= '0' && record.szTag[0] <= '9')
            tag[0] = 0;
        else
            snprintf(tag, sizeof tag, "%s", record.szTag);
        snprintf(lastDialog, sizeof lastDialog, "%s", record.szLastDialog);
        break;
    }
    loDebugThreads.Unlock();

    char activity[260] = "";
    if (debugAS.dwThreadId == port)
        snprintf(activity, sizeof activity, "%s", debugAS.szStatus);
    else if (port == gdwMainThreadId)
        DescribeCommand(activity);

    char tail[260];
    snprintf(tail, sizeof tail, "%s%s%s", tag, lastDialog, activity);
    return snprintf(destination, 260, "%s-%s-%s-%s", first != nullptr ? first : "", platform,
                    second != nullptr ? second : "", tail);
}
