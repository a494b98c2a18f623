#pragma once

#include "platform/AudioCapturing.h"

#include <QStringList>
#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

// Records through a program the user chose (captureCommand): it is started for each utterance and
// must write headerless signed 16-bit little-endian mono PCM at the requested rate to its standard
// output. "{RATE}" in any argument becomes that rate. No warm state, pre-roll or verdict.
class ProcessAudioCapture final : public AudioCapturing {
public:
    explicit ProcessAudioCapture(QStringList commandTemplate);
    ~ProcessAudioCapture() override;

    void setOnChunk(std::function<void(const AudioChunk &)> onChunk) override;
    AudioCaptureStatus lastCaptureStatus() const override { return AudioCaptureStatus::unknown; }
    void setVoiceProcessingEnabled(bool) override {}
    void prepare() override {}
    void start(double sampleRate, bool retainAudio) override;
    void stop() override;
    RetainedAudio takeRetainedAudio() override;
    float currentLevel() const override;

    const QStringList &commandTemplate() const { return m_commandTemplate; }
    // The recorder's arguments at `sampleRate`.
    static QStringList arguments(const QStringList &commandTemplate, double sampleRate);
    // Turns one piece of recorder output into samples; a trailing odd byte is dropped.
    static std::vector<float> decode(const QByteArray &pcm);

private:
    void consume(const QByteArray &pcm);

    const QStringList m_commandTemplate;
    mutable std::mutex m_lock;
    std::function<void(const AudioChunk &)> m_onChunk;
    float m_level = 0;
    std::vector<float> m_retained;
    bool m_retainAudio = false;
    double m_sampleRate = 0;
    // The reader owns the recorder process: it starts it, reads its output and ends it.
    std::thread m_reader;
    std::atomic<bool> m_stopRequested{false};
};
