#include "platform/WarmMicrophone.h"

#include "core/Log.h"
#include "platform/CapturedAudio.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr double preRollSeconds = 0.6;
constexpr double silentPreRollSeconds = 0.4;
constexpr double activeSilenceSeconds = 0.7;
constexpr qint64 staleWarmBufferMs = 1000;
constexpr qint64 staleActiveBufferMs = 750;
constexpr qint64 firstWarmCheckMs = 900;
constexpr qint64 warmCheckIntervalMs = 5000;
constexpr qint64 activeCheckIntervalMs = 750;
constexpr float quietPeak = 0.01f;

bool hasSignal(float sample) {
    return std::isfinite(sample) && sample != 0.0f;
}

QString describe(const std::exception &error) {
    return QString::fromUtf8(error.what());
}

} // namespace

WarmMicrophone::WarmMicrophone(std::shared_ptr<AudioBackend> backend, Scheduler &scheduler)
    : m_backend(std::move(backend)), m_scheduler(scheduler),
      m_healthQueue(std::make_unique<SerialQueue>(QStringLiteral("com.quorvane.audio-health"))) {}

WarmMicrophone::~WarmMicrophone() {
    {
        std::lock_guard lifecycle(m_lifecycleLock);
        tearDownEngineLocked(false);
    }
    // A check already waiting for the lifecycle lock finds the engine down and does nothing.
    m_healthQueue.reset();
}

void WarmMicrophone::setOnChunk(std::function<void(const AudioChunk &)> onChunk) {
    std::lock_guard state(m_stateLock);
    m_chunkHandler = std::move(onChunk);
}

AudioCaptureStatus WarmMicrophone::lastCaptureStatus() const {
    std::lock_guard state(m_stateLock);
    return m_captureStatus;
}

void WarmMicrophone::setVoiceProcessingEnabled(bool on) {
    std::lock_guard state(m_stateLock);
    // Only the user's change of mind gives noise reduction another chance.
    if (on != m_voiceProcessingEnabled)
        m_voiceProcessingFallbackActive = false;
    m_voiceProcessingEnabled = on;
}

float WarmMicrophone::currentLevel() const {
    std::lock_guard state(m_stateLock);
    return m_currentLevel;
}

qint64 WarmMicrophone::msSinceLastBuffer() const {
    if (!m_lastBufferAt)
        return std::numeric_limits<qint64>::max();
    return m_scheduler.nowMs() - *m_lastBufferAt;
}

void WarmMicrophone::startEngineLocked(double rate, bool retainAudio, bool capturing, bool resetUtterance) {
    if (!m_backend->permissionGranted())
        throw QuorvaneError(QuorvaneError::Case::microphoneDenied);
    if (resetUtterance) {
        std::lock_guard state(m_stateLock);
        m_retainAudio = retainAudio;
        m_retained.clear();
        m_capturedFrames = 0;
        m_peakLevel = 0;
        m_consecutiveZeroFrames = 0;
        m_recoveriesThisUtterance = 0;
        m_capturedNonZeroSignal = false;
        m_captureStatus = AudioCaptureStatus::unknown;
        ++m_captureGeneration;
    }

    bool running;
    bool runningAtRate;
    {
        std::lock_guard state(m_stateLock);
        running = m_isRunning;
        runningAtRate = running && m_targetRate == rate;
    }
    if (runningAtRate) {
        std::vector<float> preRoll;
        std::function<void(const AudioChunk &)> handler;
        {
            std::lock_guard state(m_stateLock);
            m_isCapturing = capturing;
            if (capturing) {
                preRoll = std::exchange(m_preRoll, {});
                m_capturedFrames += qint64(preRoll.size());
                if (std::any_of(preRoll.begin(), preRoll.end(), hasSignal))
                    m_capturedNonZeroSignal = true;
                if (m_retainAudio)
                    m_retained.insert(m_retained.end(), preRoll.begin(), preRoll.end());
                handler = m_chunkHandler;
            }
        }
        if (handler && !preRoll.empty())
            handler(AudioChunk{std::move(preRoll), rate});
        // Only now, and outside the state lock (the backend's thread holds its own lock while it
        // waits for ours): audio the backend held back must follow the pre-roll, not overtake it.
        m_backend->setListening(capturing);
        return;
    }
    // Another rate needs another stream; its pre-roll would be at the wrong rate anyway.
    if (running)
        tearDownEngineLocked(true);

    bool wantVoiceProcessing;
    {
        std::lock_guard state(m_stateLock);
        wantVoiceProcessing = voiceProcessingActive();
    }
    if (m_backend->voiceProcessingEnabled() != wantVoiceProcessing) {
        try {
            m_backend->setVoiceProcessingEnabled(wantVoiceProcessing);
        } catch (const std::exception &error) {
            // Recording without it beats not recording.
            Log::warn(QStringLiteral("Speech noise reduction could not be ") +
                      (wantVoiceProcessing ? QStringLiteral("enabled") : QStringLiteral("disabled")) +
                      QStringLiteral(": ") + describe(error));
        }
    }

    const AudioBackend::InputFormat input = m_backend->inputFormat();
    if (!(input.sampleRate > 0) || input.channels == 0)
        throw QuorvaneError(QuorvaneError::Case::noAudioInput);
    if (!std::isfinite(rate) || !(rate > 0))
        throw QuorvaneError(QuorvaneError::Case::audioFormatUnsupported);

    {
        std::lock_guard state(m_stateLock);
        m_targetRate = rate;
        m_preRollCapacity = qint64(rate * preRollSeconds);
        if (qint64(m_preRoll.size()) > m_preRollCapacity)
            m_preRoll.erase(m_preRoll.begin(), m_preRoll.end() - m_preRollCapacity);
    }

    m_backend->close();
    try {
        // The backend stops calling before close() returns, and the destructor closes it, so the
        // callbacks never outlive this object.
        m_backend->open(
            rate, [this](std::vector<float> samples) { process(std::move(samples)); },
            [](const QString &description) { Log::error(QStringLiteral("Audio conversion failed: ") + description); });
    } catch (...) {
        m_backend->close();
        std::lock_guard state(m_stateLock);
        m_tapInstalled = false;
        m_targetRate = 0;
        throw;
    }

    {
        std::lock_guard state(m_stateLock);
        m_isRunning = true;
        m_tapInstalled = true;
        m_isCapturing = capturing;
    }
    m_backend->setListening(capturing);
    Log::info(QStringLiteral("Microphone ready \u00B7 local noise reduction ") +
              (m_backend->voiceProcessingEnabled() ? QStringLiteral("on") : QStringLiteral("off")));
}

