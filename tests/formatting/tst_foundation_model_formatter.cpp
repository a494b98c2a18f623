#include "FormatterOperations.h"
#include "LogRecorder.h"
#include "ScriptedOnDeviceModel.h"
#include "core/Async.h"
#include "core/QuorvaneError.h"
#include "formatting/FoundationModelFormatter.h"

#include <QTest>

using Unavailability = OnDeviceLanguageModel::Unavailability;
using Reply = ScriptedOnDeviceModel::Reply;
using Operation = FormatterOperation;
Q_DECLARE_METATYPE(Unavailability)

namespace {

const FormattingContext kContext{"Mail", "Write complete sentences.", {}, {}, {}};
const QString kUnavailable = QStringLiteral("QuorvaneError: The formatting model is unavailable: ");

// The text an operation produced, or what it failed with.
QString outcomeOf(FoundationModelFormatter &formatter, Operation operation, const QString &input) {
    try {
        return syncWait(FormatterOperations::perform(formatter, operation, input, kContext));
    } catch (const QuorvaneError &error) {
        return "QuorvaneError: " + error.message();
    } catch (const ScriptedOnDeviceModel::OtherFailure &) {
        return "OtherFailure";
    }
}

QString promptFor(Operation operation, const QString &input) {
    return FormatterOperations::expected(operation, input, kContext).second;
}

// The sessions made for one kind of request, oldest first.
QList<std::shared_ptr<ScriptedOnDeviceModel::ScriptedSession>> sessionsFor(const ScriptedOnDeviceModel &model,
                                                                           Operation operation) {
    QList<std::shared_ptr<ScriptedOnDeviceModel::ScriptedSession>> found;
    for (const auto &session : model.sessions) {
        if (session->instructions == FormatterOperations::expected(operation, {}, {}).first)
            found.append(session);
    }
    return found;
}

} // namespace

class TestFoundationModelFormatter : public QObject {
    Q_OBJECT

    LogRecorder m_log;
    std::shared_ptr<ScriptedOnDeviceModel> m_model;

