// Dictates into a real target window through the real app on the headless desktop and prints what a
// user would feel: key-up to text in the window (the whisper fake answers at once, on a thread of
// its own, and the time it spends is taken out), key-down to the first captured audio, how long
// the clipboard stays ours after the window read it, and the idle app's memory and CPU.
//
//   scripts/headless-desktop build/bench/bench_desktop_dictation [dictations=50] [idle seconds=60]
// With 1000 dictations it is the soak: RSS and open files are printed every 100.

#include "FakeWhisperServer.h"
#include "linux/DesktopDriver.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>
#include <X11/extensions/Xfixes.h>
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <unistd.h>
#include <vector>

namespace {

constexpr int rightAlt = 108;
const QString spoken = QStringLiteral("Hello there.");

qint64 nowUs() {
    return QDateTime::currentMSecsSinceEpoch() * 1000;
}

qint64 monotonicNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return qint64(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// Records how long each answer took to compute.
class TimedWhisper final : public FakeWhisperServer {
public:
    std::atomic<qint64> lastServerNs{0};

protected:
    Response respond(const Request &request) override {
        const qint64 started = monotonicNs();
        Response response = FakeWhisperServer::respond(request);
        lastServerNs = monotonicNs() - started;
        return response;
    }
};

// The wall-clock time of a log line ("HH:mm:ss.zzz …") today, in microseconds since the epoch.
qint64 logTimeUs(const QString &line) {
    const QTime time = QTime::fromString(line.left(12), "HH:mm:ss.zzz");
    return QDateTime(QDate::currentDate(), time).toMSecsSinceEpoch() * 1000;
}

struct Figures {
    std::vector<double> values;
    void add(double value) { values.push_back(value); }
    double at(double quantile) {
        if (values.empty())
            return -1;
        std::sort(values.begin(), values.end());
        return values[std::min(values.size() - 1, std::size_t(quantile * double(values.size())))];
    }
    void print(const char *name) {
        std::printf("%-44s p50 %7.1f ms   p95 %7.1f ms   max %7.1f ms   (n=%zu)\n", name, at(0.5), at(0.95), at(1.0),
                    values.size());
    }
};

// User and system time of a process, in clock ticks.
qint64 cpuTicks(qint64 pid) {
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return -1;
    const QList<QByteArray> fields = stat.readAll().split(')').last().trimmed().split(' ');
    // utime and stime are fields 14 and 15; after the command name the state is field 3.
    return fields.value(11).toLongLong() + fields.value(12).toLongLong();
}

qint64 residentKiB(qint64 pid) {
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toLongLong();
    return -1;
}

qint64 openFiles(qint64 pid) {
    return QDir(QStringLiteral("/proc/%1/fd").arg(pid)).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).size();
}

} // namespace

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    if (qEnvironmentVariableIsEmpty("QUORVANE_DESKTOP")) {
        std::fprintf(stderr, "run me under scripts/headless-desktop: I press keys and play sound\n");
        return 2;
    }
    const int dictations = argc > 1 ? std::atoi(argv[1]) : 50;
    const int idleSeconds = argc > 2 ? std::atoi(argv[2]) : 60;

    // The fake answers from its own thread, so polling the window here never delays it.
    QThread serverThread;
    auto *whisper = new TimedWhisper;
    whisper->setDefaultInference(FakeWhisperServer::transcript(" " + spoken + "\n"));
    whisper->moveToThread(&serverThread);
    QObject::connect(&serverThread, &QThread::finished, whisper, &QObject::deleteLater);
    serverThread.start();

    QTemporaryDir folder;
    const QString clip = folder.filePath("clip.wav");
    TargetWindow target;
    if (!speak("hello there", clip) || !target.ready || !target.focus("line")) {
        std::fprintf(stderr, "could not set up the clip or the target window\n");
        return 1;
    }
    DictationApp quorvane(whisper->url());
    if (!quorvane.awaitReady()) {
        std::fprintf(stderr, "the app did not get ready\n");
        return 1;
    }

    // Keys go in through XTest from here, timed at the moment they are flushed to the server; the
    // clipboard's owner changes are watched on the same connection.
    Display *display = XOpenDisplay(nullptr);
    int fixesEvent = 0, fixesError = 0;
    if (!display || !XFixesQueryExtension(display, &fixesEvent, &fixesError)) {
        std::fprintf(stderr, "no X display with XFixes\n");
        return 1;
    }
    const Atom clipboard = XInternAtom(display, "CLIPBOARD", False);
    XFixesSelectSelectionInput(display, DefaultRootWindow(display), clipboard, XFixesSetSelectionOwnerNotifyMask);
    XSync(display, False);
    const auto key = [display](bool down) {
        XTestFakeKeyEvent(display, rightAlt, down, CurrentTime);
        XFlush(display);
        return monotonicNs();
    };
    const auto drainOwnerChanges = [display, fixesEvent] {
        std::vector<qint64> changes;
        while (XPending(display) > 0) {
            XEvent event;
            XNextEvent(display, &event);
            if (event.type == fixesEvent + XFixesSelectionNotify)
                changes.push_back(monotonicNs());
        }
        return changes;
    };

    Figures keyUpToText, keyDownToCapture, restoreAfterRead;
    int failed = 0;
    for (int run = 0; run < dictations; ++run) {
        target.command("set line ");
        target.command("copy kept");
        drainOwnerChanges();
        const qsizetype from = quorvane.log().size();

        const qint64 downWallUs = nowUs();
        key(true);
        const auto started = quorvane.awaitLine("Recording started.", from);
        QProcess player;
        play(player, clip);
        player.waitForFinished(10000);
        QTest::qWait(200);

        const qint64 up = key(false);
        qint64 seen = 0;
        std::vector<qint64> ownerChanges;
        // The window times its own change; asked for its text while it pastes, it would paste later.
        (void)QTest::qWaitFor(
            [&] {
                for (const qint64 change : drainOwnerChanges())
                    ownerChanges.push_back(change);
                return false;
            },
            50);
        const bool pasted = QTest::qWaitFor(
            [&] {
                // Changes are stamped when read, so the claim must be read before the text is seen.
                for (const qint64 change : drainOwnerChanges())
                    ownerChanges.push_back(change);
                const QJsonObject fields = QJsonDocument::fromJson(target.command("text")).object();
                if (!fields.value("line").toString().contains(spoken))
                    return false;
                // When the window took the text, not when this poll noticed it.
                seen = fields.value("lineChangedNs").toString().toLongLong();
                return true;
            },
            8000);
        if (!pasted || !started) {
            ++failed;
            continue;
        }
        keyUpToText.add(double(seen - up - whisper->lastServerNs) / 1e6);
        keyDownToCapture.add(double(logTimeUs(*started) - downWallUs) / 1e3);
        // Changes are stamped up to one poll (10 ms) late: our claim, made before the window read,
        // can carry a later stamp than the read, the restore 0.35 s after it cannot.
        const qint64 afterClaim = seen + 50'000'000;
        (void)QTest::qWaitFor(
            [&] {
                for (const qint64 change : drainOwnerChanges())
                    ownerChanges.push_back(change);
                return std::any_of(ownerChanges.begin(), ownerChanges.end(), [&](qint64 t) { return t > afterClaim; });
            },
            3000);
        const auto restore =
            std::find_if(ownerChanges.begin(), ownerChanges.end(), [&](qint64 t) { return t > afterClaim; });
        if (restore != ownerChanges.end())
            restoreAfterRead.add(double(*restore - seen) / 1e6);
        (void)QTest::qWaitFor([] { return false; }, 100);
        // A long run is a soak: what the app holds must stay flat.
        if ((run + 1) % 100 == 0 || run == 0) {
            std::printf("after %4d dictations (%d failed): RSS %.1f MB, open files %lld\n", run + 1, failed,
                        double(residentKiB(quorvane.processID())) / 1024.0, openFiles(quorvane.processID()));
            std::fflush(stdout);
        }
    }

    std::printf("%d dictations on the headless desktop (%d failed)\n", dictations, failed);
    keyUpToText.print("key-up -> text in the window, minus server");
    keyDownToCapture.print("key-down -> first captured chunk (log, 1 ms)");
    restoreAfterRead.print("clipboard restored after the window read it");

    const qint64 pid = quorvane.processID();
    const qint64 ticksBefore = cpuTicks(pid);
    const qint64 wallBefore = monotonicNs();
    QTest::qWait(idleSeconds * 1000);
    const double cpuSeconds = double(cpuTicks(pid) - ticksBefore) / double(sysconf(_SC_CLK_TCK));
    const double wallSeconds = double(monotonicNs() - wallBefore) / 1e9;
    std::printf("idle %.0f s, microphone warm: RSS %.1f MB, CPU %.2f %% of one core\n", wallSeconds,
                double(residentKiB(pid)) / 1024.0, 100.0 * cpuSeconds / wallSeconds);

    XCloseDisplay(display);
    serverThread.quit();
    serverThread.wait();
    return failed == 0 ? 0 : 1;
}
