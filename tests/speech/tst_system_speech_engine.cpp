#include "LogRecorder.h"
#include "ScriptedSpeechRecognizer.h"
#include "core/Async.h"
#include "core/QuorvaneError.h"
#include "speech/SystemSpeechEngine.h"

#include <QTest>

using Recognizer = OnDeviceSpeechRecognizer;
using Ending = Recognizer::Ending;

Q_DECLARE_METATYPE(Recognizer::Technology)
Q_DECLARE_METATYPE(Recognizer::Permission)
Q_DECLARE_METATYPE(Recognizer::LocaleSupport)
Q_DECLARE_METATYPE(std::optional<QString>)
Q_DECLARE_METATYPE(std::optional<Ending>)

namespace {

// What the task ended with: "ok", its text, or the error's case and message.
template <typename T> QString outcome(QCoro::Task<T> task) {
    try {
        if constexpr (std::is_void_v<T>) {
            syncWait(std::move(task));
            return QStringLiteral("ok");
        } else {
            return QStringLiteral("text: ") + syncWait(std::move(task));
        }
    } catch (const QuorvaneError &error) {
        return toName(error.errorCase()) + QStringLiteral(": ") + error.message();
    }
}

bool anyContains(const QStringList &lines, const QString &fragment) {
    return std::any_of(lines.begin(), lines.end(), [&](const QString &line) { return line.contains(fragment); });
}

} // namespace

