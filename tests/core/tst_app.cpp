#include "FakeHttpServer.h"
#include "LogRecorder.h"
#include "QuorvaneProcess.h"
#include "core/CommandLine.h"
#include "core/LaunchAtLogin.h"
#include "core/Log.h"
#include "core/Paths.h"
#include "platform/linux/XdgAutostart.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>

namespace {

constexpr auto ownerOnlyMask = QFileDevice::ReadGroup | QFileDevice::WriteGroup | QFileDevice::ExeGroup |
                               QFileDevice::ReadOther | QFileDevice::WriteOther | QFileDevice::ExeOther;

class ScriptedLoginItem final : public LaunchAtLogin::Service {
public:
    bool enabled = false;
    QString failure;
    int enableCalls = 0;
    int disableCalls = 0;
    bool isEnabled() override { return enabled; }
    QString enable() override {
        ++enableCalls;
        enabled = failure.isEmpty();
        return failure;
    }
    QString disable() override {
        ++disableCalls;
        enabled = !failure.isEmpty();
        return failure;
    }
};

// Starts the real application with its data directory in `home`, waits until its log holds `until`,
// stops it and returns what it wrote (nothing when the line never came). With `throughTerminal` it runs under
// script(1), output on a terminal; no speech server answers.
std::optional<QString> runApplicationUntil(const QString &home, const QByteArray &until, bool throughTerminal = false) {
    QProcess app;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("QUORVANE_HOME"), home);
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    // Without a display no desktop backend can arm the keys, even when the suite runs in a desktop.
    environment.remove(QStringLiteral("DISPLAY"));
    environment.remove(QStringLiteral("WAYLAND_DISPLAY"));
    app.setProcessEnvironment(environment);
    app.setProcessChannelMode(QProcess::MergedChannels);
    const auto found = [&] { return readFileBytes(home + "/quorvane.log").count(until); };
    const qsizetype before = found();
    if (throughTerminal)
        app.start(QStringLiteral("/usr/bin/script"),
                  {QStringLiteral("-qec"), QStringLiteral("'" QUORVANE_BINARY "'"), QStringLiteral("/dev/null")});
    else
        app.start(QStringLiteral(QUORVANE_BINARY), {});
    const bool logged = app.waitForStarted() && QTest::qWaitFor([&] { return found() > before; }, 10000);
    app.terminate();
    if (!app.waitForFinished(5000) || !logged)
        return std::nullopt;
    return QString::fromLocal8Bit(app.readAll());
}

} // namespace

class AppTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void dispatch_data() {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<Command>("expected");
        auto transcribe = [](QString path, QString locale) {
            Command c;
            c.kind = Command::Kind::transcribe;
            c.wavPath = path;
            c.locale = locale;
            return c;
        };
        auto benchmark = [](QStringList rest) {
            Command c;
            c.kind = Command::Kind::benchmark;
            c.commandArguments = rest;
            return c;
        };
        QTest::newRow("default locale") << QStringList{"q", "transcribe", "a.wav"} << transcribe("a.wav", "en-US");
        QTest::newRow("locale") << QStringList{"q", "transcribe", "a.wav", "en-GB"} << transcribe("a.wav", "en-GB");
        QTest::newRow("extra ignored") << QStringList{"q", "transcribe", "a.wav", "en-GB", "x"}
                                       << transcribe("a.wav", "en-GB");
        QTest::newRow("transcribe alone") << QStringList{"q", "transcribe"} << Command();
        QTest::newRow("benchmark alone") << QStringList{"q", "benchmark"} << benchmark({});
        QTest::newRow("benchmark args") << QStringList{"q", "benchmark", "m.json", "--limit", "3"}
                                        << benchmark({"m.json", "--limit", "3"});
        Command key;
        key.kind = Command::Kind::key;
        key.commandArguments = {"release", "edit"};
        QTest::newRow("key") << QStringList{"q", "key", "release", "edit"} << key;
        QTest::newRow("case matters") << QStringList{"q", "Transcribe", "a.wav"} << Command();
        QTest::newRow("upper benchmark") << QStringList{"q", "BENCHMARK"} << Command();
        QTest::newRow("nothing") << QStringList{"q"} << Command();
        QTest::newRow("program name only counts as argument zero") << QStringList{"transcribe", "a", "b"} << Command();
    }
    void dispatch() {
        QFETCH(QStringList, arguments);
        QTEST(Command::parse(arguments), "expected");
    }

    void launchAtLoginActsOnlyOnChange() {
        LogRecorder log;
        ScriptedLoginItem item;
        LaunchAtLogin::apply(item, true);
        LaunchAtLogin::apply(item, true);
        QCOMPARE(item.enableCalls, 1);
        LaunchAtLogin::apply(item, false);
        LaunchAtLogin::apply(item, false);
        QCOMPARE(item.disableCalls, 1);
        item.failure = QStringLiteral("Operation not permitted");
        LaunchAtLogin::apply(item, true);
        QCOMPARE(log.lines, QStringList{"ERROR Could not change launch-at-login: Operation not permitted"});
    }

    void xdgAutostartEntry() {
        QTemporaryDir dir;
        const QString entryPath = dir.filePath(QStringLiteral("autostart/quorvane.desktop"));
        XdgAutostart autostart(entryPath, QStringLiteral("/opt/My \"Apps\"/quorvane"));
        QVERIFY(!autostart.isEnabled());
        QCOMPARE(autostart.enable(), QString());
        QVERIFY(autostart.isEnabled());
        const QByteArray entry = readFileBytes(entryPath);
        QVERIFY2(entry.contains("\nExec=\"/opt/My \\\"Apps\\\"/quorvane\"\n"), entry.constData());
        QCOMPARE(QFile::permissions(entryPath) & ownerOnlyMask, 0);
        QCOMPARE(autostart.disable(), QString());
        QVERIFY(!QFile::exists(entryPath));

        XdgAutostart blocked(dir.filePath(QStringLiteral("file/not-a-folder/q.desktop")), QStringLiteral("/q"));
        QFile(dir.filePath(QStringLiteral("file"))).open(QIODevice::WriteOnly);
        QVERIFY(!blocked.enable().isEmpty());
    }

    void launchAtLoginStartsThisProgram_data() {
        QTest::addColumn<QString>("existingProgram");
        QTest::addColumn<bool>("enabled");
        QTest::addColumn<bool>("entryExpected");
        QTest::newRow("on, none yet") << QString() << true << true;
        QTest::newRow("on, another copy's entry") << QStringLiteral("/home/me/quorvane/build/quorvane") << true << true;
        QTest::newRow("off, another copy's entry")
            << QStringLiteral("/home/me/quorvane/build/quorvane") << false << false;
    }
    void launchAtLoginStartsThisProgram() {
        QFETCH(QString, existingProgram);
        QFETCH(bool, enabled);
        QFETCH(bool, entryExpected);
        LogRecorder log;
        QTemporaryDir config;
        const QByteArray saved = qgetenv("XDG_CONFIG_HOME");
        const bool wasSet = qEnvironmentVariableIsSet("XDG_CONFIG_HOME");
        const auto restore = qScopeGuard([&] {
            if (wasSet)
                qputenv("XDG_CONFIG_HOME", saved);
            else
                qunsetenv("XDG_CONFIG_HOME");
        });
        qputenv("XDG_CONFIG_HOME", config.path().toLocal8Bit());
        const QString entryPath = config.filePath(QStringLiteral("autostart/quorvane.desktop"));
        if (!existingProgram.isEmpty())
            QCOMPARE(XdgAutostart(entryPath, existingProgram).enable(), QString());

        LaunchAtLogin::set(enabled);
        if (entryExpected)
            QCOMPARE(readFileBytes(entryPath), XdgAutostart::forCurrentUser().entry());
        else
            QVERIFY(!QFile::exists(entryPath));
    }

    void dataDirectoryMovesTheLegacyFolderAndProtects() {
        QTemporaryDir base;
        const QString legacy = base.filePath(QStringLiteral("Speakwell"));
        QVERIFY(QDir().mkpath(legacy + "/audio"));
        QFile(legacy + "/history.jsonl").open(QIODevice::WriteOnly);
        QFile(legacy + "/audio/1.wav").open(QIODevice::WriteOnly);
        QFile::setPermissions(legacy + "/history.jsonl", QFileDevice::Permissions(0x0666));
        const QString root = base.filePath(QStringLiteral("Quorvane"));
        Paths::prepare(root, legacy);
        QVERIFY(!QFile::exists(legacy));
        QVERIFY(QFile::exists(root + "/history.jsonl"));
        for (const QString &path : {root, root + "/audio", root + "/history.jsonl", root + "/audio/1.wav"})
            QVERIFY2((QFile::permissions(path) & ownerOnlyMask) == 0, qPrintable(path));

        // Once the new folder exists, a legacy folder is left alone.
        QVERIFY(QDir().mkpath(legacy));
        Paths::prepare(root, legacy);
        QVERIFY(QFile::exists(legacy));
    }

    void withoutADisplayTheApplicationExplainsAndExits_data() {
        QTest::addColumn<QString>("display");
        QTest::newRow("no display named") << QString();
        QTest::newRow("display that does not answer") << QStringLiteral(":4077");
    }
    void withoutADisplayTheApplicationExplainsAndExits() {
#ifndef Q_OS_LINUX
        QSKIP("macOS always has its window server");
#endif
        QFETCH(QString, display);
        QTemporaryDir home;
        const QuorvaneRun run = runQuorvane(
            home.path(), {}, {{"DISPLAY", display}, {"WAYLAND_DISPLAY", {}}, {"QT_QPA_PLATFORM", {}}}, 10000);
        QCOMPARE(run.exitCode, 1);
        QCOMPARE(run.out, QString());
        QCOMPARE(run.err.count(u'\n'), 1);
        QVERIFY2(run.err.startsWith("Quorvane needs a desktop session: "), qPrintable(run.err));
        QVERIFY2(display.isEmpty() || run.err.contains(display), qPrintable(run.err));
    }

    void problemsThatStopDictationReachATerminal_data() {
        QTest::addColumn<bool>("throughTerminal");
        QTest::newRow("terminal") << true;
        QTest::newRow("no terminal") << false;
    }
    void problemsThatStopDictationReachATerminal() {
        QFETCH(bool, throughTerminal);
#ifndef Q_OS_LINUX
        // BSD script(1) takes the command without -c.
        if (throughTerminal)
            QSKIP("needs the util-linux script(1) to give the application a terminal");
#endif
        if (throughTerminal && !QFile::exists(QStringLiteral("/usr/bin/script")))
            QSKIP("script(1) is needed to give the application a terminal");
        QTemporaryDir home;
        const QString endpoint = QStringLiteral("http://127.0.0.1:%1").arg(FakeHttpServer::closedPort());
        writeFileBytes(home.filePath("config.json"),
                       "{\"asr\": \"whisperServer\", \"whisperEndpoint\": \"" + endpoint.toUtf8() + "\"}");
        const std::optional<QString> output =
            runApplicationUntil(home.path(), "[ERROR] ASR unavailable", throughTerminal);
        QVERIFY(output);
        const QString told[] = {
            QStringLiteral("Settings and data: ") + home.path() + QStringLiteral(", log: ") + home.path() +
                QStringLiteral("/quorvane.log"),
            QStringLiteral("The push-to-talk keys could not be armed"),
            QStringLiteral("no whisper.cpp server at http://127.0.0.1:"),
        };
        for (const QString &line : told)
            QVERIFY2(output->contains(line) == throughTerminal, qPrintable(*output));
    }

    void applicationStartWritesDefaultsThenPreservesABadFile() {
        QTemporaryDir base;
        const QString home = base.filePath(QStringLiteral("fresh/Quorvane"));
        QVERIFY(runApplicationUntil(home, " started\n"));
        QCOMPARE(QFile::permissions(home) & ownerOnlyMask, 0);
        const QString config = home + "/config.json";
        QCOMPARE(QFile::permissions(config) & ownerOnlyMask, 0);
        const QJsonObject saved = QJsonDocument::fromJson(readFileBytes(config)).object();
        QCOMPARE(saved.value("formatterTimeoutMS").toInt(), 2500);
        QVERIFY(readFileBytes(config).indexOf("\"appRules\"") < readFileBytes(config).indexOf("\"asr\""));
        QVERIFY(!readFileBytes(home + "/quorvane.log").contains("Settings were invalid"));

        writeFileBytes(config, "this is not JSON");
        QVERIFY(runApplicationUntil(home, " started\n"));
        QCOMPARE(readFileBytes(home + "/config.invalid.json"), QByteArray("this is not JSON"));
        QCOMPARE(QJsonDocument::fromJson(readFileBytes(config)).object(), saved);
        QVERIFY(readFileBytes(home + "/quorvane.log")
                    .contains(" [WARN] Settings were invalid. Safe defaults were loaded and the original file was "
                              "preserved as config.invalid.json.\n"));
    }
};

QTEST_GUILESS_MAIN(AppTest)
#include "tst_app.moc"
