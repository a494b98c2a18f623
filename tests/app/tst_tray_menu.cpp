#include "FakeAudioCapture.h"
#include "FakeHotkey.h"
#include "LogRecorder.h"
#include "TempGitRepository.h"
#include "app/SettingsApplier.h"
#include "app/TrayMenu.h"
#include "core/Paths.h"
#include "formatting/PassthroughFormatter.h"
#include "pipeline/Pipeline.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMenu>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

namespace {

// An engine that is always ready and hears nothing; it fails as many transcriptions as it is told
// to. The harness counts how often one is built.
class IdleAsr final : public AsrEngine {
public:
    explicit IdleAsr(int *failures = nullptr, int *finishes = nullptr) : m_failures(failures), m_finishes(finishes) {}
    QString name() const override { return QStringLiteral("idle"); }
    bool isStreaming() const override { return false; }
    double requiredSampleRate() const override { return 16000; }
    QCoro::Task<void> prepare() override { co_return; }
    QCoro::Task<void> beginUtterance(QStringList) override { co_return; }
    void append(const AudioChunk &) override {}
    QCoro::Task<QString> finishUtterance() override {
        if (m_finishes)
            ++*m_finishes;
        if (m_failures && *m_failures > 0) {
            --*m_failures;
            throw QuorvaneError(QuorvaneError::Case::speechModelUnavailable, QStringLiteral("the engine stopped"));
        }
        co_return QString();
    }
    QCoro::Task<void> cancelUtterance() override { co_return; }

private:
    int *m_failures;
    int *m_finishes;
};

QString closedLoopbackUrl() {
    QTcpServer server;
    server.listen(QHostAddress::LocalHost);
    const quint16 port = server.serverPort();
    server.close();
    return QStringLiteral("http://127.0.0.1:%1").arg(port);
}

QJsonObject savedConfig() {
    QFile file(Paths::file(QStringLiteral("config.json")));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QJsonDocument::fromJson(file.readAll()).object();
}

// The menu as the shell wires it: a real pipeline over fakes, the key watchers and the login item.
struct Shell {
    explicit Shell(Config initial = {}) {
        initial.whisperEndpoint = closedLoopbackUrl();
        initial.ollamaEndpoint = closedLoopbackUrl();
        QFile::remove(Paths::file(QStringLiteral("config.json")));
        PlatformKit kit;
        kit.capture = capture;
        kit.nativeAsrEngine = [this](const QString &) {
            ++builds;
            return std::make_unique<IdleAsr>(&asrFailures, &transcriptions);
        };
        kit.nativeFormatter = [this] {
            ++builds;
            return std::make_unique<PassthroughFormatter>();
        };
        pipeline = std::make_unique<Pipeline>(initial, kit, scheduler, std::make_unique<Store>(data.path()),
                                              std::make_unique<Learner>(data.filePath("learned.json")));
        applier = std::make_unique<SettingsApplier>(
            *pipeline, [this](PipelineMode mode) { return &hotkeys[static_cast<int>(mode)]; },
            [this](bool enabled) { loginItem.append(enabled); });
        TrayMenu::Hooks hooks;
        hooks.isAgentAvailable = [this](AgentKind agent) { return installed.contains(agent); };
        hooks.status = [this] {
            TrayMenu::Status status;
            status.state = pipeline->state();
            status.canRetry = pipeline->canRetry();
            return status;
        };
        hooks.retryLastDictation = [this] { pipeline->retryLastDictation(); };
        hooks.chooseFolder = [this] { return folder; };
        hooks.askOllamaModel = [](const QString &) { return std::optional<QString>(QStringLiteral(" llama3.2:1b ")); };
        hooks.confirm = [this](const QString &, const QString &) { return confirmed; };
        hooks.inform = [this](const QString &title, const QString &) { notices.append(title); };
        hooks.onChange = [this](const Config &updated) { applier->apply(updated); };
        hooks.forgetLearnedWords = [this] { done.append(QStringLiteral("forget")); };
        hooks.deleteRetainedData = [this] { done.append(QStringLiteral("delete")); };
        hooks.showHistory = [this] { done.append(QStringLiteral("history")); };
        menu = std::make_unique<TrayMenu>(initial, std::move(hooks));
        builds = 0;
    }

