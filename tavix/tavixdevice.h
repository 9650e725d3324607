// A device slot of the registry, and the delegates that turn platform frames and sound into the
// host's callbacks.
#pragma once

#include <memory>
#include <string>

#include "llib/gen/mutex.h"
#include "llib/mac/tavix.h"
#include "platform/qtkit.h"

class ITavixDeviceEnumeratorEx {
public:
    // True to go on, false to stop.
    virtual bool OnDevice(const char* name, QTCaptureDevice* device) = 0;
};

class TavixDeviceFinder : public ITavixDeviceEnumeratorEx {
public:
    TavixDeviceFinder(const char* name, TavixDeviceMediaType type)
        : pszName(name), MediaType(type), pFoundDevice(nullptr) {}
    bool OnDevice(const char* name, QTCaptureDevice* device) override;
    const char* pszName;
    TavixDeviceMediaType MediaType;
    QTCaptureDevice* pFoundDevice;
};

class TavixDeviceEnumeratorExWrapper : public ITavixDeviceEnumeratorEx {
public:
    TavixDeviceEnumeratorExWrapper(ITavixDeviceEnumerator* enumerator, TavixDeviceMediaType type,
                                   unsigned int flags)
        : pEnumerator(enumerator), MediaType(type), dwFlags(flags) {}
    bool OnDevice(const char* name, QTCaptureDevice* device) override;
    ITavixDeviceEnumerator* pEnumerator;
    TavixDeviceMediaType MediaType;
    unsigned int dwFlags;
};

// The frame delegate: one host video callback, cut off safely by invalidation.
class TavixDeviceDecompressedVideoOutputDelegate : public NSObject,
                                                   public QTCaptureDecompressedVideoOutputDelegate {
public:
    // initWithVideoCallBack:VideoCallBackData:
    TavixDeviceDecompressedVideoOutputDelegate(TavixDeviceVideoCallBack callBack,
                                               long callBackData);
    void captureOutput(QTCaptureOutput* output, CVImageBufferRef videoFrame,
                       QTSampleBuffer* sampleBuffer, QTCaptureConnection* connection) override;
    bool getSMPTETime(SMPTETime* time);
    bool invalidateVideoCallBack(TavixDeviceVideoCallBack callBack, long callBackData);

    TavixDeviceVideoCallBack pVideoCallBack;
    long VideoCallBackData; // kept at the full width of long, so a host may pass a pointer
    SMPTETime* pSMPTETimeStamp;
    SMPTETime SMPTETimeStampHolder;
    LLockObject DelegateMutex;
};

// The sample delegate: converts each sound buffer into the host's format and calls it.
class TavixDeviceDecompressedAudioOutputDelegate : public NSObject,
                                                   public QTCaptureDecompressedAudioOutputDelegate {
public:
    // initWithAudioCallBack:AudioCallBackData:CASampleFormatFlags:SampleRate:Channels:BytesPerSample:
    TavixDeviceDecompressedAudioOutputDelegate(TavixDeviceAudioCallBack callBack, long callBackData,
                                               unsigned int flags, unsigned long sampleRate,
                                               unsigned long channels,
                                               unsigned long bytesPerSample);
    void captureOutput(QTCaptureOutput* output, QTSampleBuffer* sampleBuffer,
                       QTCaptureConnection* connection) override;
    // The host's format (OutputStreamDescription), so the session can refuse one it cannot make.
    bool wantedFormat(AudioStreamBasicDescription* format) const override;
    bool invalidateAudioCallBack(TavixDeviceAudioCallBack callBack, long callBackData);

    TavixDeviceAudioCallBack pAudioCallBack;
    long AudioCallBackData;
    AudioStreamBasicDescription InputStreamDescription;
    AudioStreamBasicDescription OutputStreamDescription;
    AudioConverterRef AudioConverter;
    unsigned char ConvertSamplesBuffer[65535];
    LLockObject DelegateMutex;

protected:
    ~TavixDeviceDecompressedAudioOutputDelegate() override; // dealloc
};

// The host's control change callback of one device slot, and the device that feeds it.
struct TavixControlWatch;
// Stops a watch taken from a slot whose last reference went: waits for a running call of its
// callback (unless made from inside it) and stops the device's reports. Without the registry
// lock, since the callback may call the registry.
void TavixEndControlWatch(const std::shared_ptr<TavixControlWatch>& watch);

// The length of the longest prefix of text, at most limit bytes, that ends on a whole UTF-8
// character.
size_t WholeCharacters(const std::string& text, size_t limit);

