// Format records and sets, the per-device caches, format discovery with the default-format
// probe, and the conversion of captured sound.
#include "tavixdeviceformat.h"

#include <cstdlib>
#include <mutex>
#include <strings.h>

#include "llib/gen/llibbase.h"
#include "llib/gen/signalobject.h"
#include "platform/events.h"
#include "platform/qtkit.h"

LList<TavixDeviceData<TavixDeviceFormatHolder>> DevicesFormats __attribute__((init_priority(1008)));
LList<TavixDeviceData<TavixDeviceFormat>> DefaultVideoFormats __attribute__((init_priority(1009)));

namespace {

// Guards the two cache lists, so threads may enumerate different devices at once. Never held
// while a device is probed or a host's enumerator runs: a probe takes seconds (and on the main
// thread dispatches events, which may enumerate again), and an enumerator may call back in.
// Nodes are filled before they are linked and stay until unload, so a found node is read
// without the lock.
std::mutex cacheMutex;

template <class T>
T* FindCached(LList<TavixDeviceData<T>>& list, const char* id) {
    std::lock_guard<std::mutex> locked(cacheMutex);
    return TavixFindDeviceData(list, id);
}

// Links a filled node, unless another thread cached the device meanwhile: then the node is
// dropped and the first answer kept. Returns the cached data.
template <class T>
T* Cache(LList<TavixDeviceData<T>>& list, TavixDeviceData<T>* node) {
    std::lock_guard<std::mutex> locked(cacheMutex);
    if (T* earlier = TavixFindDeviceData(list, node->szDeviceID)) {
        delete node;
        return earlier;
    }
    list.Add(node);
    return &node->Data;
}

// Empties both caches at unload, the default formats first (the reverse of their set-up).
struct FormatCachesTearDown {
    ~FormatCachesTearDown() {
        DefaultVideoFormats.Clear();
        DevicesFormats.Clear();
    }
} formatCachesTearDown __attribute__((init_priority(1009)));

struct Resolution {
    unsigned int width, height;
};
const Resolution resolutions[] = {{160, 120},  {320, 240},   {352, 288}, {640, 480},
                                  {1280, 720}, {1920, 1080}, {0, 0}};

// 'A', 'R', 'G', 'B' in memory on a little-endian machine: 'BGRA' as a four-character code.
constexpr unsigned int kFallbackPixelFormat = 0x42475241;
constexpr unsigned int kProbeTimeoutMs = 5000;

const char* UniqueID(QTCaptureDevice* device) {
    NSString* id = device->uniqueID();
    return id != nullptr ? id->cStringUsingEncoding(NSUTF8StringEncoding) : nullptr;
}

} // namespace

bool TavixDeviceFormatSet::Add(const TavixDeviceFormat& format) {
    for (unsigned int i = 0; i < dwCount; ++i)
        if (Formats[i] == format)
            return false;
    if (dwCount >= kMaxRecords)
        return false;
    Formats[dwCount++] = format;
    return true;
}

int TavixDeviceFormatSet::CompareFunc(const void* a, const void* b) {
    const auto& x = *static_cast<const TavixDeviceFormat*>(a);
    const auto& y = *static_cast<const TavixDeviceFormat*>(b);
    if (x.dwWidth != y.dwWidth)
        return x.dwWidth > y.dwWidth ? -1 : 1;
    if (x.dwHeight != y.dwHeight)
        return x.dwHeight > y.dwHeight ? -1 : 1;
    if (x.dwFormat != y.dwFormat)
        return x.dwFormat < y.dwFormat ? -1 : 1;
    return 0;
}

void TavixDeviceFormatSet::Sort() {
    qsort(Formats, dwCount, sizeof(TavixDeviceFormat), &CompareFunc);
}

bool TavixDeviceFormatHolder::OnDeviceFormatAudio(unsigned long format) {
    AudioFormats.Add(TavixDeviceFormat(static_cast<unsigned int>(format), 0, 0, 0));
    return true;
}

bool TavixDeviceFormatHolder::OnDeviceFormatVideo(unsigned long format, unsigned long width,
                                                  unsigned long height) {
    VideoFormats.Add(TavixDeviceFormat(static_cast<unsigned int>(format),
                                       static_cast<unsigned int>(width),
                                       static_cast<unsigned int>(height), 0));
    return true;
}

