// What a session checks before it takes an output: that the output can ever be served by the
// session's inputs and the converters, so a wish that can never be met fails when capture
// starts instead of leaving a session that runs and delivers nothing.
#pragma once

#include <string>
#include <vector>

#include "platform/qtkit.h"

// True when the session's inputs (added before the output) can serve output; otherwise false
// with why set to a sentence a host can show. Any thread; touches neither the session nor the
// capture threads (a movie output's file is created and removed again to try the path).
bool SessionCanServe(const QTCaptureOutput* output,
                     const std::vector<QTCaptureDeviceInput*>& inputs, std::string& why);
