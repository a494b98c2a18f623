#include "benchmark/SpeechBenchmark.h"

#include "benchmark/BenchmarkHtmlReport.h"
#include "benchmark/BenchmarkManifest.h"
#include "benchmark/BenchmarkOptions.h"
#include "benchmark/BenchmarkResults.h"
#include "benchmark/BenchmarkRunner.h"
#include "core/AppInfo.h"
#include "core/Config.h"
#include "core/DescribedError.h"
#include "core/Paths.h"
#include "pipeline/EngineChoice.h"
#include "speech/WhisperServerEngine.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonDocument>
#include <QSaveFile>
#include <cstdio>
#include <map>
#include <unistd.h>

namespace SpeechBenchmark {

namespace {

constexpr int usageStatus = 2;

void print(std::FILE *stream, const QString &text) {
    std::fputs(text.toUtf8().constData(), stream);
    std::fflush(stream);
}

int usageError(const QString &message) {
    print(stderr, message + QStringLiteral("\n\n") + BenchmarkOptions::usage());
    return usageStatus;
}

QString clock(qint64 ms) {
    const qint64 seconds = ms / 1000;
    return QStringLiteral("%1:%2").arg(seconds / 60).arg(seconds % 60, 2, 10, QLatin1Char('0'));
}

// A bar redrawn in place on a terminal; one plain line per clip when standard error is a file or pipe.
class Progress {
public:
    explicit Progress(qsizetype total) : m_total(total), m_terminal(isatty(fileno(stderr)) == 1) { m_clock.start(); }

    void warmingUp(qsizetype index, qsizetype count, const QString &id) {
        const QString line = QStringLiteral("warm-up %1/%2 %3").arg(index + 1).arg(count).arg(id);
        print(stderr, m_terminal ? QStringLiteral("\r\033[K") + line : line + u'\n');
    }

    void starting(qsizetype index, const QString &id) {
        if (m_terminal)
            print(stderr, QStringLiteral("\r\033[K") + bar(index) + QStringLiteral("  ") + id);
    }

    void finished(qsizetype index, const ClipResult &result) {
        const QString outcome =
            result.scored()
                ? QStringLiteral("WER %1  %2 ms")
                      .arg(BenchmarkResults::percent(result.score->wordErrorRate))
                      .arg(QString::number(BenchmarkResults::roundedMs(result.latencyMs.value_or(0)), 'f', 1))
                : QStringLiteral("failed: ") + result.error;
        const QString line = QStringLiteral("[%1/%2] %3  %4").arg(index + 1).arg(m_total).arg(result.clip.id, outcome);
        if (!m_terminal) {
            print(stderr, line + u'\n');
        } else if (!result.scored()) {
            // Failures stay on screen above the bar.
            print(stderr, QStringLiteral("\r\033[K") + line + u'\n' + bar(index + 1));
        } else {
            print(stderr, QStringLiteral("\r\033[K") + bar(index + 1));
        }
    }

    // A message that must stay on screen.
    void note(const QString &message) {
        print(stderr, (m_terminal ? QStringLiteral("\r\033[K") : QString()) + message + u'\n');
    }

    void done() {
        if (m_terminal)
            print(stderr, QStringLiteral("\r\033[K"));
    }

private:
    QString bar(qsizetype done) const {
        constexpr qsizetype width = 30;
        const qsizetype filled = m_total > 0 ? done * width / m_total : width;
        const qint64 elapsed = m_clock.elapsed();
        const QString eta = done > 0 ? clock(elapsed * (m_total - done) / done) : QStringLiteral("–");
        return QStringLiteral("[%1%2] %3/%4  elapsed %5  ETA %6")
            .arg(QString(filled, u'#'), QString(width - filled, u'.'))
            .arg(done)
            .arg(m_total)
            .arg(clock(elapsed), eta);
    }

