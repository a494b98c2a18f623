#include "platform/ProcessAudioCapture.h"

#include "core/Log.h"
#include "platform/CapturedAudio.h"

#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <cmath>
#include <future>

namespace {

bool isRunnable(const QString &program) {
    if (program.contains(QLatin1Char('/')))
        return QFileInfo(program).isExecutable();
    return !QStandardPaths::findExecutable(program).isEmpty();
}

} // namespace

ProcessAudioCapture::ProcessAudioCapture(QStringList commandTemplate) : m_commandTemplate(std::move(commandTemplate)) {}

ProcessAudioCapture::~ProcessAudioCapture() {
    stop();
}

void ProcessAudioCapture::setOnChunk(std::function<void(const AudioChunk &)> onChunk) {
    std::lock_guard lock(m_lock);
    m_onChunk = std::move(onChunk);
}

QStringList ProcessAudioCapture::arguments(const QStringList &commandTemplate, double sampleRate) {
    const QString rate = QString::number(qint64(sampleRate));
    QStringList arguments;
    for (QString argument : commandTemplate)
        arguments << argument.replace(QStringLiteral("{RATE}"), rate);
    return arguments;
}

std::vector<float> ProcessAudioCapture::decode(const QByteArray &pcm) {
    const qsizetype count = pcm.size() / 2;
    std::vector<float> samples(std::size_t(count), 0.0f);
    const auto *bytes = reinterpret_cast<const unsigned char *>(pcm.constData());
    for (qsizetype i = 0; i < count; ++i) {
        const auto value = qint16(quint16(bytes[2 * i]) | quint16(bytes[2 * i + 1]) << 8);
        samples[std::size_t(i)] = float(value) * (1.0f / 32768.0f);
    }
    return samples;
}

void ProcessAudioCapture::start(double sampleRate, bool retainAudio) {
    stop();
    {
        std::lock_guard lock(m_lock);
        m_retainAudio = retainAudio;
        m_sampleRate = sampleRate;
        m_retained.clear();
    }
    if (m_commandTemplate.isEmpty())
        throw QuorvaneError(QuorvaneError::Case::noAudioInput);
    const QStringList command = arguments(m_commandTemplate, sampleRate);
    const QString launchFailure = QStringLiteral("could not start recorder '") + m_commandTemplate.first() +
                                  QStringLiteral("'. Install it, or set captureCommand in config.json.");
    // Launched through env so the recorder is found on the search path; env itself cannot tell us
    // the recorder is missing, so look first.
    if (!isRunnable(m_commandTemplate.first()))
        throw QuorvaneError::speechModelUnavailable(launchFailure);

    m_stopRequested = false;
    std::promise<bool> launched;
    std::future<bool> launchedResult = launched.get_future();
    // The process lives on the reader thread, which blocks in waitForReadyRead: a QProcess only
    // reports output on a thread that is running, and this one needs no event loop.
    m_reader = std::thread([this, command, launched = std::move(launched)]() mutable {
        QProcess recorder;
        recorder.setStandardErrorFile(QProcess::nullDevice());
        recorder.setStandardInputFile(QProcess::nullDevice());
        recorder.start(QStringLiteral("/usr/bin/env"), command);
        const bool started = recorder.waitForStarted(5000);
        launched.set_value(started);
        if (!started)
            return;
        while (!m_stopRequested.load()) {
            if (recorder.waitForReadyRead(50)) {
                consume(recorder.readAllStandardOutput());
            } else if (recorder.state() == QProcess::NotRunning) {
                consume(recorder.readAllStandardOutput());
                break; // exited early: the utterance ends with what was read
            }
        }
        if (recorder.state() != QProcess::NotRunning) {
            recorder.terminate();
            if (!recorder.waitForFinished(500)) {
                recorder.kill();
                recorder.waitForFinished(500);
            }
        }
    });
    if (!launchedResult.get()) {
        m_reader.join();
        throw QuorvaneError::speechModelUnavailable(launchFailure);
    }
}

void ProcessAudioCapture::consume(const QByteArray &pcm) {
    if (pcm.size() < 2)
        return;
    std::vector<float> samples = decode(pcm);
    const float level = CapturedAudio::meterLevel(samples);
    std::function<void(const AudioChunk &)> onChunk;
    double rate;
    {
        std::lock_guard lock(m_lock);
        m_level = level;
        if (m_retainAudio)
            m_retained.insert(m_retained.end(), samples.begin(), samples.end());
        onChunk = m_onChunk;
        rate = m_sampleRate;
    }
    if (onChunk)
        onChunk(AudioChunk{std::move(samples), rate});
}

void ProcessAudioCapture::stop() {
    m_stopRequested = true;
    if (m_reader.joinable())
        m_reader.join();
    std::lock_guard lock(m_lock);
    m_level = 0;
}

RetainedAudio ProcessAudioCapture::takeRetainedAudio() {
    std::lock_guard lock(m_lock);
    std::vector<float> samples = std::exchange(m_retained, {});
    if (!m_retainAudio)
        return {};
    return RetainedAudio{std::move(samples), m_sampleRate};
}

float ProcessAudioCapture::currentLevel() const {
    std::lock_guard lock(m_lock);
    return m_level;
}