    // The entry reached through `path` of menu titles, as the user sees it in the current menu.
    QAction *find(const QStringList &path) {
        QCoreApplication::sendPostedEvents(); // the rebuild after the last change
        QMenu *current = menu->menu();
        QAction *found = nullptr;
        for (const QString &title : path) {
            found = nullptr;
            // An exact title wins over one that merely begins with it ("Ollama" / "Ollama model: …").
            for (QAction *action : current ? current->actions() : QList<QAction *>{})
                if (action->text() == title || (!found && action->text().startsWith(title)))
                    found = action;
            if (!found)
                return nullptr;
            current = found->menu();
        }
        return found;
    }
    bool trigger(const QStringList &path) {
        QAction *action = find(path);
        if (!action || !action->isEnabled())
            return false;
        action->trigger();
        return true;
    }

    // A dictation that has ended, in idle or error.
    bool dictate() {
        pipeline->begin(PipelineMode::dictation);
        if (!QTest::qWaitFor([this] { return pipeline->state().kind == PipelineState::Kind::recording; }))
            return false;
        capture->deliver(std::vector<float>(4000, 0.2f));
        scheduler.advance(1000);
        pipeline->finish(PipelineMode::dictation);
        return settle();
    }
    bool settle() {
        return QTest::qWaitFor([this] {
            const auto kind = pipeline->state().kind;
            return kind == PipelineState::Kind::idle || kind == PipelineState::Kind::error;
        });
    }

    QTemporaryDir data;
    ManualScheduler scheduler;
    int asrFailures = 0;
    int transcriptions = 0;
    std::shared_ptr<FakeAudioCapture> capture = std::make_shared<FakeAudioCapture>();
    FakeHotkey hotkeys[3] = {FakeHotkey(PushToTalkKey::rightOption), FakeHotkey(PushToTalkKey::rightCommand),
                             FakeHotkey(PushToTalkKey::fn)};
    int builds = 0;
    QList<bool> loginItem;
    QList<AgentKind> installed{AgentKind::claude, AgentKind::codex};
    std::optional<QString> folder;
    bool confirmed = true;
    QStringList notices;
    QStringList done;
    std::unique_ptr<Pipeline> pipeline;
    std::unique_ptr<SettingsApplier> applier;
    std::unique_ptr<TrayMenu> menu;
};

} // namespace

class TrayMenuTest : public QObject {
    Q_OBJECT
    LogRecorder m_log;

private Q_SLOTS:
    // Each entry saves its key and reaches the pipeline the way the setting needs: a new engine or
    // formatter only when the choice changes one.
    void entriesSaveAndApply_data() {
        QTest::addColumn<QStringList>("path");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QJsonValue>("saved");
        QTest::addColumn<bool>("rebuilds");
        QTest::newRow("engine") << QStringList{"Speech engine", "whisper.cpp"} << "asr" << QJsonValue("whisperServer")
                                << true;
        QTest::newRow("formatter") << QStringList{"Formatter", "Ollama"} << "formatter" << QJsonValue("ollama") << true;
        QTest::newRow("no formatting") << QStringList{"Formatter", "No formatting"} << "formatter" << QJsonValue("none")
                                       << true;
        QTest::newRow("model, trimmed") << QStringList{"Formatter", "Ollama model"} << "ollamaModel"
                                        << QJsonValue("llama3.2:1b") << true;
        QTest::newRow("language") << QStringList{"Speech language", "English \u2014 India"} << "locale"
                                  << QJsonValue("en-IN") << true;
        QTest::newRow("noise reduction") << QStringList{"Noise reduction"} << "voiceProcessingEnabled"
                                         << QJsonValue(false) << false;
        QTest::newRow("limit") << QStringList{"Recording limit", "5 minutes"} << "maximumRecordingSeconds"
                               << QJsonValue(300) << false;
        QTest::newRow("destination") << QStringList{"Prompt destination", "Codex"} << "promptDestination"
                                     << QJsonValue("codex") << false;
        QTest::newRow("repository facts") << QStringList{"Repository for Prompt Mode", "Use repository facts"}
                                          << "repositoryContextEnabled" << QJsonValue(false) << false;
        QTest::newRow("history") << QStringList{"Keep history"} << "retainHistory" << QJsonValue(true) << false;
        QTest::newRow("recordings") << QStringList{"Keep recordings"} << "retainAudio" << QJsonValue(true) << false;
        QTest::newRow("learning") << QStringList{"Learn vocabulary"} << "learnVocabulary" << QJsonValue(false) << false;
        QTest::newRow("overlay") << QStringList{"Show recording overlay"} << "showOverlay" << QJsonValue(false)
                                 << false;
        QTest::newRow("login") << QStringList{"Launch at login"} << "launchAtLogin" << QJsonValue(true) << false;
    }
    void entriesSaveAndApply() {
        QFETCH(QStringList, path);
        QFETCH(QString, key);
        QFETCH(QJsonValue, saved);
        QFETCH(bool, rebuilds);
        Shell shell;
        QVERIFY(shell.trigger(path));
        QCOMPARE(savedConfig().value(key), saved);
        QCOMPARE(shell.builds > 0, rebuilds);
        QCOMPARE(shell.pipeline->config(), shell.menu->config());
        QCOMPARE(shell.capture->voiceProcessing().value_or(true), shell.pipeline->config().voiceProcessingEnabled);
        QCOMPARE(shell.loginItem, shell.pipeline->config().launchAtLogin ? QList<bool>{true} : QList<bool>{});
        // The rebuilt menu shows the new value as chosen.
        QAction *shown = shell.find(path);
        QVERIFY(shown->isCheckable() ? shown->isChecked() == (saved != QJsonValue(false))
                                     : shown->text().contains(saved.toString()));
    }

