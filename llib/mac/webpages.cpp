// The maker's web page addresses, and opening them in the web browser.
#include "llib/gen/stringtools.h"
#include "llib/mac/cfutils.h"
#include "llib/mac/makerconfig.h"

namespace {

constexpr unsigned long kAddressSize = 260;

} // namespace

int GetOrvelWebPageURL(char* out, const char* page) {
    if (page == nullptr)
        page = "";
    if (page[0] == '+')
        return static_cast<int>(
            tplsnprintf(out, kAddressSize, "http://%s/%s.html", LMAKER_PRIMARY_WEB_HOST, page + 1));
    return static_cast<int>(
        tplsnprintf(out, kAddressSize, "http://%s/%s.html", LMAKER_SECOND_WEB_HOST, page));
}

int GetKBWebPageURL(char* out, int number) {
    return static_cast<int>(
        tplsnprintf(out, kAddressSize, "http://%s/kb/%d.html", LMAKER_SECOND_WEB_HOST, number));
}

void OpenOrvelWebPage(const char* page) {
    char address[kAddressSize];
    GetOrvelWebPageURL(address, page);
    LCFURL().GotoURL(address);
}

void OpenKBWebPage(int number) {
    char address[kAddressSize];
    GetKBWebPageURL(address, number);
    LCFURL().GotoURL(address);
}
