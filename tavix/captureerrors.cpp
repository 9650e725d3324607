// Why a capture, a recording or a control change failed, or why the device list came up short:
// the last error as text for the host.
#include <cstring>

#include "platform/devicebackend.h"
#include "tavixdevice.h"

size_t WholeCharacters(const std::string& text, size_t limit) {
    if (text.size() <= limit)
        return text.size();
    size_t length = limit;
    // Back off continuation bytes (10xxxxxx) to the lead byte of the cut character, and drop it.
    while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80)
        --length;
    return length;
}

namespace {

// Copies as much of `text` as fits into message, terminated; true when there is any text.
bool CopyError(const std::string& text, char* message, size_t size) {
    if (message != nullptr && size > 0) {
        const size_t length = WholeCharacters(text, size - 1);
        memcpy(message, text.data(), length);
        message[length] = 0;
    }
    return !text.empty();
}

} // namespace

bool TavixDeviceGetLastError(unsigned long handle, char* message, size_t size) {
    const TavixDevice* device = TavixDevice::GetDevice(handle);
    return CopyError(device != nullptr ? device->GetLastError() : std::string(), message, size);
}

bool TavixDeviceGetListError(char* message, size_t size) {
    // Each backend keeps what its own last listing found wrong.
    return CopyError(platform::DeviceListProblem(), message, size);
}