void WarmMicrophone::process(std::vector<float> samples) {
    const float level = CapturedAudio::meterLevel(samples);
    const bool signal = std::any_of(samples.begin(), samples.end(), hasSignal);
    const auto frames = qint64(samples.size());
    std::function<void(const AudioChunk &)> handler;
    double rate;
    {
        std::lock_guard state(m_stateLock);
        if (m_targetRate == 0)
            return;
        rate = m_targetRate;
        m_currentLevel = level;
        m_lastBufferAt = m_scheduler.nowMs();
        if (!m_isCapturing) {
            m_preRoll.insert(m_preRoll.end(), samples.begin(), samples.end());
            if (qint64(m_preRoll.size()) > m_preRollCapacity)
                m_preRoll.erase(m_preRoll.begin(), m_preRoll.end() - m_preRollCapacity);
            return;
        }
        m_capturedFrames += frames;
        m_peakLevel = std::max(m_peakLevel, level);
        if (signal) {
            m_capturedNonZeroSignal = true;
            m_consecutiveZeroFrames = 0;
        } else {
            m_consecutiveZeroFrames += frames;
        }
        if (m_retainAudio)
            m_retained.insert(m_retained.end(), samples.begin(), samples.end());
        handler = m_chunkHandler;
    }
    // Never call out under the state lock: the handler may take locks of its own.
    if (handler)
        handler(AudioChunk{std::move(samples), rate});
}

std::optional<WarmMicrophone::RecoveryReason> WarmMicrophone::recoveryNeededBeforeCaptureLocked(double rate) {
    {
        std::lock_guard state(m_stateLock);
        if (!m_isRunning)
            return std::nullopt;
    }
    if (!m_backend->isRunning())
        return RecoveryReason::engineStopped;
    std::lock_guard state(m_stateLock);
    const bool voiceProcessing = voiceProcessingActive();
    if (voiceProcessing && qint64(m_preRoll.size()) >= qint64(rate * silentPreRollSeconds) &&
        std::none_of(m_preRoll.begin(), m_preRoll.end(), hasSignal))
        return RecoveryReason::digitalSilence;
    if (msSinceLastBuffer() > staleWarmBufferMs)
        return voiceProcessing ? RecoveryReason::noBuffers : RecoveryReason::engineStopped;
    return std::nullopt;
}

