#pragma once

#include "platform/AudioCapturing.h"

#include <QList>
#include <QString>
#include <mutex>
#include <optional>
#include <vector>

// A microphone with scripted audio: start() hands over the pre-roll, deliver() plays more while
// recording, and stop() settles the scripted verdict. Safe to start from a worker thread.
class FakeAudioCapture final : public AudioCapturing {
public:
    void setOnChunk(std::function<void(const AudioChunk &)> onChunk) override;
    AudioCaptureStatus lastCaptureStatus() const override;
    void setVoiceProcessingEnabled(bool on) override;
    void prepare() override {}
    void start(double sampleRate, bool retainAudio) override;
    void stop() override;
    void writeRetainedAudio(const QString &path) override;

    // What the next start() delivers at once, as a warm microphone hands over its pre-roll.
    void setPreRoll(std::vector<float> samples);
    // The next start() throws this instead of starting.
    void failNextStart(const QuorvaneError &error);
    // The verdict of the next stop() (usable until told otherwise).
    void setNextStatus(AudioCaptureStatus status);
    // Delivers a chunk now, as the audio thread would while recording.
    void deliver(std::vector<float> samples);

    bool isCapturing() const;
    int startCount() const;
    int stopCount() const;
    double lastSampleRate() const;
    std::optional<bool> voiceProcessing() const;
    QStringList retainedPaths() const;

private:
    mutable std::mutex m_mutex;
    std::function<void(const AudioChunk &)> m_onChunk;
    std::vector<float> m_preRoll;
    std::vector<float> m_retained;
    std::optional<QuorvaneError> m_startFailure;
    AudioCaptureStatus m_nextStatus = AudioCaptureStatus::usable;
    AudioCaptureStatus m_status = AudioCaptureStatus::unknown;
    std::optional<bool> m_voiceProcessing;
    QStringList m_retainedPaths;
    double m_sampleRate = 0;
    bool m_retain = false;
    bool m_capturing = false;
    int m_starts = 0;
    int m_stops = 0;
};
