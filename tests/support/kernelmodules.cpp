#include "support/kernelmodules.h"

#include <chrono>
#include <cstdlib>
#include <thread>

#include <unistd.h>

#include "support/tavix_helpers.h"

bool HaveGuestModules() {
    return getenv("TAVIX_VM_KROOT") != nullptr && getenv("TAVIX_VM_KVER") != nullptr;
}

bool Modprobe(const std::string& arguments) {
    if (!HaveGuestModules())
        return false;
    const std::string command = std::string("/usr/sbin/modprobe -d ") + getenv("TAVIX_VM_KROOT") +
                                " -S " + getenv("TAVIX_VM_KVER") + " " + arguments + " 2>&1";
    return system(command.c_str()) == 0;
}

bool Unload(std::string module) {
    constexpr std::chrono::seconds kPatience(90);
    for (char& c : module)
        c = c == '-' ? '_' : c;
    const std::string loaded = "/sys/module/" + module;
    return WaitUntil(
        [&] {
            if (access(loaded.c_str(), F_OK) != 0)
                return true;
            Modprobe("-r " + module);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            return false;
        },
        kPatience);
}
