#pragma once

#include "core/Scheduler.h"
#include "core/SerialQueue.h"
#include "platform/AudioBackend.h"
#include "platform/AudioCapturing.h"

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

// The microphone kept open between dictations, so the first word is never clipped: while warm it
// holds the latest 0.6 s as pre-roll, and it watches its own stream, because the platform's noise
// reduction sometimes delivers digital silence or stops delivering altogether. A sick stream is
// rebuilt (on raw input when noise reduction was the suspect), at most once per utterance, and every
// utterance ends with a verdict on whether usable audio arrived. The backend only opens, closes and
// delivers.
class WarmMicrophone final : public AudioCapturing {
public:
    explicit WarmMicrophone(std::shared_ptr<AudioBackend> backend, Scheduler &scheduler = Scheduler::system());
    ~WarmMicrophone() override;
    WarmMicrophone(const WarmMicrophone &) = delete;
    WarmMicrophone &operator=(const WarmMicrophone &) = delete;

    void setOnChunk(std::function<void(const AudioChunk &)> onChunk) override;
    AudioCaptureStatus lastCaptureStatus() const override;
    void setVoiceProcessingEnabled(bool on) override;
    void prepare() override {}
    void start(double sampleRate, bool retainAudio) override;
    void stop() override;
    RetainedAudio takeRetainedAudio() override;
    void warmUp(double sampleRate) override;
    float currentLevel() const override;

private:
    enum class RecoveryReason { engineStopped, noBuffers, digitalSilence };

    // Everything below ending in Locked runs with m_lifecycleLock held.
    void startEngineLocked(double rate, bool retainAudio, bool capturing, bool resetUtterance);
    std::optional<RecoveryReason> recoveryNeededBeforeCaptureLocked(double rate);
    void tearDownEngineLocked(bool keepChunkHandler);
    void armWarmCheckLocked(qint64 delayMs);
    void armActiveCheckLocked(double rate, bool retainAudio);
    void runWarmCheck(qint64 generation);
    void runActiveCheck(qint64 generation, double rate, bool retainAudio);
    // Audio thread.
    void process(std::vector<float> samples);
    // Needs m_stateLock.
    bool voiceProcessingActive() const { return m_voiceProcessingEnabled && !m_voiceProcessingFallbackActive; }
    qint64 msSinceLastBuffer() const;

    const std::shared_ptr<AudioBackend> m_backend;
    Scheduler &m_scheduler;

    // The converter and target format live in the backend; the rate it was opened at stands for
    // them (0: none).
    double m_targetRate = 0;
    bool m_isRunning = false;
    bool m_tapInstalled = false;
    std::function<void(const AudioChunk &)> m_chunkHandler;
    float m_currentLevel = 0;
    std::vector<float> m_retained;
    bool m_retainAudio = false;
    bool m_voiceProcessingEnabled = true;
    bool m_voiceProcessingFallbackActive = false;
    std::mutex m_lifecycleLock;
    mutable std::mutex m_stateLock;
    Scheduler::Handle m_healthCheck;
    qint64 m_captureGeneration = 0;
    qint64 m_recoveriesThisUtterance = 0;
    // Empty: the distant past.
    std::optional<qint64> m_lastBufferAt;
    qint64 m_consecutiveZeroFrames = 0;
    bool m_capturedNonZeroSignal = false;
    AudioCaptureStatus m_captureStatus = AudioCaptureStatus::unknown;
    qint64 m_capturedFrames = 0;
    float m_peakLevel = 0;
    std::vector<float> m_preRoll;
    qint64 m_preRollCapacity = 0;
    bool m_isCapturing = false;

    // Last, so it goes first: a check still running finishes before the state it reads is gone.
    std::unique_ptr<SerialQueue> m_healthQueue;
};
