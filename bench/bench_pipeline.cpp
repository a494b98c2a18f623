// Runs many dictations through the real pipeline against instant fake servers on loopback and
// prints what the pipeline itself adds between key-up and the pasted text, with the time spent
// waiting for the speech and formatting servers taken out, and the process's memory before and after.

#include "FakeAudioCapture.h"
#include "FakeDesktop.h"
#include "FakeHotkey.h"
#include "FakeOllamaServer.h"
#include "FakeWhisperServer.h"
#include "core/Async.h"
#include "core/Log.h"
#include "formatting/OllamaFormatter.h"
#include "pipeline/Pipeline.h"
#include "speech/WhisperServerEngine.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>
#include <unistd.h>
#include <vector>

namespace {

QElapsedTimer &benchClock() {
    static QElapsedTimer timer;
    return timer;
}

// Nanoseconds spent inside the servers' requests, as seen from the pipeline.
qint64 g_serverNs = 0;

// The whisper engine, timed around the one call that waits for its server.
class TimedEngine final : public AsrEngine {
public:
    explicit TimedEngine(std::unique_ptr<AsrEngine> inner) : m_inner(std::move(inner)) {}
    QString name() const override { return m_inner->name(); }
    bool isStreaming() const override { return m_inner->isStreaming(); }
    double requiredSampleRate() const override { return m_inner->requiredSampleRate(); }
    QCoro::Task<void> prepare() override { return m_inner->prepare(); }
    QCoro::Task<void> beginUtterance(QStringList hints) override { return m_inner->beginUtterance(hints); }
    void append(const AudioChunk &chunk) override { m_inner->append(chunk); }
    QCoro::Task<QString> finishUtterance() override {
        const qint64 started = benchClock().nsecsElapsed();
        QString text = co_await m_inner->finishUtterance();
        g_serverNs += benchClock().nsecsElapsed() - started;
        co_return text;
    }
    QCoro::Task<void> cancelUtterance() override { return m_inner->cancelUtterance(); }

private:
    std::unique_ptr<AsrEngine> m_inner;
};

// The Ollama formatter, timed around its requests.
class TimedFormatter final : public TextFormatter {
public:
    explicit TimedFormatter(std::unique_ptr<TextFormatter> inner) : m_inner(std::move(inner)) {}
    QString name() const override { return m_inner->name(); }
    bool isAvailable() const override { return m_inner->isAvailable(); }
    QCoro::Task<void> prepare() override { return m_inner->prepare(); }
    QCoro::Task<QString> format(QString transcript, FormattingContext context) override {
        const qint64 started = benchClock().nsecsElapsed();
        QString text = co_await m_inner->format(transcript, context);
        g_serverNs += benchClock().nsecsElapsed() - started;
        co_return text;
    }
    QCoro::Task<QString> rewrite(QString text, RewriteCommand command, FormattingContext context) override {
        return m_inner->rewrite(text, command, context);
    }
    QCoro::Task<QString> compileDeveloperPrompt(QString transcript, FormattingContext context) override {
        return m_inner->compileDeveloperPrompt(transcript, context);
    }

private:
    std::unique_ptr<TextFormatter> m_inner;
};

// Notes when the text arrives.
class TimingInjector final : public TextInjector {
public:
    void inject(const QString &) override {
        injectedAt = benchClock().nsecsElapsed();
        ++count;
    }
    void copyToClipboard(const QString &) override {}
    qint64 injectedAt = 0;
    int count = 0;
};

double residentMiB() {
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly))
        return -1;
    const QList<QByteArray> fields = statm.readAll().split(' ');
    if (fields.size() < 2)
        return -1;
    return double(fields[1].toLongLong()) * double(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

template <typename Predicate> bool spinUntil(Predicate done) {
    QElapsedTimer limit;
    limit.start();
    while (!done()) {
        if (limit.elapsed() > 5000)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
    return true;
}

} // namespace

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    const int runs = argc > 1 ? std::max(1, atoi(argv[1])) : 1000;
    const int warmUp = 50;
    QTemporaryDir home;
    qputenv("QUORVANE_HOME", home.path().toUtf8());
    benchClock().start();

    FakeWhisperServer whisper;
    FakeOllamaServer ollama;
    ollama.setDefaultGenerate(FakeOllamaServer::generation(QStringLiteral("Hello world.")));

    Config config;
    config.asr = AsrKind::appleSpeech;
    config.formatter = FormatterKind::appleFoundation;
    config.whisperEndpoint = whisper.url().toString();
    config.ollamaEndpoint = ollama.url().toString();
    config.ollamaModel = QStringLiteral("llama3.2:latest");

    auto capture = std::make_shared<FakeAudioCapture>();
    auto injector = std::make_shared<TimingInjector>();
    PlatformKit kit;
    kit.capture = capture;
    kit.injector = injector;
    kit.frontmostApp = std::make_shared<FakeFrontmostApp>();
    kit.notifier = std::make_shared<RecordingNotifier>();
    kit.nativeAsrEngine = [&](const QString &) {
        return std::make_unique<TimedEngine>(
            std::make_unique<WhisperServerEngine>(config.whisperEndpoint, config.locale));
    };
    kit.nativeFormatter = [&] {
        return std::make_unique<TimedFormatter>(
            std::make_unique<OllamaFormatter>(config.ollamaEndpoint, config.ollamaModel));
    };

    ManualScheduler scheduler;
    Pipeline pipeline(config, kit, scheduler, std::make_unique<Store>(home.path()),
                      std::make_unique<Learner>(home.filePath(QStringLiteral("learned.json")), scheduler));
    FakeHotkey key;
    pipeline.bindHotkey(key, PipelineMode::dictation);
    syncWait(pipeline.prepare());

    const std::vector<float> second(16000, 0.1f);
    std::vector<double> overheadMs;
    overheadMs.reserve(runs);
    double rssBefore = 0;
    double serverMs = 0;
    for (int i = 0; i < warmUp + runs; ++i) {
        if (i == warmUp)
            rssBefore = residentMiB();
        key.press();
        if (!spinUntil([&] { return pipeline.state().kind == PipelineState::Kind::recording; })) {
            std::fprintf(stderr, "dictation %d did not start\n", i);
            return 1;
        }
        capture->deliver(second);
        scheduler.advance(1000);
        const int before = injector->count;
        g_serverNs = 0;
        const qint64 released = benchClock().nsecsElapsed();
        key.release();
        if (!spinUntil(
                [&] { return injector->count > before && pipeline.state().kind == PipelineState::Kind::idle; })) {
            std::fprintf(stderr, "dictation %d did not deliver (%s)\n", i, qPrintable(pipeline.state().description()));
            return 1;
        }
        if (i >= warmUp) {
            overheadMs.push_back(double(injector->injectedAt - released - g_serverNs) / 1e6);
            serverMs += double(g_serverNs) / 1e6;
        }
        whisper.clearRequests();
        ollama.clearRequests();
    }
    Log::flush();
    const double rssAfter = residentMiB();

    std::sort(overheadMs.begin(), overheadMs.end());
    const auto at = [&](double p) {
        const size_t rank = std::min(overheadMs.size() - 1, size_t(p / 100.0 * double(overheadMs.size())));
        return overheadMs[rank];
    };
    std::printf("pipeline overhead per dictation, key-up to pasted text minus server time (%d runs)\n", runs);
    std::printf("  p50 %.3f ms   p95 %.3f ms   max %.3f ms\n", at(50), at(95), overheadMs.back());
    std::printf("  (mean time in the servers' requests: %.3f ms)\n", serverMs / double(runs));
    std::printf("resident memory: %.1f MiB before, %.1f MiB after (%+.1f MiB)\n", rssBefore, rssAfter,
                rssAfter - rssBefore);
    return 0;
}
