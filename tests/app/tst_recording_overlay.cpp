#include "app/RecordingOverlay.h"

#include <QApplication>
#include <QLineEdit>
#include <QTest>
#include <cmath>

class RecordingOverlayTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // Shown while recording and thinking; the meter is polled only while recording.
    void followsTheState_data() {
        QTest::addColumn<PipelineState>("state");
        QTest::addColumn<bool>("shown");
        QTest::addColumn<bool>("polling");
        QTest::newRow("recording") << PipelineState::recording() << true << true;
        QTest::newRow("thinking") << PipelineState::thinking() << true << false;
        QTest::newRow("idle") << PipelineState::idle() << false << false;
        QTest::newRow("error") << PipelineState::error(QStringLiteral("no microphone")) << false << false;
    }
    void followsTheState() {
        QFETCH(PipelineState, state);
        QFETCH(bool, shown);
        QFETCH(bool, polling);
        ManualScheduler clock;
        RecordingOverlay overlay(clock);
        int polls = 0;
        overlay.level = [&] {
            ++polls;
            return 0.5f;
        };
        overlay.showState(PipelineState::recording(), PipelineMode::dictation);
        overlay.showState(state, PipelineMode::dictation);
        QCOMPARE(overlay.isVisible(), shown);
        clock.advance(10 * RecordingOverlay::pollIntervalMs);
        QCOMPARE(polls, polling ? 10 : 0);
        QCOMPARE(overlay.meter().back() > 0, polling);
    }

    // The meter moves with the microphone, newest on the right.
    void meterFollowsTheLevel() {
        ManualScheduler clock;
        RecordingOverlay overlay(clock);
        float level = 0.02f;
        overlay.level = [&] { return level; };
        overlay.showState(PipelineState::recording(), PipelineMode::editSelection);
        clock.advance(RecordingOverlay::pollIntervalMs);
        level = 0.5f;
        clock.advance(RecordingOverlay::pollIntervalMs);
        const auto &meter = overlay.meter();
        QCOMPARE(meter.size(), std::size_t(RecordingOverlay::meterBars));
        QVERIFY(meter[meter.size() - 2] > 0);
        QVERIFY(meter.back() > meter[meter.size() - 2]);
    }

    void meterScale_data() {
        QTest::addColumn<float>("level");
        QTest::addColumn<float>("position");
        QTest::newRow("silence") << 0.0f << 0.0f;
        QTest::newRow("below the floor") << 0.001f << 0.0f;
        QTest::newRow("-30 dB") << 0.0316228f << 0.4f;
        QTest::newRow("full scale") << 1.0f << 1.0f;
        QTest::newRow("clipped") << 3.0f << 1.0f;
        QTest::newRow("not a number") << std::nanf("") << 0.0f;
    }
    void meterScale() {
        QFETCH(float, level);
        QFETCH(float, position);
        QVERIFY(std::abs(RecordingOverlay::meterPosition(level) - position) < 1e-3f);
    }

    // The text field the user dictates into keeps the focus while the overlay shows.
    void neverTakesTheFocus() {
        QLineEdit target;
        target.show();
        target.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&target));
        ManualScheduler clock;
        RecordingOverlay overlay(clock);
        overlay.showState(PipelineState::recording(), PipelineMode::dictation);
        QVERIFY(QTest::qWaitForWindowExposed(&overlay));
        QCoreApplication::processEvents();
        QCOMPARE(QApplication::activeWindow(), &target);
        QCOMPARE(QApplication::focusWidget(), &target);
    }
};

QTEST_MAIN(RecordingOverlayTest)
#include "tst_recording_overlay.moc"
