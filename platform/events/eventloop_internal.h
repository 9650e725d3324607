// What the event queue and the main run loop tell each other: the queue runs the run loop's
// socket callbacks while it waits, and the run loop wakes a waiting receiver when its set of
// watched descriptors changes.
#pragma once

#include <cstddef>
#include <poll.h>
#include <vector>

struct __CFRunLoopSource;

namespace platform {

// One pass of the main run loop: the descriptors to watch and the sources they belong to (each
// held with a reference until the pass ends).
struct RunLoopPass {
    std::vector<pollfd> fds;
    std::vector<__CFRunLoopSource*> sources;
};

// Appends the main run loop's watched descriptors (default and common modes) to the pass.
void MainRunLoopPrepare(RunLoopPass& pass);
// Calls the callback of every source whose descriptor poll reported readable (fds[first + i]
// belongs to sources[i]) and that is still in the run loop; then drops the pass's references.
void MainRunLoopFinish(RunLoopPass& pass, size_t first);

// Wakes a thread waiting in ReceiveNextEvent so it looks at the queue and the sources again.
void WakeMainEventLoop();

} // namespace platform