void WarmMicrophone::tearDownEngineLocked(bool keepChunkHandler) {
    Scheduler::cancel(m_healthCheck);
    m_healthCheck.reset();
    m_backend->close();
    std::lock_guard state(m_stateLock);
    m_tapInstalled = false;
    m_targetRate = 0;
    m_isRunning = false;
    m_isCapturing = false;
    m_currentLevel = 0;
    m_lastBufferAt.reset();
    m_preRoll.clear();
    m_preRollCapacity = 0;
    if (!keepChunkHandler)
        m_chunkHandler = {};
}

void WarmMicrophone::start(double sampleRate, bool retainAudio) {
    std::lock_guard lifecycle(m_lifecycleLock);
    if (const auto reason = recoveryNeededBeforeCaptureLocked(sampleRate)) {
        if (*reason == RecoveryReason::digitalSilence) {
            {
                std::lock_guard state(m_stateLock);
                m_voiceProcessingFallbackActive = true;
            }
            Log::warn(QStringLiteral("The macOS noise-reduction stream returned digital silence. Rebuilding the "
                                     "microphone on its reliable raw-input fallback."));
        } else {
            Log::warn(QStringLiteral("The microphone engine stopped while warm. Rebuilding it before recording."));
        }
        tearDownEngineLocked(true);
    }
    startEngineLocked(sampleRate, retainAudio, true, true);
    armActiveCheckLocked(sampleRate, retainAudio);
}

void WarmMicrophone::stop() {
    std::lock_guard lifecycle(m_lifecycleLock);
    Scheduler::cancel(m_healthCheck);
    m_healthCheck.reset();

    AudioCaptureStatus verdict;
    qint64 frames;
    float peak;
    double rate;
    {
        std::lock_guard state(m_stateLock);
        if (!m_isRunning)
            return;
        m_isCapturing = false;
        m_chunkHandler = {};
        m_currentLevel = 0;
        frames = m_capturedFrames;
        peak = m_peakLevel;
        rate = m_targetRate > 0 ? m_targetRate : 16000;
        if (frames > 0 && m_capturedNonZeroSignal)
            verdict = AudioCaptureStatus::usable;
        else
            verdict = frames == 0 ? AudioCaptureStatus::noBuffers : AudioCaptureStatus::digitalSilence;
        if (verdict != AudioCaptureStatus::usable && voiceProcessingActive())
            m_voiceProcessingFallbackActive = true;
        m_captureStatus = verdict;
        ++m_captureGeneration;
    }

    m_backend->setListening(false);
    if (verdict == AudioCaptureStatus::usable)
        armWarmCheckLocked(warmCheckIntervalMs);
    else
        tearDownEngineLocked(false); // the next dictation rebuilds it

    const QString duration = QString::number(double(frames) / rate, 'f', 1);
    if (frames == 0)
        Log::error(QStringLiteral("NO AUDIO CAPTURED \u2014 the microphone delivered zero samples. Check the input "
                                  "device in System Settings \u203A Sound."));
    else if (verdict == AudioCaptureStatus::digitalSilence)
        Log::error(QStringLiteral("DIGITAL SILENCE \u2014 captured ") + duration +
                   QStringLiteral("s but every PCM sample was zero. The audio engine will be rebuilt before the "
                                  "next dictation."));
    else if (peak < quietPeak)
        Log::warn(QStringLiteral("Captured ") + duration + QStringLiteral("s of audio but it was silent (peak ") +
                  QString::number(double(peak), 'f', 3) + QStringLiteral("). Wrong input device, or muted?"));
}

void WarmMicrophone::warmUp(double sampleRate) {
    std::lock_guard lifecycle(m_lifecycleLock);
    bool running;
    {
        std::lock_guard state(m_stateLock);
        running = m_isRunning;
    }
    if (running) {
        if (m_backend->isRunning())
            return;
        Log::warn(QStringLiteral("The warm microphone engine was no longer running. Rebuilding it."));
        tearDownEngineLocked(false);
    }
    {
        std::lock_guard state(m_stateLock);
        m_chunkHandler = {};
    }
    if (!m_backend->permissionGranted())
        return;
    try {
        startEngineLocked(sampleRate, false, false, true);
    } catch (const std::exception &error) {
        Log::warn(QStringLiteral("Microphone warm-up failed: ") + describe(error));
        return;
    }
    armWarmCheckLocked(firstWarmCheckMs);
}

void WarmMicrophone::armWarmCheckLocked(qint64 delayMs) {
    Scheduler::cancel(m_healthCheck);
    qint64 generation;
    {
        std::lock_guard state(m_stateLock);
        generation = m_captureGeneration;
    }
    m_healthCheck = m_scheduler.scheduleOn(*m_healthQueue, delayMs, [this, generation] { runWarmCheck(generation); });
}