    // A key taken by another mode is shown but cannot be chosen; the mode's own key is the checked one.
    void takenKeysAreNotOffered_data() {
        QTest::addColumn<QString>("menu");
        QTest::addColumn<QString>("own");
        QTest::newRow("dictation") << "Dictation key" << displayName(PushToTalkKey::rightCommand);
        QTest::newRow("edit") << "Edit in Place key" << displayName(PushToTalkKey::fn);
        QTest::newRow("prompt") << "Prompt Mode key" << displayName(PushToTalkKey::rightOption);
    }
    void takenKeysAreNotOffered() {
        QFETCH(QString, menu);
        QFETCH(QString, own);
        Config config;
        config.pushToTalkKey = PushToTalkKey::rightCommand;
        config.editKey = PushToTalkKey::fn;
        config.promptKey = PushToTalkKey::rightOption;
        Shell shell(config);
        const QList<QAction *> entries = shell.find({menu})->menu()->actions();
        QCOMPARE(entries.size(), 3);
        for (QAction *entry : entries) {
            const bool isOwn = entry->text() == own;
            QCOMPARE(entry->isEnabled(), isOwn);
            QCOMPARE(entry->isChecked(), isOwn);
        }
        for (QAction *entry : entries)
            entry->trigger();
        QVERIFY(!QFile::exists(Paths::file(QStringLiteral("config.json"))));
    }

    // The watchers follow their keys when the keys change, and only those whose key changed.
    void keyWatchersFollowTheirKeys() {
        Shell shell;
        Config swapped = shell.pipeline->config();
        std::swap(swapped.pushToTalkKey, swapped.promptKey);
        shell.applier->apply(swapped);
        QCOMPARE(shell.hotkeys[0].key(), PushToTalkKey::fn);
        QCOMPARE(shell.hotkeys[1].key(), PushToTalkKey::rightCommand);
        QCOMPARE(shell.hotkeys[2].key(), PushToTalkKey::rightOption);
        QCOMPARE(savedConfig().value("promptKey"), QJsonValue("rightOption"));
        QCOMPARE(shell.builds, 0);
    }

    void agentsNotInstalledAreDisabled_data() {
        QTest::addColumn<QList<AgentKind>>("installed");
        QTest::addColumn<bool>("codex");
        QTest::addColumn<bool>("claude");
        QTest::newRow("none") << QList<AgentKind>{} << false << false;
        QTest::newRow("claude only") << QList<AgentKind>{AgentKind::claude} << false << true;
    }
    void agentsNotInstalledAreDisabled() {
        QFETCH(QList<AgentKind>, installed);
        QFETCH(bool, codex);
        QFETCH(bool, claude);
        Shell shell;
        shell.installed = installed;
        shell.menu->refresh();
        const QStringList path{"Prompt destination"};
        QVERIFY(shell.find(path + QStringList{"Focused app"})->isEnabled());
        QCOMPARE(shell.find(path + QStringList{"Codex"})->isEnabled(), codex);
        QCOMPARE(shell.find(path + QStringList{"Claude Code"})->isEnabled(), claude);
        QCOMPARE(shell.find(path + QStringList{"Codex"})->text().endsWith("(not installed)"), !codex);
    }

    // The history opens only while one is kept, and follows the switch at once.
    void historyFollowsRetention_data() {
        QTest::addColumn<bool>("kept");
        QTest::newRow("kept") << true;
        QTest::newRow("not kept") << false;
    }
    void historyFollowsRetention() {
        QFETCH(bool, kept);
        Config initial;
        initial.retainHistory = kept;
        Shell shell(initial);
        QCOMPARE(shell.trigger({"History"}), kept);
        QCOMPARE(shell.done, kept ? QStringList{"history"} : QStringList{});
        QVERIFY(shell.trigger({"Keep history"}));
        QCOMPARE(shell.find({"History"})->isEnabled(), !kept);
    }

