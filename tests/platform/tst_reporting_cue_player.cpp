#include "LogRecorder.h"
#include "platform/ReportingCuePlayer.h"

#include <QList>
#include <QTest>

namespace {

// Plays or fails as scripted, one outcome per cue; records what it was asked for.
class ScriptedCueOutput final : public CueOutput {
public:
    QList<bool> outcomes;
    QList<Cue> asked;
    bool play(Cue cue) override {
        asked.append(cue);
        return outcomes.isEmpty() || outcomes.takeFirst();
    }
};

} // namespace

class TestReportingCuePlayer : public QObject {
    Q_OBJECT

private slots:
    // One warning per run of failures, whatever its length.
    void warnsOncePerSilence_data() {
        QTest::addColumn<QList<bool>>("outcomes");
        QTest::addColumn<int>("warnings");
        QTest::newRow("always plays") << QList<bool>{true, true, true} << 0;
        QTest::newRow("never plays") << QList<bool>{false, false, false, false} << 1;
        QTest::newRow("recovers") << QList<bool>{false, false, true, true} << 1;
        QTest::newRow("falls silent again") << QList<bool>{false, true, false, false} << 2;
        QTest::newRow("silent after playing") << QList<bool>{true, false} << 1;
    }
    void warnsOncePerSilence() {
        QFETCH(QList<bool>, outcomes);
        LogRecorder log;
        auto output = std::make_shared<ScriptedCueOutput>();
        output->outcomes = outcomes;
        ReportingCuePlayer player(output);
        QList<Cue> cues;
        for (qsizetype i = 0; i < outcomes.size(); ++i) {
            cues.append(i % 2 ? Cue::stop : Cue::start);
            player.play(cues.last());
        }
        QCOMPARE(output->asked, cues);
        QTEST(int(log.lines.count("WARN Sounds are silent: the system could not play them.")), "warnings");
        QCOMPARE(log.lines.size(), log.lines.count("WARN Sounds are silent: the system could not play them."));
    }
};

QTEST_GUILESS_MAIN(TestReportingCuePlayer)
#include "tst_reporting_cue_player.moc"
