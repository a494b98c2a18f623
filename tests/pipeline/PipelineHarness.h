#pragma once

#include "FakeAudioCapture.h"
#include "FakeDesktop.h"
#include "FakeHotkey.h"
#include "FakeOllamaServer.h"
#include "FakeWhisperServer.h"
#include "RecordingCuePlayer.h"
#include "core/Async.h"
#include "core/Log.h"
#include "core/Scheduler.h"
#include "pipeline/Pipeline.h"

#include <QTemporaryDir>
#include <QTest>
#include <memory>
#include <mutex>

// One pipeline wired to fake desktop services, a fake whisper server on a loopback socket and a
// manual clock. Scenarios press keys, advance time and read what the user would have seen.
class PipelineHarness {
public:
    using Kind = PipelineState::Kind;

    PipelineHarness() {
        Log::setObserver([this](const QString &level, const QString &message) {
            std::lock_guard lock(m_logMutex);
            m_log.append(level + QLatin1Char(' ') + message);
        });
        capture->setPreRoll(std::vector<float>(1600, 0.1f));
        frontmost->app = FrontmostApp{QStringLiteral("Notes"), QStringLiteral("com.apple.Notes"), 42};
        config.asr = AsrKind::whisperServer;
        config.whisperEndpoint = whisper.url().toString();
        config.formatter = FormatterKind::ollama;
        config.ollamaEndpoint = ollama.url().toString();
        config.ollamaModel = QStringLiteral("llama3.2:latest");
        config.learnVocabulary = true;
        config.retainHistory = true;
    }
    ~PipelineHarness() {
        pipeline.reset();
        Log::setObserver({});
    }

    // Builds the pipeline from `config` and the fakes; call after adjusting them.
    Pipeline &build() {
        PlatformKit kit;
        kit.capture = capture;
        kit.injector = injector;
        kit.selectionEditor = selection;
        kit.frontmostApp = frontmost;
        kit.notifier = notifier;
        kit.cues = cues;
        kit.agentHandoff = agent;
        kit.repositoryContext = repositoryProvider;
        kit.makeCapture = [this](const Config &settings) -> std::shared_ptr<AudioCapturing> {
            if (settings.captureCommand)
                return recorder;
            return capture;
        };
        pipeline = std::make_unique<Pipeline>(config, kit, scheduler, std::make_unique<Store>(data.path()),
                                              std::make_unique<Learner>(data.filePath("learned.json"), scheduler));
        pipeline->onStateChange = [this](const PipelineState &state) { states.append(state); };
        pipeline->onUtterance = [this](const Utterance &utterance) { utterances.append(utterance); };
        pipeline->bindHotkey(dictationKey, PipelineMode::dictation);
        pipeline->bindHotkey(editKey, PipelineMode::editSelection);
        pipeline->bindHotkey(promptKey, PipelineMode::developerPrompt);
        return *pipeline;
    }
    // Builds and prepares, so that the formatter has found its model.
    Pipeline &ready() {
        build();
        syncWait(pipeline->prepare());
        m_warmUps = ollama.generateRequests().size();
        return *pipeline;
    }
    // The model's next answer.
    void reply(const QString &text, int delayMs = 0) {
        ollama.enqueueGenerate(FakeOllamaServer::generation(text).delayedBy(delayMs));
    }
    // Waits until the model has been asked `count` times since it was warmed up.
    bool modelAsked(int count = 1) {
        return QTest::qWaitFor([&] { return ollama.generateRequests().size() >= m_warmUps + count; }, 2000);
    }
    // The prompt of the model's `index`th request since the warm-up.
    QString modelPrompt(qsizetype index = 0) const {
        return ollama.generateBodies().mid(m_warmUps).value(index).value(QStringLiteral("prompt")).toString();
    }
    qsizetype modelRequestCount() const { return ollama.generateBodies().size() - m_warmUps; }
    // What the whisper server answers next, and the vocabulary prompt of its `index`th request.
    void transcript(const QString &text) { whisper.enqueueInference(FakeWhisperServer::transcript(text)); }
    QByteArray recognitionHints(qsizetype index = 0) const {
        return whisper.inferenceRequests().value(index).field("prompt").value_or(QByteArray());
    }

    Kind kind() const { return pipeline->state().kind; }

    // Presses `key` and waits until the microphone runs.
    bool press(FakeHotkey &key) {
        key.press();
        return QTest::qWaitFor([this] { return !pipeline->isStarting(); }, 2000) && kind() == Kind::recording;
    }
    // Holds `key` for `ms` of the manual clock while audio arrives, then releases it.
    bool hold(FakeHotkey &key, qint64 ms = 1200) {
        if (!press(key))
            return false;
        capture->deliver(std::vector<float>(8000, 0.2f));
        scheduler.advance(ms);
        key.release();
        return true;
    }
    // Waits (real time, briefly) until the run has ended in idle or error.
    bool settle() {
        return QTest::qWaitFor(
            [this] { return !pipeline->isStarting() && (kind() == Kind::idle || kind() == Kind::error); }, 3000);
    }
    bool holdAndSettle(FakeHotkey &key, qint64 ms = 1200) { return hold(key, ms) && settle(); }
    // Advances the clock to one millisecond short of `ms`, checks the run still waits, then lets it end.
    bool expiresAfter(qint64 ms) {
        scheduler.advance(ms - 1);
        QTest::qWait(10);
        if (kind() != Kind::thinking && kind() != Kind::recording)
            return false;
        scheduler.advance(1);
        return settle();
    }

    QStringList log() const {
        std::lock_guard lock(m_logMutex);
        return m_log;
    }
    QByteArray logText() const { return log().join(QLatin1Char('\n')).toUtf8(); }
    bool logged(const QString &line) const { return log().contains(line); }
    bool loggedStartingWith(const QString &prefix) const {
        const QStringList lines = log();
        return std::any_of(lines.begin(), lines.end(), [&](const QString &line) { return line.startsWith(prefix); });
    }

    QTemporaryDir data;
    FakeWhisperServer whisper;
    FakeOllamaServer ollama;
    ManualScheduler scheduler;
    Config config;
    std::shared_ptr<FakeAudioCapture> capture = std::make_shared<FakeAudioCapture>();
    // What a reload that sets captureCommand switches to.
    std::shared_ptr<FakeAudioCapture> recorder = std::make_shared<FakeAudioCapture>();
    std::shared_ptr<RecordingInjector> injector = std::make_shared<RecordingInjector>();
    std::shared_ptr<FakeSelectionEditor> selection = std::make_shared<FakeSelectionEditor>();
    std::shared_ptr<FakeFrontmostApp> frontmost = std::make_shared<FakeFrontmostApp>();
    std::shared_ptr<RecordingNotifier> notifier = std::make_shared<RecordingNotifier>();
    std::shared_ptr<RecordingCuePlayer> cues = std::make_shared<RecordingCuePlayer>();
    std::shared_ptr<FakeAgentLauncher> agent = std::make_shared<FakeAgentLauncher>();
    std::shared_ptr<RepositoryContextProviding> repositoryProvider;
    FakeHotkey dictationKey{PushToTalkKey::rightOption};
    FakeHotkey editKey{PushToTalkKey::rightCommand};
    FakeHotkey promptKey{PushToTalkKey::fn};
    std::unique_ptr<Pipeline> pipeline;
    QList<PipelineState> states;
    QList<Utterance> utterances;

private:
    qsizetype m_warmUps = 0;
    mutable std::mutex m_logMutex;
    QStringList m_log;
};
