#include "FormatterOperations.h"
#include "LogRecorder.h"
#include "ScriptedOnDeviceModel.h"
#include "core/Async.h"
#include "core/QuorvaneError.h"
#include "formatting/FormatterPrompt.h"
#include "formatting/FoundationModelFormatter.h"

#include <QTest>
#include <optional>

using Unavailability = OnDeviceLanguageModel::Unavailability;
using Reply = ScriptedOnDeviceModel::Reply;

Q_DECLARE_METATYPE(Unavailability)

namespace {

using Operation = FormatterOperation;
const QList<Operation> &kOperations = FormatterOperations::all();

FormattingContext mailContext() {
    FormattingContext context;
    context.appName = QStringLiteral("Mail");
    context.styleInstruction = QStringLiteral("Write complete sentences.");
    return context;
}

QCoro::Task<QString> perform(FoundationModelFormatter &formatter, Operation operation, const QString &input) {
    return FormatterOperations::perform(formatter, operation, input, mailContext());
}

QString promptFor(Operation operation, const QString &input) {
    return FormatterOperations::expectedPrompt(operation, input, mailContext());
}

// The sessions made for one kind of request, oldest first.
QList<ScriptedOnDeviceModel::SessionRecord> sessionsFor(const ScriptedOnDeviceModel &model, Operation operation) {
    QList<ScriptedOnDeviceModel::SessionRecord> found;
    for (const auto &session : model.sessions()) {
        if (session.instructions == FormatterOperations::expectedInstructions(operation))
            found.append(session);
    }
    return found;
}

} // namespace

class TestFoundationModelFormatter : public QObject {
    Q_OBJECT

    std::optional<LogRecorder> m_log;

private slots:
    void initTestCase() { m_log.emplace(); }
    void cleanupTestCase() { m_log.reset(); }
    void init() { m_log->clear(); }

    void unavailableModelRefusesEveryRequest_data() {
        QTest::addColumn<Unavailability>("unavailability");
        QTest::addColumn<QString>("reason");
        QTest::newRow("device not eligible")
            << Unavailability::deviceNotEligible << "this Mac is not eligible for Apple Intelligence";
        QTest::newRow("Apple Intelligence off")
            << Unavailability::appleIntelligenceNotEnabled << "Apple Intelligence is turned off in System Settings";
        QTest::newRow("still downloading") << Unavailability::modelNotReady << "the model is still downloading";
        QTest::newRow("any other reason") << Unavailability::other << "unavailable";
    }
    void unavailableModelRefusesEveryRequest() {
        QFETCH(Unavailability, unavailability);
        QFETCH(QString, reason);
        auto model = std::make_shared<ScriptedOnDeviceModel>();
        model->setUnavailability(unavailability);
        FoundationModelFormatter formatter(model);
        syncWait(formatter.prepare());

        QVERIFY(!formatter.isAvailable());
        QCOMPARE(formatter.unavailableReason(), std::optional(reason));
        QCOMPARE(m_log->lines(), QStringList{QStringLiteral("WARN Apple on-device model unavailable: ") + reason +
                                             QStringLiteral(". Falling back to unformatted transcripts.")});
        for (const Operation operation : kOperations) {
            try {
                syncWait(perform(formatter, operation, QStringLiteral("hello there")));
                QFAIL("an unavailable model served a request");
            } catch (const QuorvaneError &error) {
                QCOMPARE(error.errorCase(), QuorvaneError::Case::formatterUnavailable);
                QCOMPARE(error.message(), QStringLiteral("The formatting model is unavailable: ") + reason);
            }
        }
        QVERIFY(model->sessions().isEmpty());
    }

    void consecutiveRequestsUseWarmedSessions_data() {
        QTest::addColumn<Operation>("operation");
        QTest::newRow("format") << Operation::format;
        QTest::newRow("rewrite") << Operation::rewrite;
        QTest::newRow("developer prompt") << Operation::compileDeveloperPrompt;
    }
    void consecutiveRequestsUseWarmedSessions() {
        QFETCH(Operation, operation);
        auto model = std::make_shared<ScriptedOnDeviceModel>();
        FoundationModelFormatter formatter(model);
        syncWait(formatter.prepare());
        QCOMPARE(m_log->lines(), QStringList{QStringLiteral("INFO Formatter ready \u00B7 Apple on-device model")});
        QCOMPARE(formatter.unavailableReason(), std::nullopt);
        model->enqueue(Reply::withText(QStringLiteral("```text\nFirst.\n```")));
        model->enqueue(Reply::withText(QStringLiteral("\"Second.\"")));

        QCOMPARE(syncWait(perform(formatter, operation, QStringLiteral("first"))), QStringLiteral("First."));
        QCOMPARE(syncWait(perform(formatter, operation, QStringLiteral("second"))), QStringLiteral("Second."));

        // The one warmed by prepare, the one warmed after the first request, and the next one.
        const auto sessions = sessionsFor(*model, operation);
        QCOMPARE(sessions.size(), 3);
        for (const auto &session : sessions) {
            QVERIFY(session.prewarmed);
            QCOMPARE(session.laterRequests, 0);
        }
        QCOMPARE(sessions[0].request->prompt, promptFor(operation, QStringLiteral("first")));
        QCOMPARE(sessions[1].request->prompt, promptFor(operation, QStringLiteral("second")));
        QVERIFY(!sessions[2].request);
        // The other kinds' sessions, warmed by prepare, are left for their own requests.
        QCOMPARE(model->sessions().size(), 5);
        for (const Operation other : kOperations) {
            if (other != operation)
                QVERIFY(sessionsFor(*model, other).first().prewarmed);
        }
    }

