#include "core/Async.h"
#include "core/LatencyStats.h"
#include "core/MainThread.h"
#include "core/Scheduler.h"
#include "core/SerialQueue.h"
#include "core/Timeout.h"
#include "core/Timings.h"

#include <QTest>
#include <atomic>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace {

QCoro::Task<int> valueAfter(Scheduler &scheduler, qint64 ms, int value) {
    co_await scheduler.sleep(ms);
    co_return value;
}

QCoro::Task<int> failAfter(Scheduler &scheduler, qint64 ms) {
    co_await scheduler.sleep(ms);
    throw std::runtime_error("engine failed");
}

// Drives a ManualScheduler from the event loop while a task waits on it.
template <typename T> T runWithTime(ManualScheduler &scheduler, QCoro::Task<T> task, qint64 advanceBy) {
    QTimer::singleShot(0, [&] { scheduler.advance(advanceBy); });
    return syncWait(std::move(task));
}

} // namespace

class AsyncTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // Exactly one outcome, whichever comes first: the operation's value or error, or the timeout.
    void timeoutDeliversOneOutcome_data() {
        QTest::addColumn<qint64>("operationMs");
        QTest::addColumn<bool>("fails");
        QTest::addColumn<bool>("timedOut");
        QTest::newRow("value") << qint64(40) << false << false;
        QTest::newRow("error") << qint64(10) << true << false;
        // Scheduled in order: the operation's sleep is scheduled before the timer, so at the same
        // instant the operation resolves first and the timer's resolution is dropped.
        QTest::newRow("same instant") << qint64(100) << false << false;
        QTest::newRow("one ms late") << qint64(101) << false << true;
        QTest::newRow("one ms early") << qint64(99) << false << false;
    }
    void timeoutDeliversOneOutcome() {
        QFETCH(qint64, operationMs);
        QFETCH(bool, fails);
        QFETCH(bool, timedOut);
        ManualScheduler clock;
        int resumed = 0;
        auto run = [&]() -> QCoro::Task<TimeoutOutcome<int>> {
            auto outcome = co_await withTimeout<int>(
                100, [&] { return fails ? failAfter(clock, operationMs) : valueAfter(clock, operationMs, 7); }, clock);
            ++resumed;
            co_return outcome;
        };
        auto outcome = runWithTime(clock, run(), 1000);
        QCOMPARE(outcome.timedOut(), timedOut);
        if (fails)
            QVERIFY_THROWS_EXCEPTION(std::runtime_error, outcome.get());
        else if (!timedOut)
            QCOMPARE(outcome.get(), 7);
        QTest::qWait(20); // a second resumption would arrive through the event loop
        QCOMPARE(resumed, 1);
        QCOMPARE(clock.pendingCount(), 0u);
    }

    void realTimerTimesOut() {
        auto never = []() -> QCoro::Task<void> { co_await Scheduler::system().sleep(10000); };
        QElapsedTimer elapsed;
        elapsed.start();
        auto outcome = syncWait(withTimeout<void>(30, never));
        QVERIFY(outcome.timedOut());
        QVERIFY(elapsed.elapsed() < 5000);
    }

    void syncWaitRethrows() {
        auto failing = []() -> QCoro::Task<int> {
            co_await Scheduler::system().sleep(1);
            throw std::logic_error("boom");
        };
        QVERIFY_THROWS_EXCEPTION(std::logic_error, syncWait(failing()));
    }

    void latencyPercentilesOverTheLatest200() {
        LatencyStats stats;
        QCOMPARE(stats.percentile(50), std::nullopt);
        stats.record(42);
        QCOMPARE(stats.percentile(50), 42);
        LatencyStats four;
        for (qint64 v : {4, 2, 3, 1})
            four.record(v);
        QCOMPARE(four.percentile(50), 2);
        QCOMPARE(four.percentile(51), 3);
        QCOMPARE(four.percentile(0), 1);
        for (qint64 v = 5; v <= 201; ++v)
            four.record(v);
        const QList<qint64> samples = four.samples();
        QCOMPARE(samples.size(), 200);
        QCOMPARE(samples.first(), 2); // the 201st sample pushed out the first
    }

    void timingsSummary() {
        const Timings timings{5000, 120, 30, 800, 40};
        QCOMPARE(timings.summary(), QStringLiteral("asr 120ms · fmt 800ms · inject 40ms · total 990ms"));
        const Timings huge{0, std::numeric_limits<qint64>::max(), 1, 0, 0};
        QVERIFY(huge.summary().endsWith(QStringLiteral("total 9223372036854775807ms")));
    }

    void serialQueueRunsInOrderOffTheCaller() {
        SerialQueue queue(QStringLiteral("test.queue"));
        QList<int> order;
        std::thread::id worker;
        for (int i = 0; i < 100; ++i)
            queue.async([&, i] {
                order.append(i);
                worker = std::this_thread::get_id();
            });
        queue.drain();
        QCOMPARE(order.size(), 100);
        QVERIFY(std::is_sorted(order.begin(), order.end()));
        QVERIFY(worker != std::this_thread::get_id());
    }

    void queuedTimersFollowTheManualClockOnTheQueueThread() {
        ManualScheduler clock;
        SerialQueue queue(QStringLiteral("test.timers"));
        std::mutex mutex;
        QStringList fired;
        std::thread::id ranOn;
        const auto note = [&](const QString &what) {
            return [&, what] {
                std::lock_guard lock(mutex);
                fired << what + QLatin1Char('@') + QString::number(clock.nowMs());
                ranOn = std::this_thread::get_id();
            };
        };
        const Scheduler::Handle repeating = clock.repeatOn(queue, 900, 250, note(QStringLiteral("tick")));
        clock.scheduleOn(queue, 1000, note(QStringLiteral("once")));
        const Scheduler::Handle cancelled = clock.scheduleOn(queue, 1000, note(QStringLiteral("cancelled")));
        Scheduler::cancel(cancelled);
        clock.advance(899);
        QVERIFY(fired.isEmpty());
        clock.advance(500);
        QCOMPARE(fired, QStringList({"tick@900", "once@1000", "tick@1150"}));
        QVERIFY(ranOn != std::this_thread::get_id());
        Scheduler::cancel(repeating);
        clock.advance(1000);
        QCOMPARE(fired.size(), 3);
        QCOMPARE(clock.pendingCount(), std::size_t(0));
    }

    void queuedWorkOutlivingItsQueueIsDropped() {
        ManualScheduler clock;
        int runs = 0;
        {
            SerialQueue queue(QStringLiteral("test.gone"));
            clock.scheduleOn(queue, 10, [&] { ++runs; });
            clock.repeatOn(queue, 10, 10, [&] { ++runs; });
        }
        clock.advance(100);
        QCOMPARE(runs, 0);

        // The real clock: a queue destroyed from one of its own jobs neither deadlocks nor runs
        // the delayed work it still held.
        auto queue = std::make_shared<SerialQueue>(QStringLiteral("test.self"));
        std::atomic<int> late{0};
        Scheduler::system().scheduleOn(*queue, 30, [&] { ++late; });
        std::promise<void> released;
        queue->async([&queue, &released] {
            auto last = std::move(queue);
            last.reset();
            released.set_value();
        });
        released.get_future().wait();
        QTest::qWait(60);
        QCOMPARE(late.load(), 0);
    }

    void realClockRepeatsOnTheQueue() {
        SerialQueue queue(QStringLiteral("test.real"));
        std::atomic<int> ticks{0};
        const Scheduler::Handle handle = Scheduler::system().repeatOn(queue, 5, 5, [&] { ++ticks; });
        QTRY_VERIFY(ticks.load() >= 3);
        Scheduler::cancel(handle);
        const int settled = (queue.drain(), ticks.load());
        QTest::qWait(30);
        QVERIFY(ticks.load() <= settled + 1);
    }

    void mainThreadPostsSkipADeadTarget() {
        auto target = std::make_shared<int>(0);
        QList<int> order;
        std::thread([&] {
            for (int i = 0; i < 3; ++i)
                postToMainThread(target, [&, i] { order << i; });
        }).join();
        auto doomed = std::make_shared<int>(0);
        postToMainThread(doomed, [&] { order << 99; });
        doomed.reset();
        QTRY_COMPARE(order, QList<int>({0, 1, 2}));
        QTest::qWait(10);
        QCOMPARE(order, QList<int>({0, 1, 2}));
    }

    void runOnSkipsADestroyedContext() {
        auto *context = new QObject;
        int calls = 0;
        std::thread([&, context] { runOn(context, [&] { ++calls; }); }).join();
        runOn(context, [&] { ++calls; });
        delete context;
        QTest::qWait(10);
        QCOMPARE(calls, 0);
        QObject alive;
        std::thread([&] { runOn(&alive, [&] { ++calls; }); }).join();
        QTRY_COMPARE(calls, 1);
    }
};

QTEST_GUILESS_MAIN(AsyncTest)
#include "tst_async.moc"
