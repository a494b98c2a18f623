#pragma once

#include "core/QuorvaneError.h"
#include "speech/AudioChunk.h"

#include <QString>
#include <functional>
#include <vector>

// The samples an utterance kept for its recording, at their rate.
struct RetainedAudio {
    std::vector<float> samples;
    double sampleRate = 0;
};

// The capture's verdict on the last recording.
enum class AudioCaptureStatus { unknown, usable, noBuffers, digitalSilence };

// Delivers the microphone's audio as mono float chunks at the rate the speech engine asks for.
class AudioCapturing {
public:
    virtual ~AudioCapturing() = default;

    // Called with each chunk, possibly on an audio thread.
    virtual void setOnChunk(std::function<void(const AudioChunk &)> onChunk) = 0;
    virtual AudioCaptureStatus lastCaptureStatus() const = 0;
    virtual void setVoiceProcessingEnabled(bool on) = 0;
    virtual void prepare() = 0;
    // Begins an utterance; throws QuorvaneError when the microphone cannot be used.
    virtual void start(double sampleRate, bool retainAudio) = 0;
    // Ends the utterance and settles lastCaptureStatus().
    virtual void stop() = 0;
    // Hands over the utterance's samples once, when retaining was on (none otherwise), so that
    // the recording can be written later and elsewhere than on the main thread.
    virtual RetainedAudio takeRetainedAudio() = 0;
    // Opens the microphone without recording, so the next utterance starts at once and with its
    // pre-roll. Captures without a warm state ignore it.
    virtual void warmUp(double sampleRate) { (void)sampleRate; }
    // Level of the latest audio, 0 to 1, for the recording meter.
    virtual float currentLevel() const { return 0; }
};

// Where no microphone service exists: starting always fails with "no audio input".
class UnsupportedCapture final : public AudioCapturing {
public:
    void setOnChunk(std::function<void(const AudioChunk &)> onChunk) override { m_onChunk = std::move(onChunk); }
    AudioCaptureStatus lastCaptureStatus() const override { return AudioCaptureStatus::unknown; }
    void setVoiceProcessingEnabled(bool) override {}
    void prepare() override {}
    void start(double, bool) override { throw QuorvaneError(QuorvaneError::Case::noAudioInput); }
    void stop() override {}
    RetainedAudio takeRetainedAudio() override { return {}; }

private:
    std::function<void(const AudioChunk &)> m_onChunk;
};
