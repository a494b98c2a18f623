// The PocketSphinx engine inside Quorvane against the upstream command-line decoder with the same
// model, on the recorded clips Debian ships: accuracy, the wait after the audio ends, memory.
// Audio reaches our engine at the pace a microphone delivers it.
#include "benchmark/SpeechBenchmarkMetrics.h"
#include "core/Async.h"
#include "platform/linux/PocketSphinxEngine.h"
#include "speech/WavDecoder.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QThread>
#include <cstdio>
#include <sys/resource.h>

namespace {

const QString kClips = QStringLiteral("/usr/share/pocketsphinx/test/data/librivox/");
const QString kDecoder = QStringLiteral("/usr/bin/pocketsphinx_continuous");

struct Clip {
    QString id;
    QString reference;
    std::vector<float> samples;
};

QList<Clip> loadClips() {
    QList<Clip> clips;
    QFile transcription(kClips + QStringLiteral("transcription"));
    if (!transcription.open(QIODevice::ReadOnly))
        return clips;
    static const QRegularExpression line(QStringLiteral("^<s>(.*)</s>\\s*\\((.+)\\)$"));
    for (const QByteArray &text : transcription.readAll().split('\n')) {
        const auto match = line.match(QString::fromUtf8(text).trimmed());
        if (!match.hasMatch())
            continue;
        QFile wav(kClips + match.captured(2) + QStringLiteral(".wav"));
        if (!wav.open(QIODevice::ReadOnly))
            continue;
        clips.append({match.captured(2), match.captured(1).trimmed(), WavDecoder::decode(wav.readAll()).samples});
    }
    return clips;
}

qint64 residentKb(const char *field) {
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith(field))
            return line.mid(qsizetype(std::strlen(field))).trimmed().split(' ').value(0).toLongLong();
    return 0;
}

struct Upstream {
    QString text;
    double ms = 0;
};

Upstream runUpstream(const Clip &clip) {
    const QDir model(PocketSphinxEngine::defaultModelDirectory());
    QProcess process;
    QElapsedTimer timer;
    timer.start();
    process.start(kDecoder, {QStringLiteral("-infile"), kClips + clip.id + QStringLiteral(".wav"),
                             QStringLiteral("-hmm"), model.filePath(QStringLiteral("en-us")), QStringLiteral("-lm"),
                             model.filePath(QStringLiteral("en-us.lm.bin")), QStringLiteral("-dict"),
                             model.filePath(QStringLiteral("cmudict-en-us.dict")), QStringLiteral("-logfn"),
                             QStringLiteral("/dev/null")});
    process.waitForFinished(120000);
    Upstream result;
    result.ms = double(timer.nsecsElapsed()) / 1e6;
    // It prints one line per stretch of speech it finds.
    result.text = QString::fromUtf8(process.readAllStandardOutput()).split(u'\n', Qt::SkipEmptyParts).join(u' ');
    return result;
}

} // namespace

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    const QList<Clip> clips = loadClips();
    if (clips.isEmpty() || !QFile::exists(kDecoder)) {
        std::puts("needs the packages pocketsphinx-testdata and pocketsphinx");
        return 1;
    }

    const qint64 rssBefore = residentKb("VmRSS:");
    PocketSphinxEngine engine(QStringLiteral("en-US"));
    QElapsedTimer loadTimer;
    loadTimer.start();
    syncWait(engine.prepare());
    const double loadMs = double(loadTimer.nsecsElapsed()) / 1e6;

    QList<SpeechBenchmarkMetrics::Score> ours, theirs;
    double ourWaitMs = 0, theirRunMs = 0, audioSeconds = 0;
    // "left s": the audio after the last pause, which the release still had to decode.
    std::printf("%-44s %8s %8s %10s %8s %10s\n", "clip", "WER us", "WER cli", "wait ms", "left s", "cli ms");
    for (const Clip &clip : clips) {
        syncWait(engine.beginUtterance({}));
        constexpr std::size_t chunk = 1600;
        for (std::size_t start = 0; start < clip.samples.size(); start += chunk) {
            const auto end = std::min(clip.samples.size(), start + chunk);
            engine.append(AudioChunk{
                {clip.samples.begin() + std::ptrdiff_t(start), clip.samples.begin() + std::ptrdiff_t(end)}, 16000});
            QThread::msleep(100);
        }
        QElapsedTimer wait;
        wait.start();
        const QString text = syncWait(engine.finishUtterance());
        const double waitMs = double(wait.nsecsElapsed()) / 1e6;
        const Upstream upstream = runUpstream(clip);

        ours.append(SpeechBenchmarkMetrics::score(clip.reference, text));
        theirs.append(SpeechBenchmarkMetrics::score(clip.reference, upstream.text));
        ourWaitMs += waitMs;
        theirRunMs += upstream.ms;
        audioSeconds += double(clip.samples.size()) / 16000;
        std::printf("%-44s %8.3f %8.3f %10.1f %8.2f %10.1f\n", qPrintable(clip.id), ours.last().wordErrorRate,
                    theirs.last().wordErrorRate, waitMs, engine.lastStretchSeconds(), upstream.ms);
    }
    rusage children{};
    getrusage(RUSAGE_CHILDREN, &children);
    const double ourWer = SpeechBenchmarkMetrics::aggregate(ours).wordErrorRate;
    const double theirWer = SpeechBenchmarkMetrics::aggregate(theirs).wordErrorRate;
    std::printf("\n%d clips, %.1f s of speech; model load %.0f ms\n", int(clips.size()), audioSeconds, loadMs);
    std::printf("WER (micro-averaged): Quorvane %.3f, pocketsphinx_continuous %.3f\n", ourWer, theirWer);
    std::printf("wait after the audio: Quorvane %.1f ms in all, %.1f %% of the decoder's whole runs (%.0f ms)\n",
                ourWaitMs, 100.0 * ourWaitMs / theirRunMs, theirRunMs);
    std::printf("RSS: Quorvane process %lld MB (engine +%lld MB), pocketsphinx_continuous peak %ld MB\n",
                residentKb("VmRSS:") / 1024, (residentKb("VmRSS:") - rssBefore) / 1024, children.ru_maxrss / 1024);
    return 0;
}
