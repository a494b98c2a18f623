#include "LogRecorder.h"
#include "QuorvaneProcess.h"
#include "core/Config.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

namespace {

Config decodeObject(const QByteArray &json) {
    const auto decoded = Config::decode(json);
    if (!decoded)
        qFatal("test JSON did not decode: %s", json.constData());
    return *decoded;
}

} // namespace

class ConfigTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void emptyObjectIsDefaults() {
        QVERIFY(!Config::decode("[]"));
        QVERIFY(!Config::decode("not json"));
        const Config config = decodeObject("{}");
        QCOMPARE(config, Config());
        QCOMPARE(config.pushToTalkKey, PushToTalkKey::rightOption);
        QCOMPARE(config.editKey, PushToTalkKey::rightCommand);
        QCOMPARE(config.promptKey, PushToTalkKey::fn);
        QCOMPARE(config.appRules.size(), 6);
        QCOMPARE(config.ollamaEndpoint, QStringLiteral("http://127.0.0.1:11434"));
        QCOMPARE(config.whisperEndpoint, QStringLiteral("http://127.0.0.1:8080"));
    }

    void modeKeysAreMadeDistinct_data() {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("dictation");
        QTest::addColumn<QString>("edit");
        QTest::addColumn<QString>("prompt");
        QTest::newRow("only dictation moved") << QByteArray(R"({"pushToTalkKey":"rightCommand"})") << "rightCommand"
                                              << "rightOption"
                                              << "fn";
        QTest::newRow("all fn") << QByteArray(R"({"pushToTalkKey":"fn","editKey":"fn","promptKey":"fn"})") << "fn"
                                << "rightOption"
                                << "rightCommand";
        QTest::newRow("prompt collides with edit")
            << QByteArray(R"({"pushToTalkKey":"fn","editKey":"rightCommand","promptKey":"rightCommand"})") << "fn"
            << "rightCommand"
            << "rightOption";
        QTest::newRow("unknown value takes default")
            << QByteArray(R"({"pushToTalkKey":"capsLock","editKey":"fn"})") << "rightOption"
            << "fn"
            << "rightCommand";
    }
    void modeKeysAreMadeDistinct() {
        QFETCH(QByteArray, json);
        const Config config = decodeObject(json);
        QTEST(toName(config.pushToTalkKey), "dictation");
        QTEST(toName(config.editKey), "edit");
        QTEST(toName(config.promptKey), "prompt");
    }

    void numbersAreClampedOrDefaulted_data() {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<qint64>("timeout");
        QTest::addColumn<qint64>("recording");
        QTest::newRow("low") << QByteArray(R"({"formatterTimeoutMS":10,"maximumRecordingSeconds":30})") << qint64(250)
                             << qint64(60);
        QTest::newRow("high") << QByteArray(R"({"formatterTimeoutMS":99999,"maximumRecordingSeconds":1000})")
                              << qint64(15000) << qint64(300);
        QTest::newRow("strings") << QByteArray(R"({"formatterTimeoutMS":"900","maximumRecordingSeconds":"90"})")
                                 << qint64(2500) << qint64(180);
        QTest::newRow("fraction is not an integer")
            << QByteArray(R"({"formatterTimeoutMS":900.5,"maximumRecordingSeconds":null})") << qint64(2500)
            << qint64(180);
    }
    void numbersAreClampedOrDefaulted() {
        QFETCH(QByteArray, json);
        const Config config = decodeObject(json);
        QTEST(config.formatterTimeoutMS, "timeout");
        QTEST(config.maximumRecordingSeconds, "recording");
    }

    void badKeysTakeTheirDefaultAlone() {
        const Config config = decodeObject(R"({"retainHistory":"yes","learnVocabulary":false,"locale":"",
            "guardMaxLengthRatio":3.5,"ollamaModel":7,"captureCommand":["rec","-q",3],"pinnedRepositoryPath":null,
            "formatter":"ollama","asr":"whisperServer","promptDestination":"claude","unknownKey":1})");
        QCOMPARE(config.retainHistory, false);
        QCOMPARE(config.learnVocabulary, false);
        QCOMPARE(config.locale, QString()); // an empty locale is kept
        QCOMPARE(config.guardMaxLengthRatio, 3.5);
        QCOMPARE(config.ollamaModel, QStringLiteral("qwen3.5:latest"));
        QVERIFY(!config.captureCommand);
        QVERIFY(!config.pinnedRepositoryPath);
        QCOMPARE(config.formatter, FormatterKind::ollama);
        QCOMPARE(config.asr, AsrKind::whisperServer);
        QCOMPARE(config.promptDestination, PromptDestination::claude);
    }

    void endpointsMustBeLocal_data() {
        QTest::addColumn<QString>("value");
        QTest::addColumn<QString>("expected");
        const QString fallback = QStringLiteral("http://127.0.0.1:8080");
        QTest::newRow("ftp") << "ftp://127.0.0.1:8080" << fallback;
        QTest::newRow("user") << "http://me@localhost:9000" << fallback;
        QTest::newRow("remote host") << "http://192.168.1.5:8080" << fallback;
        QTest::newRow("lookalike host") << "http://localhost.example.com:8080" << fallback;
        QTest::newRow("relative") << "localhost:9000" << fallback;
        QTest::newRow("localhost other port") << "http://localhost:9000"
                                              << "http://localhost:9000";
        QTest::newRow("ipv6 loopback with path") << "http://[::1]:8443/v1?x=1"
                                                 << "http://[::1]:8443/v1?x=1";
        QTest::newRow("https, which no local client speaks") << "https://127.0.0.1:8443" << fallback;
    }
    void endpointsMustBeLocal() {
        QFETCH(QString, value);
        QFETCH(QString, expected);
        LogRecorder log;
        const QByteArray json = QJsonDocument(QJsonObject{{QStringLiteral("whisperEndpoint"), value}}).toJson();
        QCOMPARE(decodeObject(json).whisperEndpoint, expected);
        // Only the refusal that would otherwise look like a missing server is explained.
        const QStringList expectedLog{QStringLiteral("WARN Settings: whisperEndpoint https://127.0.0.1:8443 is not "
                                                     "used because local servers are reached over plain http only; "
                                                     "using http://127.0.0.1:8080.")};
        QCOMPARE(log.lines, value.startsWith("https") ? expectedLog : QStringList());
    }

    void appRulesDecodeWhole() {
        const Config custom =
            decodeObject(R"({"appRules":[{"bundleIDPrefix":"org.gnome.","styleInstruction":"Plain."}]})");
        QCOMPARE(custom.appRules, (QList<AppRule>{{QStringLiteral("org.gnome."), QStringLiteral("Plain.")}}));
        const Config broken = decodeObject(
            R"({"appRules":[{"bundleIDPrefix":"org.gnome.","styleInstruction":"Plain."},{"bundleIDPrefix":"x"}]})");
        QCOMPARE(broken.appRules, Config::defaultAppRules());
    }

    void styleInstructionPrefersTheLongestPrefix() {
        Config config;
        config.appRules = {{QStringLiteral("com.apple"), QStringLiteral("short")},
                           {QStringLiteral("com.apple.mail"), QStringLiteral("long")},
                           {QStringLiteral("com.apple.mail"), QStringLiteral("later duplicate")}};
        QCOMPARE(config.styleInstruction(QStringLiteral("com.apple.mail.compose")), QStringLiteral("long"));
        QCOMPARE(config.styleInstruction(QStringLiteral("com.apple.Notes")), QStringLiteral("short"));
        QCOMPARE(config.styleInstruction(QStringLiteral("COM.APPLE.mail")), std::nullopt);
        QCOMPARE(config.styleInstruction(std::nullopt), std::nullopt);
        QCOMPARE(Config().styleInstruction(QStringLiteral("com.googlecode.iterm2")),
                 QStringLiteral("Technical tone. Preserve commands, flags and paths exactly as spoken."));
    }

    void formatterTimeoutCeiling_data() {
        QTest::addColumn<qint64>("timeout");
        QTest::addColumn<qint64>("base");
        QTest::addColumn<qint64>("ceiling");
        QTest::newRow("default reaches the cap") << qint64(2500) << qint64(100) << qint64(15000);
        QTest::newRow("six times the setting") << qint64(1000) << qint64(100) << qint64(6000);
        QTest::newRow("base above six times") << qint64(250) << qint64(4000) << qint64(4000);
        QTest::newRow("base capped") << qint64(250) << qint64(99999) << qint64(15000);
        QTest::newRow("non-positive setting") << qint64(0) << qint64(3) << qint64(6);
    }
    void formatterTimeoutCeiling() {
        QFETCH(qint64, timeout);
        QFETCH(qint64, base);
        Config config;
        config.formatterTimeoutMS = timeout;
        QTEST(config.formatterTimeoutCeiling(base), "ceiling");
    }

    void saveIsSortedPrettyAndPrivate() {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("nested/config.json"));
        Config config;
        config.captureCommand = QStringList{QStringLiteral("/usr/bin/rec")};
        config.save(path);
        const QByteArray bytes = readFileBytes(path);
        QVERIFY(bytes.contains("\n    \"appRules\""));
        QVERIFY(bytes.contains("captureCommand"));
        QVERIFY(!bytes.contains("pinnedRepositoryPath"));
        // Keys in alphabetical order: each top-level key appears after the one before it.
        const QStringList keys = QJsonDocument::fromJson(bytes).object().keys();
        qsizetype last = -1;
        for (const QString &key : keys) {
            const qsizetype at = bytes.indexOf("\n    \"" + key.toUtf8() + "\"");
            QVERIFY2(at > last, qPrintable(key));
            last = at;
        }
        const auto others = QFileDevice::ReadGroup | QFileDevice::WriteGroup | QFileDevice::ReadOther |
                            QFileDevice::WriteOther | QFileDevice::ExeOwner;
        QCOMPARE(QFile::permissions(path) & others, 0);
        QCOMPARE(Config::load(path), config);
    }

    // Loading never loses the user's file: a sound one is left as it is, a broken one is kept beside
    // the defaults, and only what went wrong is logged.
    void loading_data() {
        QTest::addColumn<QByteArray>("original"); // empty: no file yet
        QTest::addColumn<bool>("oldCopyInTheWay");
        QTest::addColumn<QByteArray>("preserved");
        QTest::addColumn<QString>("logged");
        const QString preservedLine = QStringLiteral("WARN Settings were invalid. Safe defaults were loaded and the "
                                                     "original file was preserved as config.invalid.json.");
        QTest::newRow("missing") << QByteArray() << false << QByteArray() << QString();
        QTest::newRow("valid") << QByteArray(R"({"retainHistory": true})") << false << QByteArray() << QString();
        QTest::newRow("invalid") << QByteArray("{ not json") << false << QByteArray("{ not json") << preservedLine;
        // A directory in the way of the preserved copy cannot be removed like a file.
        QTest::newRow("invalid, old copy in the way")
            << QByteArray("[]") << true << QByteArray()
            << QStringLiteral("ERROR Settings were invalid and could not be preserved");
    }
    void loading() {
        QFETCH(QByteArray, original);
        QFETCH(bool, oldCopyInTheWay);
        QFETCH(QByteArray, preserved);
        QFETCH(QString, logged);
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("config.json"));
        const QString copy = dir.filePath(QStringLiteral("config.invalid.json"));
        if (oldCopyInTheWay)
            QVERIFY(QDir(dir.path()).mkpath(QStringLiteral("config.invalid.json/inside")));
        else
            writeFileBytes(copy, "an older bad copy");
        if (!original.isEmpty())
            writeFileBytes(path, original);
        LogRecorder log;
        const Config config = Config::load(path);
        QCOMPARE(config.retainHistory, original.contains("retainHistory"));
        if (!preserved.isEmpty()) {
            QCOMPARE(readFileBytes(copy), preserved);
            QCOMPARE(Config::decode(readFileBytes(path)), Config());
        } else {
            // Written once when missing, never rewritten otherwise.
            QCOMPARE(readFileBytes(path), original.isEmpty() ? Config().encode() : original);
        }
        QCOMPARE(log.lines.size(), logged.isEmpty() ? 0 : 1);
        QVERIFY2(logged.isEmpty() || log.lines.first().startsWith(logged), qPrintable(log.lines.join('\n')));
    }

    void enumerationsRoundTrip() {
        for (PushToTalkKey key : allCases<PushToTalkKey>())
            QCOMPARE(fromName<PushToTalkKey>(toName(key)), key);
        QCOMPARE(fromName<PromptDestination>(QStringLiteral("Codex")), std::nullopt);
    }
};

QTEST_GUILESS_MAIN(ConfigTest)
#include "tst_config.moc"