class TavixDevice {
public:
    static void Enumerate(ITavixDeviceEnumeratorEx* enumerator);
    static TavixDevice* GetDevice(unsigned long handle);
    static QTCaptureDevice* GetQTDevice(unsigned long handle);
    static TavixDevice* GetDevice(const char* name, TavixDeviceMediaType type);
    static TavixDevice* CreateDevice(const char* name, TavixDeviceMediaType type);
    void Retain();
    // Drops a reference; the last one clears the slot and hands back its control watch, which
    // the caller ends once it no longer holds the registry lock.
    std::shared_ptr<TavixControlWatch> Release();
    void Clear();
    static bool HasUsedDevices();
    static bool DumpUsedDevices();
    static bool IsMediaTypeSupported(TavixDeviceMediaType type);
    static bool HasMediaType(QTCaptureDevice* device, TavixDeviceMediaType type);
    bool HasMediaType(TavixDeviceMediaType type) const;

    bool Open();
    bool Close();
    bool IsOpened() const;
    bool IsConnected() const;
    bool IsUsedByAnotherApplication() const;
    void CreateAudioDevice(const char* name);
    bool CloseAudioDevice();
    static bool CloseAllAudioDevices();

    bool StartCapture(TavixDeviceVideoCallBack videoCallBack, long videoCallBackData,
                      unsigned long pixelFormat, unsigned long width, unsigned long height,
                      TavixDeviceAudioCallBack audioCallBack, long audioCallBackData,
                      unsigned int sampleFormatFlags, unsigned long sampleRate,
                      unsigned long channels, unsigned long bytesPerSample,
                      const char* outputFilePath);
    bool StopCapture();
    // Stops the session if it runs and releases every session object (StopCapture's work).
    void TearDownSession();
    bool StopRecording();
    // Takes the movie output out of the session (finishing its file) and keeps its counts.
    void EndRecording();
    // The pictures of the current recording, or of the last one: in the file and not; false
    // when no recording has started since the slot was taken.
    bool GetRecordingFrameCounts(unsigned long* recorded, unsigned long* notRecorded) const;
    bool IsCapturing() const;
    // Why the last start refused something, followed by why the current or last recording
    // failed; empty when neither happened. Each start clears what came before it, except the
    // failure of a recording that is still in the session.
    std::string GetLastError() const;
    void SetControlError(const std::string& sentence);
    bool InvalidateCaptureVideoCallBack(TavixDeviceVideoCallBack callBack, long callBackData);
    bool InvalidateCaptureAudioCallBack(TavixDeviceAudioCallBack callBack, long callBackData);

    bool IsTransportAvailable() const;
    TavixDeviceTransportMode GetTransportMode() const;
    void SetTransportMode(TavixDeviceTransportMode mode);
    bool GetSMPTETime(SMPTETime* time) const;

    // The slot's handle.
    unsigned long Handle() const { return reinterpret_cast<unsigned long>(this); }
    bool IsInUse() const { return szName[0] != 0 && pDevice != nullptr && nRefCount >= 0; }
    bool IsSessionRunning() const { return pSession != nullptr && pSession->isRunning(); }

    char szName[260];
    char szAudioDeviceName[260];
    QTCaptureDevice* pDevice;
    QTCaptureDevice* pAudioDevice;
    QTCaptureSession* pSession;
    QTCaptureDeviceInput* pDeviceInput;
    QTCaptureDeviceInput* pAudioDeviceInput;
    QTCaptureDecompressedVideoOutput* pVideoOutput;
    TavixDeviceDecompressedVideoOutputDelegate* pVideoDelegate;
    QTCaptureDecompressedAudioOutput* pAudioOutput;
    TavixDeviceDecompressedAudioOutputDelegate* pAudioDelegate;
    QTCaptureMovieFileOutput* pMovieFileOutput;
    bool bRecorded; // a recording has started since the slot was taken
    unsigned long dwFramesRecorded, dwFramesNotRecorded; // of the last recording that ended
    std::string sStartError;     // the sentences of what the last start was refused
    std::string sRecordingError; // why the last recording that ended failed
    double dFrameRate; // asked of the device when capture starts; 0 leaves it to the device
    MovieEncoding RecordingEncoding; // for the recordings that start from now on
    int nRefCount;

    // Serialises the control calls of the slot and guards the two members below. Taken after
    // the registry lock, never before it, and never held while waiting for a host callback.
    mutable LLockObject ControlMutex;
    std::string sControlError; // why the last control change failed; empty after one succeeded
    std::shared_ptr<TavixControlWatch> pControlWatch; // made when a change callback is first set
};

enum { kTavixDeviceCount = 64 };
extern TavixDevice TavixDevices[kTavixDeviceCount];
extern LLockObject TavixDeviceMutex;
