#include "FakeAudioCapture.h"

#include "speech/WavEncoder.h"

#include <QFile>

void FakeAudioCapture::setOnChunk(std::function<void(const AudioChunk &)> onChunk) {
    std::lock_guard lock(m_mutex);
    m_onChunk = std::move(onChunk);
}

AudioCaptureStatus FakeAudioCapture::lastCaptureStatus() const {
    std::lock_guard lock(m_mutex);
    return m_status;
}

void FakeAudioCapture::setVoiceProcessingEnabled(bool on) {
    std::lock_guard lock(m_mutex);
    m_voiceProcessing = on;
}

void FakeAudioCapture::start(double sampleRate, bool retainAudio) {
    std::function<void(const AudioChunk &)> handler;
    std::vector<float> preRoll;
    {
        std::lock_guard lock(m_mutex);
        ++m_starts;
        if (m_startFailure) {
            const QuorvaneError error = *m_startFailure;
            m_startFailure.reset();
            throw error;
        }
        m_sampleRate = sampleRate;
        m_retain = retainAudio;
        m_retained.clear();
        m_status = AudioCaptureStatus::unknown;
        m_capturing = true;
        preRoll = m_preRoll;
        handler = m_onChunk;
        if (m_retain)
            m_retained = preRoll;
    }
    if (handler && !preRoll.empty())
        handler(AudioChunk{std::move(preRoll), sampleRate});
}

void FakeAudioCapture::stop() {
    std::lock_guard lock(m_mutex);
    ++m_stops;
    if (!m_capturing)
        return;
    m_capturing = false;
    m_onChunk = {};
    m_status = m_nextStatus;
}

void FakeAudioCapture::writeRetainedAudio(const QString &path) {
    std::vector<float> samples;
    double rate = 0;
    {
        std::lock_guard lock(m_mutex);
        samples.swap(m_retained);
        rate = m_sampleRate;
        if (!m_retain || samples.empty())
            return;
        m_retainedPaths.append(path);
    }
    QFile file(path);
    if (file.open(QIODevice::WriteOnly))
        file.write(WavEncoder::encode(samples, rate));
}

void FakeAudioCapture::setPreRoll(std::vector<float> samples) {
    std::lock_guard lock(m_mutex);
    m_preRoll = std::move(samples);
}

void FakeAudioCapture::failNextStart(const QuorvaneError &error) {
    std::lock_guard lock(m_mutex);
    m_startFailure = error;
}

void FakeAudioCapture::setNextStatus(AudioCaptureStatus status) {
    std::lock_guard lock(m_mutex);
    m_nextStatus = status;
}

void FakeAudioCapture::deliver(std::vector<float> samples) {
    std::function<void(const AudioChunk &)> handler;
    double rate = 0;
    {
        std::lock_guard lock(m_mutex);
        if (!m_capturing)
            return;
        handler = m_onChunk;
        rate = m_sampleRate;
        if (m_retain)
            m_retained.insert(m_retained.end(), samples.begin(), samples.end());
    }
    if (handler)
        handler(AudioChunk{std::move(samples), rate});
}

bool FakeAudioCapture::isCapturing() const {
    std::lock_guard lock(m_mutex);
    return m_capturing;
}

int FakeAudioCapture::startCount() const {
    std::lock_guard lock(m_mutex);
    return m_starts;
}

int FakeAudioCapture::stopCount() const {
    std::lock_guard lock(m_mutex);
    return m_stops;
}

double FakeAudioCapture::lastSampleRate() const {
    std::lock_guard lock(m_mutex);
    return m_sampleRate;
}

std::optional<bool> FakeAudioCapture::voiceProcessing() const {
    std::lock_guard lock(m_mutex);
    return m_voiceProcessing;
}

QStringList FakeAudioCapture::retainedPaths() const {
    std::lock_guard lock(m_mutex);
    return m_retainedPaths;
}
