#pragma once

#include "platform/AudioCapturing.h"

#include <condition_variable>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

// A microphone with scripted audio: start() hands over the pre-roll, deliver() plays more while
// recording, and stop() settles the scripted verdict. Safe to start from a worker thread.
class FakeAudioCapture final : public AudioCapturing {
public:
    void setOnChunk(std::function<void(const AudioChunk &)> onChunk) override { set(m_onChunk, std::move(onChunk)); }
    AudioCaptureStatus lastCaptureStatus() const override { return locked(m_status); }
    void setVoiceProcessingEnabled(bool on) override { set(m_voiceProcessing, std::optional<bool>(on)); }
    void prepare() override {}
    void start(double sampleRate, bool retainAudio) override {
        std::unique_lock lock(m_mutex);
        m_startGate.wait(lock, [this] { return !m_holdStarts; });
        ++m_starts;
        if (const std::optional<QuorvaneError> failure = std::exchange(m_startFailure, std::nullopt))
            throw *failure;
        m_sampleRate = sampleRate;
        m_retain = retainAudio;
        m_retained.clear();
        m_status = AudioCaptureStatus::unknown;
        m_capturing = true;
        std::vector<float> preRoll = m_preRoll;
        lock.unlock();
        deliver(std::move(preRoll));
    }
    void stop() override {
        std::lock_guard lock(m_mutex);
        if (std::exchange(m_capturing, false)) {
            m_onChunk = {};
            m_status = m_nextStatus;
        }
    }
    RetainedAudio takeRetainedAudio() override {
        std::lock_guard lock(m_mutex);
        std::vector<float> samples = std::exchange(m_retained, {});
        if (!m_retain)
            return {};
        return RetainedAudio{std::move(samples), m_sampleRate};
    }

    // What the next start() delivers at once, as a warm microphone hands over its pre-roll.
    void setPreRoll(std::vector<float> samples) { set(m_preRoll, std::move(samples)); }
    // Keeps start() (on its worker thread) from finishing until letStartsGo(), so a test can act
    // while recording is still starting.
    void holdStarts() { set(m_holdStarts, true); }
    void letStartsGo() {
        set(m_holdStarts, false);
        m_startGate.notify_all();
    }
    // The next start() throws this instead of starting.
    void failNextStart(const QuorvaneError &error) { set(m_startFailure, std::optional<QuorvaneError>(error)); }
    // The verdict of the next stop() (usable until told otherwise).
    void setNextStatus(AudioCaptureStatus status) { set(m_nextStatus, status); }
    // Delivers a chunk now, as the audio thread would while recording.
    void deliver(std::vector<float> samples) {
        std::unique_lock lock(m_mutex);
        if (!m_capturing || !m_onChunk || samples.empty())
            return;
        if (m_retain)
            m_retained.insert(m_retained.end(), samples.begin(), samples.end());
        // The handler may call back into this capture, so it runs unlocked.
        const std::function<void(const AudioChunk &)> handler = m_onChunk;
        const double rate = m_sampleRate;
        lock.unlock();
        handler(AudioChunk{std::move(samples), rate});
    }

    bool isCapturing() const { return locked(m_capturing); }
    int startCount() const { return locked(m_starts); }
    std::optional<bool> voiceProcessing() const { return locked(m_voiceProcessing); }

private:
    template <typename T> T locked(const T &value) const {
        std::lock_guard lock(m_mutex);
        return value;
    }
    template <typename T> void set(T &member, T value) {
        std::lock_guard lock(m_mutex);
        member = std::move(value);
    }

    mutable std::mutex m_mutex;
    std::condition_variable m_startGate;
    bool m_holdStarts = false;
    std::function<void(const AudioChunk &)> m_onChunk;
    std::vector<float> m_preRoll;
    std::vector<float> m_retained;
    std::optional<QuorvaneError> m_startFailure;
    AudioCaptureStatus m_nextStatus = AudioCaptureStatus::usable;
    AudioCaptureStatus m_status = AudioCaptureStatus::unknown;
    std::optional<bool> m_voiceProcessing;
    double m_sampleRate = 0;
    bool m_retain = false;
    bool m_capturing = false;
    int m_starts = 0;
};
