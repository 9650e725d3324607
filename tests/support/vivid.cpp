#include "support/vivid.h"

#include <linux/videodev2.h>
#include <sys/ioctl.h>

#include <cctype>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

// The name v4l2-ctl shows for a control: lower case, runs of other characters as one '_'.
std::string ShortName(const char* name) {
    std::string result;
    for (const char* p = name; *p; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (isalnum(c))
            result += static_cast<char>(tolower(c));
        else if (!result.empty() && result.back() != '_')
            result += '_';
    }
    while (!result.empty() && result.back() == '_')
        result.pop_back();
    return result;
}

} // namespace

bool SetControl(int fd, const std::string& name, int64_t value) {
    v4l2_query_ext_ctrl query{};
    query.id = V4L2_CTRL_FLAG_NEXT_CTRL;
    while (ioctl(fd, VIDIOC_QUERY_EXT_CTRL, &query) == 0) {
        if (name == query.name || name == ShortName(query.name)) {
            v4l2_ext_control control{};
            control.id = query.id;
            control.value64 = value;
            if (query.type != V4L2_CTRL_TYPE_INTEGER64)
                control.value = static_cast<int32_t>(value);
            v4l2_ext_controls controls{};
            controls.which = V4L2_CTRL_WHICH_CUR_VAL;
            controls.count = 1;
            controls.controls = &control;
            return ioctl(fd, VIDIOC_S_EXT_CTRLS, &controls) == 0;
        }
        query.id |= V4L2_CTRL_FLAG_NEXT_CTRL;
    }
    return false;
}

bool SetControl(const std::string& node, const std::string& name, int64_t value) {
    const int fd = open(node.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool set = SetControl(fd, name, value);
    close(fd);
    return set;
}

bool PressButton(int fd, const char* name) {
    return SetControl(fd, name, 1);
}
