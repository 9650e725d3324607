#include "support/vivid.h"

#include <linux/videodev2.h>
#include <sys/ioctl.h>

#include <cstring>

bool SetControl(int fd, const char* name, int value) {
    v4l2_queryctrl query{};
    query.id = V4L2_CTRL_FLAG_NEXT_CTRL;
    while (ioctl(fd, VIDIOC_QUERYCTRL, &query) == 0) {
        if (strcmp(reinterpret_cast<const char*>(query.name), name) == 0) {
            v4l2_control control{query.id, value};
            return ioctl(fd, VIDIOC_S_CTRL, &control) == 0;
        }
        query.id |= V4L2_CTRL_FLAG_NEXT_CTRL;
    }
    return false;
}

bool PressButton(int fd, const char* name) {
    return SetControl(fd, name, 1);
}