    qsizetype m_total;
    bool m_terminal;
    QElapsedTimer m_clock;
};

QString defaultOutputDirectory(const BenchmarkManifest &manifest, const QDateTime &started) {
    const QFileInfo info(manifest.path);
    const QString base = info.absoluteDir().filePath(info.completeBaseName() + QStringLiteral("-results-") +
                                                     started.toString(QStringLiteral("yyyyMMdd-HHmmss")));
    QString candidate = base;
    for (int n = 2; QFileInfo::exists(candidate); ++n)
        candidate = base + QStringLiteral("-%1").arg(n);
    return candidate;
}

bool writeFile(const QString &path, const QByteArray &bytes) {
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit()) {
        print(stderr, QStringLiteral("Cannot write %1: %2\n").arg(path, file.errorString()));
        return false;
    }
    // Transcripts of the user's recordings are private, like everything else we write.
    Paths::protectFile(path);
    return true;
}

} // namespace

QCoro::Task<int> run(const QStringList &arguments) {
    return run(arguments, NativeEngineFactory());
}

QCoro::Task<int> run(QStringList arguments, NativeEngineFactory nativeFactory) {
    BenchmarkOptions options;
    try {
        options = BenchmarkOptions::parse(arguments);
    } catch (const BenchmarkOptions::UsageError &error) {
        co_return usageError(error.text());
    }
    if (options.help) {
        print(stdout, BenchmarkOptions::usage());
        co_return 0;
    }

    BenchmarkManifest manifest;
    try {
        manifest = BenchmarkManifest::load(options.manifestPath);
    } catch (const BenchmarkManifest::Invalid &invalid) {
        print(stderr, invalid.problems().join(u'\n') +
                          QStringLiteral("\nNothing was run. See `quorvane benchmark --help` for the manifest "
                                         "format.\n"));
        co_return usageStatus;
    }

    Config config = Config::load(Paths::file(QStringLiteral("config.json")));
    if (options.endpoint) {
        // Naming a server means measuring it.
        config.whisperEndpoint = *options.endpoint;
        if (options.engine == BenchmarkOptions::Engine::fromSettings)
            options.engine = BenchmarkOptions::Engine::whisper;
    }
    const QString defaultLocale = options.locale.value_or(manifest.locale.value_or(config.locale));

    auto makeEngine = [&](const QString &locale) -> std::unique_ptr<AsrEngine> {
        Config chosen = config;
        chosen.locale = locale;
        switch (options.engine) {
        case BenchmarkOptions::Engine::native:
            return nativeFactory ? nativeFactory(locale) : nullptr;
        case BenchmarkOptions::Engine::whisper:
            chosen.asr = AsrKind::whisperServer;
            break;
        case BenchmarkOptions::Engine::fromSettings:
            break;
        }
        return makeAsr(chosen, nativeFactory);
    };

    QList<BenchmarkClip> clips = manifest.clips;
    if (options.limit && *options.limit < clips.size())
        clips.resize(*options.limit);

    // One engine per locale the clips ask for, each checked before anything is timed.
    std::map<QString, std::unique_ptr<AsrEngine>> engines;
    auto localeOf = [&](const BenchmarkClip &clip) { return clip.locale.value_or(defaultLocale); };
    for (const BenchmarkClip &clip : clips) {
        const QString locale = localeOf(clip);
        if (engines.count(locale))
            continue;
        std::unique_ptr<AsrEngine> engine = makeEngine(locale);
        if (!engine)
            co_return usageError(QStringLiteral("The native speech engine is not available on this platform. "
                                                "Use --engine whisper with a whisper.cpp server on this machine."));
        engines.emplace(locale, std::move(engine));
    }

    AsrEngine &firstEngine = *engines.at(localeOf(clips.first()));
    const auto *whisper = dynamic_cast<const WhisperServerEngine *>(&firstEngine);
    const QDateTime started = QDateTime::currentDateTime();
    BenchmarkRunInfo runInfo;
    runInfo.engineName = firstEngine.name();
    runInfo.engineKind = whisper ? QStringLiteral("whisper") : QStringLiteral("native");
    if (whisper)
        runInfo.endpoint = whisper->endpoint().toString();
    runInfo.locale = defaultLocale;
    runInfo.startedAt = started.toString(Qt::ISODate);
    if (const QString commit = qEnvironmentVariable("QUORVANE_BENCHMARK_COMMIT").trimmed(); !commit.isEmpty())
        runInfo.commit = commit;
    runInfo.version = AppInfo::version();
    runInfo.warmup = options.warmup;
    runInfo.limit = options.limit;

    print(stdout, QStringLiteral("Normalisation: %1\n").arg(SpeechBenchmarkMetrics::normalizationRule));
    print(stdout, QStringLiteral("Scoring %1 clips of \"%2\" with %3%4, locale %5\n")
                      .arg(clips.size())
                      .arg(manifest.name, runInfo.engineName,
                           runInfo.endpoint ? QStringLiteral(" at ") + *runInfo.endpoint : QString(), defaultLocale));

    for (auto &[locale, engine] : engines) {
        std::exception_ptr failure;
        try {
            co_await engine->prepare();
        } catch (...) {
            failure = std::current_exception();
        }
        if (failure) {
            print(stderr, QStringLiteral("The %1 is not ready: %2\nNothing was scored.\n")
                              .arg(engine->name(), describeError(failure)));
            co_return 1;
        }
    }

    const QString outputDirectory = options.outputDirectory ? QDir(*options.outputDirectory).absolutePath()
                                                            : defaultOutputDirectory(manifest, started);
    // A folder we create is private; one the user already has keeps its permissions.
    const bool created = !QFileInfo::exists(outputDirectory);
    if (created ? !Paths::makeProtectedDirectory(outputDirectory) : !QFileInfo(outputDirectory).isDir())
        co_return usageError(QStringLiteral("Cannot create the output folder %1.").arg(outputDirectory));

    Progress progress(clips.size());
    for (qsizetype i = 0; i < options.warmup; ++i) {
        const BenchmarkClip &clip = clips[i % clips.size()];
        progress.warmingUp(i, options.warmup, clip.id);
        const ClipResult warm = co_await BenchmarkRunner::runClip(*engines.at(localeOf(clip)), clip, localeOf(clip));
        if (!warm.scored())
            progress.note(QStringLiteral("warm-up clip %1 failed: %2").arg(clip.id, warm.error));
    }

    QList<ClipResult> results;
    for (qsizetype i = 0; i < clips.size(); ++i) {
        const BenchmarkClip &clip = clips[i];
        progress.starting(i, clip.id);
        ClipResult result = co_await BenchmarkRunner::runClip(*engines.at(localeOf(clip)), clip, localeOf(clip));
        progress.finished(i, result);
        results.append(std::move(result));
    }
    progress.done();

    const BenchmarkSummary summary = BenchmarkSummary::of(results);
    const QDir out(outputDirectory);
    const QByteArray summaryBytes =
        QJsonDocument(BenchmarkResults::summaryJson(manifest, runInfo, summary)).toJson(QJsonDocument::Indented);
    const bool written = writeFile(out.filePath(QStringLiteral("clips.csv")), BenchmarkResults::clipsCsv(results)) &&
                         writeFile(out.filePath(QStringLiteral("summary.json")), summaryBytes) &&
                         writeFile(out.filePath(QStringLiteral("report.html")),
                                   BenchmarkHtmlReport::render(manifest, runInfo, summary, results));

    print(stdout, QStringLiteral("\n") + BenchmarkResults::consoleTable(manifest, runInfo, summary));
    if (written)
        print(stdout, QStringLiteral("Results   %1 (open report.html in a browser)\n")
                          .arg(QDir::toNativeSeparators(outputDirectory)));
    if (!written)
        co_return 1;
    co_return summary.failed > 0 ? 1 : 0;
}

} // namespace SpeechBenchmark
