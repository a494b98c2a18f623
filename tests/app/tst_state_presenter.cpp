#include "app/StatePresenter.h"

#include <QTest>

class TestStatePresenter : public QObject {
    Q_OBJECT

private slots:
    // A short dictation: recording at once, thinking never, idle once, after the paste's moment.
    void recordingAtOnceWhatFollowsSettles() {
        ManualScheduler time;
        QList<PipelineState> drawn;
        StatePresenter presenter([&](const PipelineState &state) { drawn << state; }, time);

        presenter.update(PipelineState::recording());
        QCOMPARE(drawn, QList{PipelineState::recording()});
        presenter.update(PipelineState::thinking());
        time.advance(5);
        presenter.update(PipelineState::idle());
        time.advance(StatePresenter::settleMs - 6);
        QCOMPARE(drawn.size(), 1);
        time.advance(1);
        QCOMPARE(drawn, (QList{PipelineState::recording(), PipelineState::idle()}));
        time.advance(1000);
        QCOMPARE(drawn.size(), 2);
    }

    // A slow engine shows thinking; a new recording is never overdrawn by the older state due later.
    void slowRunsAndNewRecordings() {
        ManualScheduler time;
        QList<PipelineState> drawn;
        StatePresenter presenter([&](const PipelineState &state) { drawn << state; }, time);

        presenter.update(PipelineState::thinking());
        time.advance(StatePresenter::settleMs);
        QCOMPARE(drawn, QList{PipelineState::thinking()});

        presenter.update(PipelineState::error("one"));
        presenter.update(PipelineState::recording());
        time.advance(StatePresenter::settleMs);
        QCOMPARE(drawn, (QList{PipelineState::thinking(), PipelineState::recording()}));

        // Errors differ by their message, and each new one is drawn.
        presenter.update(PipelineState::error("one"));
        time.advance(StatePresenter::settleMs);
        presenter.update(PipelineState::error("two"));
        time.advance(StatePresenter::settleMs);
        QCOMPARE(drawn.mid(2), (QList{PipelineState::error("one"), PipelineState::error("two")}));
    }

    void nothingDrawnAfterItIsGone() {
        ManualScheduler time;
        int drawn = 0;
        {
            StatePresenter presenter([&](const PipelineState &) { ++drawn; }, time);
            presenter.update(PipelineState::idle());
        }
        time.advance(StatePresenter::settleMs);
        QCOMPARE(drawn, 0);
    }
};

QTEST_GUILESS_MAIN(TestStatePresenter)
#include "tst_state_presenter.moc"
