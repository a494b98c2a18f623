#pragma once

#include <QString>
#include <functional>
#include <vector>

// The operating-system side of the microphone: one input stream that delivers mono float
// samples at the rate asked for, on a thread of its own. All policy (warm engine, pre-roll,
// health checks, recovery, verdicts, logging) lives in WarmMicrophone.
class AudioBackend {
public:
    struct InputFormat {
        double sampleRate = 0;
        int channels = 0;
    };
    using BufferHandler = std::function<void(std::vector<float> samples)>;
    using ErrorHandler = std::function<void(const QString &description)>;

    virtual ~AudioBackend() = default;

    // Whether the user allows this process to record.
    virtual bool permissionGranted() = 0;
    // Whether the input runs with the platform's voice processing (noise reduction) right now.
    virtual bool voiceProcessingEnabled() = 0;
    // Asks for voice processing on or off for the stream opened next. Throws std::exception
    // (what() describes it) when the platform refuses.
    virtual void setVoiceProcessingEnabled(bool on) = 0;
    // The hardware input's format; a rate of 0 or no channels means there is no usable input.
    virtual InputFormat inputFormat() = 0;
    // Opens the input and starts delivering buffers converted to mono float at `targetRate`.
    // `onBuffer` and `onConversionError` are called on the backend's thread. Throws
    // QuorvaneError(audioFormatUnsupported) when the input cannot be converted, or another
    // exception when the device fails to start (nothing is delivered then).
    virtual void open(double targetRate, BufferHandler onBuffer, ErrorHandler onConversionError) = 0;
    // Stops and resets the input; no callback runs once it returns. Safe when not open.
    virtual void close() = 0;
    // Whether the platform reports the input as running.
    virtual bool isRunning() = 0;
    // Whether an utterance is being recorded. While not, buffers only feed the pre-roll, so the
    // backend may hand them over late and in batches to wake the process less often; once it is,
    // they come as they are recorded, starting with any held back. Kept across open() and close().
    virtual void setListening(bool) {}
};