    // Pinning takes the repository a folder belongs to; a folder outside Git is refused with a notice.
    void pinningARepository_data() {
        QTest::addColumn<QString>("chosen");
        QTest::addColumn<bool>("pinsRoot");
        QTest::newRow("repository") << "" << true;
        QTest::newRow("folder inside it") << "src/deep" << true;
        QTest::newRow("outside Git") << "<outside>" << false;
    }
    void pinningARepository() {
        QFETCH(QString, chosen);
        QFETCH(bool, pinsRoot);
        TempGitRepository repository;
        QVERIFY(repository.isValid());
        QTemporaryDir outside;
        QDir(repository.root()).mkpath(QStringLiteral("src/deep"));
        Config config;
        config.repositoryContextEnabled = false;
        Shell shell(config);
        shell.folder = chosen == "<outside>" ? outside.path() : QDir(repository.root()).filePath(chosen);
        QVERIFY(shell.trigger({"Repository for Prompt Mode", "Pin a folder"}));
        if (pinsRoot) {
            QCOMPARE(savedConfig().value("pinnedRepositoryPath").toString(), repository.root());
            QCOMPARE(savedConfig().value("repositoryContextEnabled"), QJsonValue(true));
            QVERIFY(shell.notices.isEmpty());
            QVERIFY(shell.trigger({"Repository for Prompt Mode", "Follow the focused window"}));
            QVERIFY(!savedConfig().contains("pinnedRepositoryPath"));
        } else {
            QCOMPARE(shell.notices, QStringList{"Not a Git repository"});
            QVERIFY(!shell.pipeline->config().pinnedRepositoryPath);
            QVERIFY(!QFile::exists(Paths::file(QStringLiteral("config.json"))));
        }
    }

    // Nothing is forgotten or deleted unless the user confirms.
    void destructiveEntriesAsk_data() {
        QTest::addColumn<QString>("entry");
        QTest::addColumn<bool>("confirmed");
        QTest::addColumn<QStringList>("done");
        QTest::newRow("forget, yes") << "Forget learned words" << true << QStringList{"forget"};
        QTest::newRow("forget, no") << "Forget learned words" << false << QStringList{};
        QTest::newRow("delete, yes") << "Delete retained data" << true << QStringList{"delete"};
        QTest::newRow("delete, no") << "Delete retained data" << false << QStringList{};
    }
    void destructiveEntriesAsk() {
        QFETCH(QString, entry);
        QFETCH(bool, confirmed);
        QFETCH(QStringList, done);
        Shell shell;
        shell.confirmed = confirmed;
        QVERIFY(shell.trigger({entry}));
        QCOMPARE(shell.done, done);
    }

    // The retry is offered only while a failed dictation is held, and stays offered until one works.
    void retryLastDictation_data() {
        QTest::addColumn<int>("failures");
        QTest::addColumn<bool>("offeredAfterRetry");
        QTest::newRow("the engine works again") << 1 << false;
        QTest::newRow("the engine still fails") << 2 << true;
    }
    void retryLastDictation() {
        QFETCH(int, failures);
        Shell shell;
        const QStringList entry{"Retry last dictation"};
        QVERIFY(shell.find(entry));
        QVERIFY(!shell.trigger(entry));
        QVERIFY(shell.dictate());
        QVERIFY(!shell.find(entry)->isEnabled());

        shell.asrFailures = failures;
        QVERIFY(shell.dictate());
        shell.menu->refresh();
        QVERIFY(shell.trigger(entry));
        QVERIFY(shell.settle());
        QCOMPARE(shell.transcriptions, 3);
        shell.menu->refresh();
        QTEST(shell.find(entry)->isEnabled(), "offeredAfterRetry");
    }

    void figures_data() {
        QTest::addColumn<int>("learned");
        QTest::addColumn<std::optional<qint64>>("p50");
        QTest::addColumn<QString>("expected");
        QTest::newRow("no latency yet") << 1 << std::optional<qint64>() << "1 learned word \u00B7 4 in history";
        QTest::newRow("latency") << 12 << std::optional<qint64>(640)
                                 << "12 learned words \u00B7 4 in history \u00B7 p50 640 ms \u00B7 p95 1210 ms";
    }
    void figures() {
        QFETCH(int, learned);
        QFETCH(std::optional<qint64>, p50);
        QFETCH(QString, expected);
        TrayMenu::Status status;
        status.learnedWords = learned;
        status.historyCount = 4;
        status.p50 = p50;
        if (p50)
            status.p95 = 1210;
        QCOMPARE(TrayMenu::figuresText(status), expected);
    }
};

QTEST_MAIN(TrayMenuTest)
#include "tst_tray_menu.moc"