    // A formatter of a fresh model, prepared unless told otherwise.
    FoundationModelFormatter makeFormatter(std::optional<Unavailability> unavailability = {}, bool prepared = true) {
        m_model = std::make_shared<ScriptedOnDeviceModel>();
        m_model->setUnavailability(unavailability);
        FoundationModelFormatter formatter(m_model);
        if (prepared)
            syncWait(formatter.prepare());
        return formatter;
    }

private slots:
    void init() { m_log.lines.clear(); }

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
        FoundationModelFormatter formatter = makeFormatter(unavailability);
        QVERIFY(!formatter.isAvailable());
        QCOMPARE(formatter.unavailableReason(), std::optional(reason));
        QCOMPARE(m_log.lines, QStringList{"WARN Apple on-device model unavailable: " + reason +
                                          ". Falling back to unformatted transcripts."});
        for (const Operation operation : FormatterOperations::all)
            QCOMPARE(outcomeOf(formatter, operation, "hello there"), kUnavailable + reason);
        QVERIFY(m_model->sessions.isEmpty());
    }

    // Budgets count user-perceived characters: each "é" here is two UTF-16 units.
    void consecutiveRequestsUseWarmedSessions_data() {
        QTest::addColumn<Operation>("operation");
        QTest::addColumn<int>("characters");
        QTest::addColumn<int>("budget");
        QTest::newRow("format") << Operation::format << 1000 << 628;
        QTest::newRow("rewrite") << Operation::rewrite << 100 << 210;
        QTest::newRow("developer prompt") << Operation::compileDeveloperPrompt << 100 << 420;
    }
    void consecutiveRequestsUseWarmedSessions() {
        QFETCH(Operation, operation);
        QFETCH(int, characters);
        QFETCH(int, budget);
        const QString first = QString("e\u0301").repeated(characters);
        FoundationModelFormatter formatter = makeFormatter();
        QCOMPARE(m_log.lines, QStringList{"INFO Formatter ready \u00B7 Apple on-device model"});
        m_model->enqueue(Reply::text, "```text\nFirst.\n```");
        m_model->enqueue(Reply::text, "\"Second.\"");

        QCOMPARE(outcomeOf(formatter, operation, first), "First.");
        QCOMPARE(outcomeOf(formatter, operation, "second"), "Second.");
        // The one warmed by prepare, the one warmed after the first request, and the next one; each
        // serves one request. The other kinds' sessions, warmed by prepare, wait for their own.
        const auto sessions = sessionsFor(*m_model, operation);
        QCOMPARE(sessions.size(), 3);
        QCOMPARE(sessions[0]->prompts, QStringList{promptFor(operation, first)});
        QCOMPARE(sessions[0]->budgets, QList<int>{budget});
        QCOMPARE(sessions[1]->prompts, QStringList{promptFor(operation, "second")});
        QCOMPARE(sessions[2]->prompts, QStringList{});
        QCOMPARE(m_model->sessions.size(), 5);
        for (const auto &session : m_model->sessions)
            QVERIFY(session->prewarmed);
    }

    void requestWithoutWarmSessionUsesAFreshOne() {
        FoundationModelFormatter formatter = makeFormatter({}, false);
        QCOMPARE(outcomeOf(formatter, Operation::format, "hello"), "Hello.");
        const auto sessions = sessionsFor(*m_model, Operation::format);
        QCOMPARE(m_model->sessions.size(), 2);
        QCOMPARE(sessions.size(), 2);
        QCOMPARE(sessions[0]->prompts, QStringList{promptFor(Operation::format, "hello")});
        QVERIFY(sessions[1]->prewarmed);
    }

    // A refusal is logged with the platform's description and reported with a short reason.
    void failedRequestStillWarmsTheNext_data() {
        QTest::addColumn<Operation>("operation");
        QTest::addColumn<Reply>("failure");
        QTest::addColumn<QString>("reason");
        QTest::addColumn<QString>("logged");
        QTest::newRow("format declined") << Operation::format << Reply::declined << "model declined the request"
                                         << "this utterance";
        QTest::newRow("rewrite declined") << Operation::rewrite << Reply::declined << "model declined the rewrite"
                                          << "the selected-text rewrite";
        QTest::newRow("developer prompt declined")
            << Operation::compileDeveloperPrompt << Reply::declined << "model declined the developer prompt"
            << "the developer prompt";
        QTest::newRow("other failure is passed on") << Operation::format << Reply::otherFailure << ""
                                                    << "";
    }
    void failedRequestStillWarmsTheNext() {
        QFETCH(Operation, operation);
        QFETCH(Reply, failure);
        QFETCH(QString, reason);
        QFETCH(QString, logged);
        const QString description = "Detected content likely to be unsafe.";
        FoundationModelFormatter formatter = makeFormatter();
        m_log.lines.clear();
        m_model->enqueue(failure, description);

        const bool declined = failure == Reply::declined;
        QCOMPARE(outcomeOf(formatter, operation, "something awkward"),
                 declined ? kUnavailable + reason : "OtherFailure");
        QCOMPARE(m_log.lines, declined ? QStringList{"WARN On-device model declined " + logged + ": " + description}
                                       : QStringList{});
        // The failure leaves the formatter as it was: the next request is served by a new warmed session.
        const auto sessions = sessionsFor(*m_model, operation);
        QCOMPARE(sessions.size(), 2);
        QVERIFY(sessions[1]->prewarmed);
        QCOMPARE(outcomeOf(formatter, operation, "fine now"), "Hello.");
        QCOMPARE(sessions[1]->prompts, QStringList{promptFor(operation, "fine now")});
        QVERIFY(formatter.isAvailable());
    }
};

QTEST_GUILESS_MAIN(TestFoundationModelFormatter)
#include "tst_foundation_model_formatter.moc"