class TestSystemSpeechEngine : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void prepare_data() {
        QTest::addColumn<Recognizer::Technology>("technology");
        QTest::addColumn<Recognizer::Permission>("permission");
        QTest::addColumn<bool>("grants");
        QTest::addColumn<Recognizer::LocaleSupport>("support");
        QTest::addColumn<std::optional<QString>>("installError");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<int>("permissionRequests");
        QTest::addColumn<int>("installs");
        const auto analyzer = Recognizer::Technology::speechAnalyzer;
        const auto legacy = Recognizer::Technology::speechRecognizer;
        const auto granted = Recognizer::Permission::granted;
        const auto installed = Recognizer::LocaleSupport::installed;
        const std::optional<QString> fine = QString();
        QTest::newRow("model on the device") << analyzer << granted << true << installed << fine << "ok" << 0 << 0;
        QTest::newRow("first run downloads the model")
            << analyzer << granted << true << Recognizer::LocaleSupport::downloadable << fine << "ok" << 0 << 1;
        QTest::newRow("download fails")
            << analyzer << granted << true << Recognizer::LocaleSupport::downloadable
            << std::optional<QString>(QStringLiteral("The network connection was lost."))
            << "speechModelUnavailable: The speech model is unavailable: the speech model for de-CH could not be "
               "downloaded: The network connection was lost."
            << 0 << 1;
        QTest::newRow("language not on the device")
            << analyzer << granted << true << Recognizer::LocaleSupport::unsupported << fine
            << "localeUnsupported: On-device speech recognition does not support de-CH" << 0 << 0;
        QTest::newRow("older recogniser, permission refused before")
            << legacy << Recognizer::Permission::denied << true << installed << fine
            << "speechModelUnavailable: The speech model is unavailable: speech recognition is not allowed for "
               "Quorvane. Allow it under System Settings \u203A Privacy & Security \u203A Speech Recognition"
            << 0 << 0;
        QTest::newRow("older recogniser asks, user allows")
            << legacy << Recognizer::Permission::undetermined << true << installed << fine << "ok" << 1 << 0;
        QTest::newRow("older recogniser asks, user refuses")
            << legacy << Recognizer::Permission::undetermined << false << installed << fine
            << "speechModelUnavailable: The speech model is unavailable: speech recognition is not allowed for "
               "Quorvane. Allow it under System Settings \u203A Privacy & Security \u203A Speech Recognition"
            << 1 << 0;
    }
    void prepare() {
        QFETCH(Recognizer::Technology, technology);
        QFETCH(Recognizer::Permission, permission);
        QFETCH(bool, grants);
        QFETCH(Recognizer::LocaleSupport, support);
        QFETCH(std::optional<QString>, installError);
        QFETCH(QString, expected);
        QFETCH(int, permissionRequests);
        QFETCH(int, installs);
        LogRecorder log;
        auto recognizer = std::make_shared<ScriptedSpeechRecognizer>();
        recognizer->tech = technology;
        recognizer->userPermission = permission;
        recognizer->grantsOnRequest = grants;
        recognizer->support = support;
        recognizer->installError = installError;
        SystemSpeechEngine engine(recognizer, QStringLiteral("de-CH"));
        QCOMPARE(outcome(engine.prepare()), expected);
        QCOMPARE(recognizer->permissionRequests, permissionRequests);
        QCOMPARE(recognizer->installs, installs);
        QCOMPARE(anyContains(log.lines, QStringLiteral("INFO ASR ready \u00B7 ")), expected == QLatin1String("ok"));
        if (expected != QLatin1String("ok"))
            return;
        // Ready once is ready for good: nothing is asked again.
        QCOMPARE(outcome(engine.prepare()), QStringLiteral("ok"));
        QCOMPARE(recognizer->askedLocales.size(), 1);
    }

    // The first download is slow: its progress is logged, and a second preparation meanwhile says
    // how far it has got instead of starting another.
    void downloadProgress() {
        LogRecorder log;
        ManualScheduler clock;
        auto recognizer = std::make_shared<ScriptedSpeechRecognizer>();
        recognizer->support = Recognizer::LocaleSupport::downloadable;
        recognizer->installError.reset();
        SystemSpeechEngine engine(recognizer, QStringLiteral("en-US"), clock);
        QCoro::Task<void> first = engine.prepare();
        recognizer->progress = 0.3;
        clock.advance(SystemSpeechEngine::progressPollMs);
        recognizer->progress = 0.9;
        clock.advance(SystemSpeechEngine::progressPollMs);
        clock.advance(SystemSpeechEngine::progressPollMs);
        QCOMPARE(log.lines.filter(QStringLiteral("downloaded")),
                 (QStringList{QStringLiteral("INFO Speech model for en-US: 25 % downloaded"),
                              QStringLiteral("INFO Speech model for en-US: 75 % downloaded")}));
        QCOMPARE(outcome(engine.prepare()), QStringLiteral("speechModelUnavailable: The speech model is unavailable: "
                                                           "the speech model for en-US is still downloading (90 %)"));
        recognizer->installDone(QString());
        QCOMPARE(outcome(std::move(first)), QStringLiteral("ok"));
        QCOMPARE(recognizer->installs, 1);
        QVERIFY(anyContains(log.lines, QStringLiteral("INFO ASR ready")));
        QCOMPARE(clock.pendingCount(), std::size_t(0));
    }

    void transcript_data() {
        QTest::addColumn<QStringList>("segments");
        QTest::addColumn<std::optional<Ending>>("ending");
        QTest::addColumn<QString>("expected");
        const Ending finished;
        QTest::newRow("segments joined by one space")
            << QStringList{QStringLiteral("Hello there."), QStringLiteral(" How are you? ")} << std::optional(finished)
            << "text: Hello there. How are you?";
        QTest::newRow("blank segments dropped")
            << QStringList{QStringLiteral("  "), QStringLiteral("Hi")} << std::optional(finished) << "text: Hi";
        QTest::newRow("no speech is an empty transcript")
            << QStringList{} << std::optional(Ending{Ending::Kind::noSpeech, {}}) << "text: ";
        QTest::newRow("recogniser fails")
            << QStringList{QStringLiteral("Half")}
            << std::optional(Ending{Ending::Kind::failed, QStringLiteral("the audio engine stopped")})
            << "speechModelUnavailable: The speech model is unavailable: the audio engine stopped";
        QTest::newRow("recogniser fails without a reason")
            << QStringList{} << std::optional(Ending{Ending::Kind::failed, {}})
            << "speechModelUnavailable: The speech model is unavailable: the on-device recognizer failed without a "
               "reason";
        QTest::newRow("recogniser never answers")
            << QStringList{QStringLiteral("Half")} << std::optional<Ending>()
            << "speechModelUnavailable: The speech model is unavailable: the on-device recognizer did not finish "
               "within 15 s";
    }
    void transcript() {
        QFETCH(QStringList, segments);
        QFETCH(std::optional<Ending>, ending);
        QFETCH(QString, expected);
        ManualScheduler clock;
        auto recognizer = std::make_shared<ScriptedSpeechRecognizer>();
        recognizer->nextEnding = ending;
        SystemSpeechEngine engine(recognizer, QStringLiteral("en-US"), clock);
        syncWait(engine.beginUtterance({}));
        for (const QString &segment : segments)
            recognizer->sessions.last()->say(segment);
        QCoro::Task<QString> finishing = engine.finishUtterance();
        clock.advance(SystemSpeechEngine::finishLimitMs);
        QCOMPARE(outcome(std::move(finishing)), expected);
        // Only an utterance the recogniser gave up on is cancelled.
        QCOMPARE(recognizer->sessions.last()->cancelled, !ending.has_value());
    }

    // Audio and hints reach the utterance that is open, and a dropped utterance leaves nothing behind.
    void utterances() {
        auto recognizer = std::make_shared<ScriptedSpeechRecognizer>();
        SystemSpeechEngine engine(recognizer, QStringLiteral("en-GB"));
        QCOMPARE(outcome(engine.finishUtterance()), QStringLiteral("text: "));
        engine.append(AudioChunk{{0.5f}, 16000});

        QStringList hints;
        for (int i = 0; i < SystemSpeechEngine::maxContextualStrings + 5; ++i)
            hints << QStringLiteral("term%1").arg(i);
        syncWait(engine.beginUtterance(hints));
        QCOMPARE(recognizer->askedLocales, QStringList{QStringLiteral("en-GB")});
        auto first = recognizer->sessions.last();
        QCOMPARE(first->locale, QStringLiteral("en-GB"));
        QCOMPARE(first->contextualStrings, hints.mid(0, SystemSpeechEngine::maxContextualStrings));
        engine.append(AudioChunk{{0.1f, 0.2f}, 16000});
        QCOMPARE(first->samples, (std::vector<float>{0.1f, 0.2f}));

        // A new utterance replaces an unfinished one.
        syncWait(engine.beginUtterance({}));
        auto second = recognizer->sessions.last();
        QVERIFY(first->cancelled);
        first->onSegment(QStringLiteral("stale"));
        second->say(QStringLiteral("fresh"));
        QCOMPARE(outcome(engine.finishUtterance()), QStringLiteral("text: fresh"));

        syncWait(engine.beginUtterance({}));
        auto third = recognizer->sessions.last();
        syncWait(engine.cancelUtterance());
        QVERIFY(third->cancelled);
        QCOMPARE(outcome(engine.finishUtterance()), QStringLiteral("text: "));
        QVERIFY(!third->finished);
    }
};

QTEST_GUILESS_MAIN(TestSystemSpeechEngine)
#include "tst_system_speech_engine.moc"