void TavixDeviceFormatHolder::Sort() {
    AudioFormats.Sort();
    VideoFormats.Sort();
}

void TavixDeviceFormatHolder::EnumerateFormats(ITavixDeviceFormatEnumerator& enumerator) const {
    for (unsigned int i = 0; i < AudioFormats.dwCount; ++i)
        if (!enumerator.OnDeviceFormatAudio(AudioFormats[i].dwFormat))
            break;
    for (unsigned int i = 0; i < VideoFormats.dwCount; ++i)
        if (!enumerator.OnDeviceFormatVideo(VideoFormats[i].dwFormat, VideoFormats[i].dwWidth,
                                            VideoFormats[i].dwHeight))
            break;
}

// The probe's delegate: records the first frame's format and size and signals.
class TavixDEviceGetDefaultVideoFormatDelegate : public NSObject,
                                                 public QTCaptureDecompressedVideoOutputDelegate {
public:
    explicit TavixDEviceGetDefaultVideoFormatDelegate(TavixDeviceFormat* format)
        : pFormatHolder(format) {}

    void captureOutput(QTCaptureOutput*, CVImageBufferRef frame, QTSampleBuffer*,
                       QTCaptureConnection*) override {
        CVPixelBufferLockBaseAddress(frame, 0);
        pFormatHolder->dwFormat = CVPixelBufferGetPixelFormatType(frame);
        pFormatHolder->dwWidth = static_cast<unsigned int>(CVPixelBufferGetWidth(frame));
        pFormatHolder->dwHeight = static_cast<unsigned int>(CVPixelBufferGetHeight(frame));
        pFormatHolder->dwBytesPerRow =
            static_cast<unsigned int>(CVPixelBufferGetBytesPerRow(frame));
        CVPixelBufferUnlockBaseAddress(frame, 0);
        Condition.Signal();
    }

    // Waits for the first frame: on the main thread while dispatching its events, so whatever
    // the platform delivers through them flows; elsewhere on the signal alone.
    bool wait() {
        if (!TavixIsMainThread())
            return Condition.WaitSignal(kProbeTimeoutMs);
        const unsigned int begin = GetTickCount();
        for (;;) {
            if (GetTickCount() - begin > kProbeTimeoutMs - 1)
                return false;
            const ItemCount pending = GetNumEventsInQueue(GetMainEventQueue()) + 1;
            for (ItemCount i = 0; i < pending; ++i) {
                EventRef event = nullptr;
                if (ReceiveNextEvent(0, nullptr, kEventDurationNoWait, true, &event) != noErr)
                    break;
                SendEventToEventTarget(event, GetEventDispatcherTarget());
                ReleaseEvent(event);
            }
            if (Condition.WaitSignal(100))
                return true;
        }
    }

    TavixDeviceFormat* pFormatHolder;
    LSignalObject Condition;
};

