#pragma once

#include "platform/AudioBackend.h"

#include <memory>

// The microphone through AVAudioEngine's input node, with the system's voice processing as its
// noise reduction, converted to mono float at the rate asked for. Needs the Microphone permission.
class MacAudioCapture final : public AudioBackend {
public:
    MacAudioCapture();
    ~MacAudioCapture() override;
    MacAudioCapture(const MacAudioCapture &) = delete;
    MacAudioCapture &operator=(const MacAudioCapture &) = delete;

    bool permissionGranted() override;
    bool voiceProcessingEnabled() override;
    void setVoiceProcessingEnabled(bool on) override;
    InputFormat inputFormat() override;
    void open(double targetRate, BufferHandler onBuffer, ErrorHandler onConversionError) override;
    void close() override;
    bool isRunning() override;

private:
    // The engine and what its tap delivers to.
    struct Engine;
    std::unique_ptr<Engine> m_engine;
};
