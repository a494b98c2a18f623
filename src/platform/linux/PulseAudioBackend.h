#pragma once

#include "platform/AudioBackend.h"

#include <memory>
#include <mutex>

// The microphone through the PulseAudio client library (PipeWire's pulse server answers it too).
// The sound server converts to mono float at the rate asked for, so no conversion happens here.
// "Voice processing" is the server's echo-cancelling source when the user's setup offers one; we
// never load server modules ourselves.
class PulseAudioBackend final : public AudioBackend {
public:
    // `server` is written as PULSE_SERVER would be; empty means the user's own server.
    explicit PulseAudioBackend(QString server = {});
    ~PulseAudioBackend() override;

    // There is no recording permission on this desktop: a reachable server is all it takes.
    bool permissionGranted() override;
    bool voiceProcessingEnabled() override;
    void setVoiceProcessingEnabled(bool on) override;
    InputFormat inputFormat() override;
    // Not from the buffer handler.
    void open(double targetRate, BufferHandler onBuffer, ErrorHandler onConversionError) override;
    void close() override;
    bool isRunning() override;
    void setListening(bool listening) override;

private:
    struct Session;

    const QString m_server;
    std::mutex m_lock;
    std::unique_ptr<Session> m_session;
    bool m_voiceProcessingRequested = false;
    bool m_onEchoCancel = false;
    bool m_saidNoEchoCancel = false;
    // Until told otherwise, buffers come as they are recorded.
    bool m_listening = true;
};