void WarmMicrophone::armActiveCheckLocked(double rate, bool retainAudio) {
    Scheduler::cancel(m_healthCheck);
    qint64 generation;
    {
        std::lock_guard state(m_stateLock);
        generation = m_captureGeneration;
    }
    m_healthCheck =
        m_scheduler.scheduleOn(*m_healthQueue, activeCheckIntervalMs, [this, generation, rate, retainAudio] {
            runActiveCheck(generation, rate, retainAudio);
        });
}

void WarmMicrophone::runWarmCheck(qint64 generation) {
    std::lock_guard lifecycle(m_lifecycleLock);
    double rate;
    {
        std::lock_guard state(m_stateLock);
        if (!m_isRunning || generation != m_captureGeneration || m_isCapturing)
            return;
        rate = m_targetRate;
    }
    const auto reason = recoveryNeededBeforeCaptureLocked(rate);
    if (!reason) {
        armWarmCheckLocked(warmCheckIntervalMs);
        return;
    }
    if (*reason == RecoveryReason::engineStopped) {
        Log::warn(QStringLiteral("Warm microphone health check found a stopped engine. Restarting it."));
    } else {
        {
            std::lock_guard state(m_stateLock);
            m_voiceProcessingFallbackActive = true;
        }
        Log::warn(QStringLiteral("Warm microphone health check found ") +
                  (*reason == RecoveryReason::digitalSilence ? QStringLiteral("digital silence")
                                                             : QStringLiteral("no audio buffers")) +
                  QStringLiteral(". Switching automatically to raw input."));
    }
    tearDownEngineLocked(false);
    try {
        startEngineLocked(rate, false, false, true);
    } catch (const std::exception &error) {
        Log::error(QStringLiteral("Background microphone recovery failed: ") + describe(error));
        return;
    }
    Log::info(QStringLiteral("Microphone recovered in the background."));
    armWarmCheckLocked(warmCheckIntervalMs);
}

void WarmMicrophone::runActiveCheck(qint64 generation, double rate, bool retainAudio) {
    std::lock_guard lifecycle(m_lifecycleLock);
    bool voiceProcessing;
    qint64 zeroFrames;
    qint64 sinceLastBuffer;
    qint64 recoveries;
    {
        std::lock_guard state(m_stateLock);
        if (!m_isCapturing || generation != m_captureGeneration)
            return;
        voiceProcessing = voiceProcessingActive();
        zeroFrames = m_consecutiveZeroFrames;
        sinceLastBuffer = msSinceLastBuffer();
        recoveries = m_recoveriesThisUtterance;
    }
    const bool flowing = m_backend->isRunning() && sinceLastBuffer <= staleActiveBufferMs;
    const bool silent = zeroFrames >= qint64(rate * activeSilenceSeconds);
    if (flowing && !silent) {
        armActiveCheckLocked(rate, retainAudio);
        return;
    }
    // Fresh buffers that are all zeros; anything else means the stream stopped.
    const bool digitalSilence = flowing;
    // One rebuild per utterance: a second one would not fix a device that is simply broken.
    if (recoveries > 0) {
        Log::error(QStringLiteral("Microphone recovery exhausted: ") +
                   (digitalSilence ? QStringLiteral("the input still returns digital silence")
                                   : QStringLiteral("audio callbacks did not resume")) +
                   QStringLiteral("."));
        return;
    }
    {
        std::lock_guard state(m_stateLock);
        ++m_recoveriesThisUtterance;
        ++m_captureGeneration;
        if (voiceProcessing)
            m_voiceProcessingFallbackActive = true;
    }
    Log::warn(QStringLiteral("Microphone became unhealthy while listening (") +
              (digitalSilence ? QStringLiteral("digital silence") : QStringLiteral("audio stream stopped")) +
              QStringLiteral(")Rebuilding it now") +
              (voiceProcessing ? QStringLiteral(" without local noise reduction") : QString()) + QStringLiteral("."));
    tearDownEngineLocked(true);
    try {
        // The utterance's counters and retained samples carry over to the new stream.
        startEngineLocked(rate, retainAudio, true, false);
        Log::info(QStringLiteral("Microphone recovered while listening."));
    } catch (const std::exception &error) {
        Log::error(QStringLiteral("Microphone could not recover while listening: ") + describe(error));
    }
    armActiveCheckLocked(rate, retainAudio);
}

RetainedAudio WarmMicrophone::takeRetainedAudio() {
    std::lock_guard state(m_stateLock);
    std::vector<float> samples = std::exchange(m_retained, {});
    if (!m_retainAudio)
        return {};
    return RetainedAudio{std::move(samples), m_targetRate};
}
