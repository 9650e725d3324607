// The capture session: its inputs and outputs, and one capture thread per device input while
// it runs.
#include <algorithm>
#include <vector>

#include "capturethread.h"
#include "outputchecks.h"
#include "platform/qtkit.h"
#include "platform/virtualdevices.h"

QTCaptureSession::QTCaptureSession() = default;

QTCaptureSession::~QTCaptureSession() {
    stopRunning();
    for (QTCaptureDeviceInput* input : inputList)
        input->release();
    for (QTCaptureOutput* output : outputList)
        output->release();
}

bool QTCaptureSession::addInput(QTCaptureInput* input, NSError** error) {
    auto* deviceInput = dynamic_cast<QTCaptureDeviceInput*>(input);
    if (deviceInput == nullptr || deviceInput->device() == nullptr) {
        NSSetError(error, "Not a device input.");
        return false;
    }
    QTCaptureDevice* device = deviceInput->device();
    if (!device->isOpen() || virtualdevices::SessionRefusesInput(device->uniqueID()->str())) {
        NSSetError(error, "The session cannot take this input.");
        return false;
    }
    std::lock_guard<std::recursive_mutex> locked(mutex);
    if (std::find(inputList.begin(), inputList.end(), deviceInput) != inputList.end())
        return true;
    inputList.push_back(static_cast<QTCaptureDeviceInput*>(deviceInput->retain()));
    if (running.load())
        StartThread(deviceInput);
    return true;
}

void QTCaptureSession::removeInput(QTCaptureInput* input) {
    auto* deviceInput = dynamic_cast<QTCaptureDeviceInput*>(input);
    if (deviceInput == nullptr)
        return;
    StopThreads(deviceInput);
    std::lock_guard<std::recursive_mutex> locked(mutex);
    auto found = std::find(inputList.begin(), inputList.end(), deviceInput);
    if (found == inputList.end())
        return;
    inputList.erase(found);
    deviceInput->release();
}

bool QTCaptureSession::addOutput(QTCaptureOutput* output, NSError** error) {
    if (output == nullptr || virtualdevices::SessionRefusesOutput(output->kind())) {
        NSSetError(error, "The session cannot take this output.");
        return false;
    }
    // Checked against a snapshot of the inputs, without the lock: trying a movie file's path
    // touches the disk, and the capture threads take the lock for every sample.
    std::vector<QTCaptureDeviceInput*> present;
    {
        std::lock_guard<std::recursive_mutex> locked(mutex);
        present = inputList;
        for (QTCaptureDeviceInput* input : present)
            input->retain();
    }
    std::string why;
    const bool servable = SessionCanServe(output, present, why);
    for (QTCaptureDeviceInput* input : present)
        input->release();
    if (!servable) {
        NSSetError(error, why.c_str());
        return false;
    }
    {
        std::lock_guard<std::recursive_mutex> locked(mutex);
        if (std::find(outputList.begin(), outputList.end(), output) != outputList.end())
            return true;
        outputList.push_back(static_cast<QTCaptureOutput*>(output->retain()));
    }
    if (running.load())
        output->SessionStarted(this);
    return true;
}

void QTCaptureSession::removeOutput(QTCaptureOutput* output) {
    {
        std::lock_guard<std::recursive_mutex> locked(mutex);
        auto found = std::find(outputList.begin(), outputList.end(), output);
        if (found == outputList.end())
            return;
        outputList.erase(found);
    }
    // A capture thread may still hold a snapshot with the output; it stays alive through the
    // snapshot's reference.
    output->SessionStopped();
    output->release();
}

void QTCaptureSession::startRunning() {
    std::vector<QTCaptureOutput*> started;
    {
        std::lock_guard<std::recursive_mutex> locked(mutex);
        if (running.exchange(true))
            return;
        started = outputList;
        for (QTCaptureOutput* output : started)
            output->retain();
    }
    // Outputs learn about the session before samples flow.
    for (QTCaptureOutput* output : started) {
        output->SessionStarted(this);
        output->release();
    }
    std::lock_guard<std::recursive_mutex> locked(mutex);
    for (QTCaptureDeviceInput* input : inputList)
        StartThread(input);
}

void QTCaptureSession::stopRunning() {
    if (!running.exchange(false))
        return;
    StopThreads(nullptr);
    std::vector<QTCaptureOutput*> stopped;
    {
        std::lock_guard<std::recursive_mutex> locked(mutex);
        stopped = outputList;
        for (QTCaptureOutput* output : stopped)
            output->retain();
    }
    for (QTCaptureOutput* output : stopped) {
        output->SessionStopped();
        output->release();
    }
}

void QTCaptureSession::StartThread(QTCaptureDeviceInput* input) {
    threads.push_back(std::unique_ptr<CaptureThread>(new CaptureThread(this, input)));
}

void QTCaptureSession::StopThreads(const QTCaptureDeviceInput* only) {
    std::vector<std::unique_ptr<CaptureThread>> stopping;
    {
        std::lock_guard<std::recursive_mutex> locked(mutex);
        for (auto it = threads.begin(); it != threads.end();) {
            if (only == nullptr || (*it)->input() == only) {
                stopping.push_back(std::move(*it));
                it = threads.erase(it);
            } else {
                ++it;
            }
        }
    }
    // Joined without the lock: the threads take it to read the outputs.
    for (auto& thread : stopping)
        thread->RequestStop();
    for (auto& thread : stopping)
        thread->Join();
}

NSArray* QTCaptureSession::inputs() const {
    std::lock_guard<std::recursive_mutex> locked(mutex);
    return NSArray::arrayWithObjects(std::vector<NSObject*>(inputList.begin(), inputList.end()));
}

NSArray* QTCaptureSession::outputs() const {
    std::lock_guard<std::recursive_mutex> locked(mutex);
    return NSArray::arrayWithObjects(std::vector<NSObject*>(outputList.begin(), outputList.end()));
}

platform::StreamRequest QTCaptureSession::RequestFor(QTCaptureDeviceInput*) const {
    // The first video output's wishes (pixel format, size, frame interval) decide what the
    // device is asked for; the outputs convert what it cannot deliver. A recording that stores
    // Motion-JPEG asks for the camera's own JPEGs. The outputs are asked without the session's
    // lock: a delegate call holds the output's lock and may stop the session, which takes the
    // session's lock.
    QTCaptureDecompressedVideoOutput* video = nullptr;
    std::vector<QTCaptureMovieFileOutput*> movies;
    {
        std::lock_guard<std::recursive_mutex> locked(mutex);
        for (QTCaptureOutput* output : outputList) {
            auto* movie = dynamic_cast<QTCaptureMovieFileOutput*>(output);
            if (movie != nullptr)
                movies.push_back(static_cast<QTCaptureMovieFileOutput*>(movie->retain()));
            if (video == nullptr &&
                (video = dynamic_cast<QTCaptureDecompressedVideoOutput*>(output)) != nullptr)
                video->retain();
        }
    }
    platform::StreamRequest request;
    if (video != nullptr) {
        request = video->Request();
        video->release();
    }
    for (QTCaptureMovieFileOutput* movie : movies) {
        request.keepJPEG = request.keepJPEG || movie->encoding().video == MovieVideoCodec::MJPEG;
        movie->release();
    }
    return request;
}