    void requestWithoutWarmSessionUsesAFreshOne() {
        auto model = std::make_shared<ScriptedOnDeviceModel>();
        FoundationModelFormatter formatter(model);
        QCOMPARE(syncWait(formatter.format(QStringLiteral("hello"), mailContext())), QStringLiteral("Hello."));
        const auto sessions = model->sessions();
        QCOMPARE(sessions.size(), 2);
        QCOMPARE(sessions[0].instructions, FormatterPrompt::systemInstructions());
        QVERIFY(sessions[0].request);
        QVERIFY(sessions[1].prewarmed);
        QCOMPARE(sessions[1].instructions, FormatterPrompt::systemInstructions());
    }

    void failedRequestStillWarmsTheNext_data() {
        QTest::addColumn<Operation>("operation");
        QTest::addColumn<bool>("declined");
        QTest::addColumn<QString>("logText");
        QTest::addColumn<QString>("reason");
        QTest::newRow("format declined") << Operation::format << true << "On-device model declined this utterance: "
                                         << "model declined the request";
        QTest::newRow("rewrite declined")
            << Operation::rewrite << true << "On-device model declined the selected-text rewrite: "
            << "model declined the rewrite";
        QTest::newRow("developer prompt declined")
            << Operation::compileDeveloperPrompt << true << "On-device model declined the developer prompt: "
            << "model declined the developer prompt";
        QTest::newRow("format, other failure") << Operation::format << false << QString() << QString();
        QTest::newRow("developer prompt, other failure")
            << Operation::compileDeveloperPrompt << false << QString() << QString();
    }
    void failedRequestStillWarmsTheNext() {
        QFETCH(Operation, operation);
        QFETCH(bool, declined);
        QFETCH(QString, logText);
        QFETCH(QString, reason);
        const QString description = QStringLiteral("Detected content likely to be unsafe.");
        auto model = std::make_shared<ScriptedOnDeviceModel>();
        FoundationModelFormatter formatter(model);
        syncWait(formatter.prepare());
        m_log->clear();
        model->enqueue(declined ? Reply::declined(description) : Reply::otherFailure());

        bool passedOn = false;
        try {
            syncWait(perform(formatter, operation, QStringLiteral("something awkward")));
            QFAIL("a failed request produced text");
        } catch (const QuorvaneError &error) {
            QVERIFY(declined);
            QCOMPARE(error.errorCase(), QuorvaneError::Case::formatterUnavailable);
            QCOMPARE(error.detail(), reason);
        } catch (const ScriptedOnDeviceModel::OtherFailure &) {
            passedOn = true;
        }
        QCOMPARE(passedOn, !declined);
        QCOMPARE(m_log->lines(),
                 declined ? QStringList{QStringLiteral("WARN ") + logText + description} : QStringList{});

        const auto sessions = sessionsFor(*model, operation);
        QCOMPARE(sessions.size(), 2);
        QVERIFY(sessions[1].prewarmed);
        QVERIFY(!sessions[1].request);
        // The refusal leaves the formatter as it was: the next request is served by the new session.
        QCOMPARE(syncWait(perform(formatter, operation, QStringLiteral("fine now"))), QStringLiteral("Hello."));
        QCOMPARE(sessionsFor(*model, operation)[1].request->prompt, promptFor(operation, QStringLiteral("fine now")));
        QVERIFY(formatter.isAvailable());
    }

    // Budgets count user-perceived characters: each "é" here is two UTF-16 units.
    void responseBudgets_data() {
        QTest::addColumn<Operation>("operation");
        QTest::addColumn<int>("characters");
        QTest::addColumn<int>("budget");
        QTest::newRow("format, 1,000 characters") << Operation::format << 1000 << 628;
        QTest::newRow("format, 11 characters") << Operation::format << 11 << 133;
        QTest::newRow("rewrite, 100 characters") << Operation::rewrite << 100 << 210;
        QTest::newRow("Prompt Mode, 100 characters") << Operation::compileDeveloperPrompt << 100 << 420;
    }
    void responseBudgets() {
        QFETCH(Operation, operation);
        QFETCH(int, characters);
        QFETCH(int, budget);
        const QString input = QStringLiteral("e\u0301").repeated(characters);
        auto model = std::make_shared<ScriptedOnDeviceModel>();
        FoundationModelFormatter formatter(model);
        syncWait(formatter.prepare());
        syncWait(perform(formatter, operation, input));

        const auto request = sessionsFor(*model, operation).first().request;
        QVERIFY(request);
        QCOMPARE(request->maximumResponseTokens, budget);
        QCOMPARE(request->prompt, promptFor(operation, input));
    }
};

QTEST_GUILESS_MAIN(TestFoundationModelFormatter)
#include "tst_foundation_model_formatter.moc"