namespace {

// A short capture whose first frame tells the device's default format.
void ProbeDefaultVideoFormat(QTCaptureDevice* device, TavixDeviceFormat* format) {
    const bool wasOpen = device->isOpen();
    auto* session = new QTCaptureSession;
    QTCaptureDeviceInput* input = nullptr;
    QTCaptureDecompressedVideoOutput* output = nullptr;
    TavixDEviceGetDefaultVideoFormatDelegate* delegate = nullptr;
    NSError* error = nullptr;
    if (wasOpen || device->open(&error)) {
        input = new QTCaptureDeviceInput(device);
        if (session->addInput(input, &error)) {
            delegate = new TavixDEviceGetDefaultVideoFormatDelegate(format);
            output = new QTCaptureDecompressedVideoOutput;
            output->setDelegate(delegate);
            if (session->addOutput(output, &error)) {
                session->startRunning();
                delegate->wait();
            }
        }
    }
    if (session->isRunning())
        session->stopRunning();
    if (!wasOpen && device->isOpen())
        device->close();
    if (output != nullptr)
        output->setDelegate(nullptr);
    NSReleaseIfSet(output);
    NSReleaseIfSet(delegate);
    NSReleaseIfSet(input);
    session->release();
}

bool ReportVideoSizes(ITavixDeviceFormatEnumerator* enumerator, unsigned int format,
                      unsigned int width, unsigned int height) {
    if (!enumerator->OnDeviceFormatVideo(format, width, height))
        return false;
    for (const Resolution* r = resolutions; r->width != 0 || r->height != 0; ++r)
        if (r->width < width && r->height < height &&
            !enumerator->OnDeviceFormatVideo(format, r->width, r->height))
            return false;
    return true;
}

bool EnumerateVideo(QTCaptureDevice* device, NSDictionary* attributes,
                    ITavixDeviceFormatEnumerator* enumerator) {
    const bool muxed = device->hasMediaType(QTMediaTypeMuxed);
    unsigned int width = muxed ? 720 : 640, height = muxed ? 576 : 480;
    if (muxed)
        return ReportVideoSizes(enumerator, kFallbackPixelFormat, width, height);
    if (const char* id = UniqueID(device)) {
        TavixDeviceFormat* known = FindCached(DefaultVideoFormats, id);
        if (known == nullptr) {
            auto* node = new TavixDeviceData<TavixDeviceFormat>(id);
            ProbeDefaultVideoFormat(device, &node->Data);
            known = Cache(DefaultVideoFormats, node);
        }
        if (known->dwFormat != 0)
            return ReportVideoSizes(enumerator, known->dwFormat, known->dwWidth, known->dwHeight);
    }
    if (auto* size = dynamic_cast<NSValue*>(
            attributes->objectForKey(QTFormatDescriptionVideoEncodedPixelsSizeAttribute))) {
        const NSSize pixels = size->sizeValue();
        width = pixels.width > 0 ? static_cast<unsigned int>(pixels.width) : 0;
        height = pixels.height > 0 ? static_cast<unsigned int>(pixels.height) : 0;
    }
    return ReportVideoSizes(enumerator, kFallbackPixelFormat, width, height);
}

bool EnumerateMuxed(QTCaptureDevice* device, ITavixDeviceFormatEnumerator* enumerator) {
    const bool wasOpen = device->isOpen();
    if (!wasOpen && !device->open(nullptr))
        return false;
    auto* input = new QTCaptureDeviceInput(device);
    NSArray* connections = input->connections();
    bool handled = true;
    for (size_t i = 0; i < connections->count() && handled; ++i) {
        auto* connection = static_cast<QTCaptureConnection*>(connections->objectAtIndex(i));
        handled = TavixDeviceFormatEnumerateEx(device, connection->formatDescription(), enumerator);
    }
    input->release();
    if (!wasOpen)
        device->close();
    return handled;
}

} // namespace

bool TavixDeviceFormatEnumerateEx(QTCaptureDevice* device, QTFormatDescription* description,
                                  ITavixDeviceFormatEnumerator* enumerator) {
    if (device == nullptr || description == nullptr || enumerator == nullptr)
        return true;
    NSDictionary* attributes = description->formatDescriptionAttributes();
    const UInt32 formatType = description->formatType();
    NSString* mediaType = description->mediaType();
    if (mediaType->isEqualToString(QTMediaTypeSound))
        return enumerator->OnDeviceFormatAudio(formatType);
    if (mediaType->isEqualToString(QTMediaTypeVideo))
        return EnumerateVideo(device, attributes, enumerator);
    if (mediaType->isEqualToString(QTMediaTypeMuxed))
        return EnumerateMuxed(device, enumerator);
    return true;
}

bool TavixDeviceFormatEnumerateEx(QTCaptureDevice* device,
                                  ITavixDeviceFormatEnumerator* enumerator) {
    if (device == nullptr || enumerator == nullptr)
        return false;
    const char* id = UniqueID(device);
    if (id == nullptr)
        return false;
    if (TavixDeviceFormatHolder* holder = FindCached(DevicesFormats, id)) {
        holder->EnumerateFormats(*enumerator);
        return holder->IsValid();
    }
    auto* node = new TavixDeviceData<TavixDeviceFormatHolder>(id);
    NSArray* descriptions = device->formatDescriptions();
    for (size_t i = 0; i < descriptions->count(); ++i)
        TavixDeviceFormatEnumerateEx(
            device, static_cast<QTFormatDescription*>(descriptions->objectAtIndex(i)), &node->Data);
    node->Data.Sort();
    Cache(DevicesFormats, node)->EnumerateFormats(*enumerator);
    return true;
}
