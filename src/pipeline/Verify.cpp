#include "pipeline/Verify.h"

#include "core/Config.h"
#include "core/DescribedError.h"
#include "core/Paths.h"
#include "formatting/PassthroughFormatter.h"
#include "formatting/TranscriptGuard.h"
#include "history/Store.h"
#include "speech/AudioFeed.h"
#include "speech/LinearAudioResampler.h"
#include "speech/WavDecoder.h"

#include <QElapsedTimer>
#include <QFile>
#include <cstdio>

namespace Verify {

namespace {

void print(const QString &line) {
    std::fputs(line.toUtf8().constData(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

int fail(const QString &line) {
    print(QStringLiteral("\u2717 ") + line);
    return 1;
}

qint64 wholeMilliseconds(const QElapsedTimer &timer) {
    return timer.nsecsElapsed() / 1000000;
}

WavDecoder::Decoded readWav(const QString &path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw std::runtime_error(file.errorString().toStdString());
    return WavDecoder::decode(file.readAll());
}

QString quoted(const QString &text) {
    return QLatin1Char('"') + text + QLatin1Char('"');
}

} // namespace

Engines chooseEngines(const QString &locale, const NativeEngines &native) {
    Engines engines;
    // A platform with an on-device model checks its own stack whatever the settings say. One
    // without (Linux) checks what the settings choose, where the default recogniser is its own.
    if (native.formatter) {
        engines.formatter = native.formatter();
        if (native.asr)
            engines.asr = native.asr(locale);
    }
    if (!engines.asr || !engines.formatter) {
        Config settings = Config::load(Paths::file(QStringLiteral("config.json")));
        settings.locale = locale;
        if (!engines.asr)
            engines.asr = makeAsr(settings, native.formatter ? NativeAsrFactory() : native.asr);
        // Without an on-device model the check runs without formatting, rather than failing on a
        // server the user never set up.
        if (!engines.formatter)
            engines.formatter = settings.formatter == FormatterKind::appleFoundation
                                    ? std::make_unique<PassthroughFormatter>()
                                    : makeFormatter(settings, {});
    }
    return engines;
}

QCoro::Task<int> run(QString wavPath, QString locale, NativeEngines native) {
    WavDecoder::Decoded audio;
    try {
        audio = readWav(wavPath);
    } catch (...) {
        co_return fail(QStringLiteral("Could not read ") + wavPath + QStringLiteral(": ") +
                       describeError(std::current_exception()));
    }
    const double seconds = audio.sampleRate > 0 ? double(audio.samples.size()) / audio.sampleRate : 0;
    print(QStringLiteral("audio      : %1s \u00B7 %2 Hz \u00B7 %3 samples")
              .arg(QString::asprintf("%.1f", seconds))
              .arg(audio.sampleRate)
              .arg(audio.samples.size()));

    // The guard judges with the default thresholds, never the user's.
    const TranscriptGuard guard = TranscriptGuard::fromConfig(Config());
    Engines engines = chooseEngines(locale, native);
    std::unique_ptr<AsrEngine> engine = std::move(engines.asr);
    std::unique_ptr<TextFormatter> formatter = std::move(engines.formatter);

    Store store(Paths::root());
    store.ensureVocabularyFile();
    const QStringList vocabulary = store.vocabulary();
    if (!vocabulary.isEmpty())
        print(QStringLiteral("  biasing with %1 vocabulary terms").arg(vocabulary.size()));

    try {
        co_await engine->prepare();
    } catch (...) {
        co_return fail(QStringLiteral("ASR preparation failed: ") + describeError(std::current_exception()));
    }
    co_await formatter->prepare();
    if (!formatter->isAvailable())
        co_return fail(QStringLiteral("Formatter unavailable: ") +
                       formatter->unavailableReason().value_or(QStringLiteral("unknown")));

    const double rate = engine->requiredSampleRate() > 0 ? engine->requiredSampleRate() : 16000.0;
    const std::vector<float> samples = audio.sampleRate == rate
                                           ? std::move(audio.samples)
                                           : LinearAudioResampler::resample(audio.samples, audio.sampleRate, rate);
    try {
        co_await engine->beginUtterance(vocabulary);
    } catch (...) {
        co_return fail(QStringLiteral("beginUtterance failed: ") + describeError(std::current_exception()));
    }
    feedInChunks(*engine, samples, rate);

    QElapsedTimer asrTimer;
    asrTimer.start();
    QString raw;
    try {
        raw = co_await engine->finishUtterance();
    } catch (...) {
        co_return fail(QStringLiteral("finishUtterance failed: ") + describeError(std::current_exception()));
    }
    const qint64 asrMs = wholeMilliseconds(asrTimer);

    QElapsedTimer formatTimer;
    formatTimer.start();
    TranscriptGuard::Decision decision;
    std::optional<QString> proposal;
    if (dynamic_cast<PassthroughFormatter *>(formatter.get())) {
        decision = TranscriptGuard::fallback(raw, TranscriptGuard::Verdict::formatterDisabled);
    } else if (TranscriptGuard::words(raw).size() < guard.minWordsForLLM) {
        decision = TranscriptGuard::fallback(raw, TranscriptGuard::Verdict::skippedTooShort);
    } else {
        try {
            proposal = co_await formatter->format(raw, FormattingContext());
            decision = guard.evaluate(raw, *proposal);
        } catch (...) {
            proposal.reset();
            decision = TranscriptGuard::fallback(raw, TranscriptGuard::Verdict::formatterFailed);
        }
    }
    const qint64 formatMs = wholeMilliseconds(formatTimer);
    const QString verdict = toName(decision.verdict);

    if (proposal && verdict.startsWith(QLatin1String("rejected"))) {
        print(QStringLiteral("  \u26A0\uFE0E guard overruled the model (") + verdict +
              QStringLiteral("); proposal was:"));
        print(QStringLiteral("     ") + quoted(*proposal));
    }
    const QString rule(41, QChar(0x2500));
    print(rule);
    print(QStringLiteral("raw ASR    : ") + quoted(raw));
    print(QStringLiteral("formatted  : ") + quoted(decision.text));
    print(QStringLiteral("verdict    : ") + verdict);
    print(rule);
    print(QStringLiteral("asr        : %1 ms").arg(asrMs));
    print(QStringLiteral("format     : %1 ms").arg(formatMs));
    print(QStringLiteral("total      : %1 ms  (from end of audio, injection excluded)").arg(asrMs + formatMs));
    print(QString());
    const bool clean = decision.verdict == TranscriptGuard::Verdict::accepted ||
                       decision.verdict == TranscriptGuard::Verdict::skippedTooShort ||
                       decision.verdict == TranscriptGuard::Verdict::formatterDisabled;
    print(clean ? QStringLiteral("\u2713 Pipeline ran end to end.")
                : QStringLiteral("\u2713 Pipeline ran; guard protected against a bad rewrite."));
    co_return 0;
}

} // namespace Verify
