#include "FakeOllamaServer.h"
#include "FakeWhisperServer.h"
#include "QuorvaneProcess.h"
#include "linux/DesktopDriver.h"
#include "speech/WavDecoder.h"

#include <QDir>
#include <QDirIterator>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>
#include <X11/Xlib.h>
#include <X11/extensions/XRes.h>
#include <X11/extensions/XTest.h>
#include <cmath>
#include <memory>

namespace {

const QString spoken = QStringLiteral("Hello from the headless desktop.");
const QString copiedBefore = QStringLiteral("copied before — ünïcode");
const QString secret = QStringLiteral("hunter2-secret");
constexpr int rightAlt = 108;

void xdotool(const QStringList &arguments) {
    QCOMPARE(runTool("xdotool", arguments).exitCode, 0);
}

// The app's X client that selected events on a window but owns none: the hotkey thread's
// connection. Qt's and the clipboard's connections own windows; the others select nothing.
XID hotkeyClient(Display *display, qint64 pid) {
    int clientCount = 0;
    XResClient *clients = nullptr;
    XResQueryClients(display, &clientCount, &clients);
    XID found = 0;
    for (int i = 0; i < clientCount && !found; ++i) {
        XResClientIdSpec query{clients[i].resource_base, XRES_CLIENT_ID_PID_MASK};
        long idCount = 0;
        XResClientIdValue *ids = nullptr;
        if (XResQueryClientIds(display, 1, &query, &idCount, &ids) != Success)
            continue;
        const bool ours = idCount > 0 && XResGetClientPid(&ids[0]) == pid;
        XResClientIdsDestroy(idCount, ids);
        if (!ours)
            continue;
        int typeCount = 0;
        XResType *types = nullptr;
        XResQueryClientResources(display, clients[i].resource_base, &typeCount, &types);
        bool windows = false, selections = false;
        for (int t = 0; t < typeCount; ++t) {
            char *name = XGetAtomName(display, types[t].resource_type);
            windows |= qstrcmp(name, "WINDOW") == 0 && types[t].count > 0;
            selections |= qstrcmp(name, "INPUTCLIENT") == 0 && types[t].count > 0;
            XFree(name);
        }
        XFree(types);
        if (selections && !windows)
            found = clients[i].resource_base;
    }
    XFree(clients);
    return found;
}

// Loudness in 10 ms frames.
std::vector<double> envelope(const WavDecoder::Decoded &audio) {
    const std::size_t frame = std::size_t(audio.sampleRate / 100);
    std::vector<double> frames;
    for (std::size_t start = 0; start + frame <= audio.samples.size(); start += frame) {
        double sum = 0;
        for (std::size_t i = start; i < start + frame; ++i)
            sum += double(audio.samples[i]) * audio.samples[i];
        frames.push_back(std::sqrt(sum / double(frame)));
    }
    return frames;
}

// The best Pearson correlation of `part` against any stretch of `whole`.
double bestMatch(const std::vector<double> &part, const std::vector<double> &whole) {
    const auto correlation = [&](std::size_t lag) {
        double mp = 0, mw = 0;
        for (std::size_t i = 0; i < part.size(); ++i)
            mp += part[i], mw += whole[lag + i];
        mp /= double(part.size()), mw /= double(part.size());
        double pw = 0, pp = 0, ww = 0;
        for (std::size_t i = 0; i < part.size(); ++i) {
            pw += (part[i] - mp) * (whole[lag + i] - mw);
            pp += (part[i] - mp) * (part[i] - mp);
            ww += (whole[lag + i] - mw) * (whole[lag + i] - mw);
        }
        return pp > 0 && ww > 0 ? pw / std::sqrt(pp * ww) : 0.0;
    };
    double best = -1;
    for (std::size_t lag = 0; lag + part.size() <= whole.size(); ++lag)
        best = std::max(best, correlation(lag));
    return best;
}

} // namespace

class TestDictationDesktop : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        // Presses keys and plays sound: only on the throwaway desktop, never in the user's session.
        if (qEnvironmentVariableIsEmpty("QUORVANE_DESKTOP"))
            QSKIP("needs the desktop of scripts/headless-desktop");
        m_whisper.setDefaultInference(FakeWhisperServer::transcript(" " + spoken + "\n"));
        m_ollama.setDefaultGenerate(FakeOllamaServer::generation(spoken));
        m_clip = m_folder.filePath("clip.wav");
        QVERIFY(speak("hello from the headless desktop", m_clip));
        // Before the app, which looks for a tray only when it starts.
        m_tray = std::make_unique<TrayHost>();
        QVERIFY(m_tray->ready);
        m_target = std::make_unique<TargetWindow>();
        QVERIFY(m_target->ready);
        QVERIFY(m_target->focus("line"));
        m_app = std::make_unique<DictationApp>(m_whisper.url(),
                                               AppSetup{.ollama = m_ollama.url(), .config = {}, .environment = {}});
        QVERIFY(m_app->awaitReady());
    }

    void init() {
        m_from = m_app->log().size();
        m_target->command("set line ");
        m_target->command("set password ");
    }

    void cleanup() {
        runTool("xdotool", {"keyup", QString::number(rightAlt)});
        m_whisper.setListening(true);
        if (TrayHost::menuOpen())
            xdotool({"key", "Escape"});
        if (m_xterm) {
            m_xterm->kill();
            m_xterm->waitForFinished();
            m_xterm.reset();
        }
        // Lets any clipboard restore of a failed case settle before the next one snapshots it.
        QTest::qWait(500);
    }

    // The text lands in the focused widget, and everything the clipboard held comes back.
    void pastesIntoTheFocusedWidgetAndRestoresTheClipboard_data() {
        QTest::addColumn<QString>("field");
        QTest::newRow("line edit") << "line";
        QTest::newRow("text edit") << "edit";
    }
    void pastesIntoTheFocusedWidgetAndRestoresTheClipboard() {
        QFETCH(QString, field);
        m_target->command("set edit ");
        QCOMPARE(m_target->command("copy " + copiedBefore), "ok");
        const auto before = clipboardFormats();
        const QStringList formats = formatNames(before);
        QVERIFY2(formats.contains("image/png") && formats.contains("UTF8_STRING"), qPrintable(formats.join(' ')));
        QVERIFY(m_target->focus(field));

        holdAndSpeak();
        QTRY_VERIFY_WITH_TIMEOUT(m_target->text(field).contains(spoken), 8000);
        QTRY_COMPARE_WITH_TIMEOUT(clipboardFormats(), before, 3000);
        QVERIFY(!m_app->log().join('\n').contains(copiedBefore));
    }

    // An application that owns the clipboard and has stopped answering: what it holds cannot be
    // saved, so nothing is put back and the dictated text stays instead of the clipboard being
    // cleared.
    void hungClipboardOwnerLeavesTheDictatedTextOnTheClipboard() {
        // A connection of its own whose events are never read: it never answers a request.
        const std::unique_ptr<Display, int (*)(Display *)> hung(XOpenDisplay(nullptr), XCloseDisplay);
        QVERIFY(hung);
        const Window owner = XCreateSimpleWindow(hung.get(), DefaultRootWindow(hung.get()), 0, 0, 1, 1, 0, 0, 0);
        const Atom clipboard = XInternAtom(hung.get(), "CLIPBOARD", False);
        XSetSelectionOwner(hung.get(), clipboard, owner, CurrentTime);
        XSync(hung.get(), False);
        QCOMPARE(XGetSelectionOwner(hung.get(), clipboard), owner);
        QVERIFY(m_target->focus("line"));

        holdAndSpeak();
        QTRY_VERIFY_WITH_TIMEOUT(m_target->text("line").contains(spoken), 8000);
        QVERIFY(m_app->awaitLine("[WARN] Your clipboard could not be saved, so the dictated text stays", m_from));
        // Well past the restore, which would have cleared it.
        QTest::qWait(1000);
        QVERIFY(XGetSelectionOwner(hung.get(), clipboard) != owner);
        const ToolRun pasted = runTool("xclip", {"-selection", "clipboard", "-o", "-t", "UTF8_STRING"}, 3000);
        QCOMPARE(pasted.exitCode, 0);
        QVERIFY2(QString::fromUtf8(pasted.output).contains(spoken), pasted.output.constData());
    }

    // A password field is neither written nor read, and the user is told why nothing was typed.
    void passwordFieldGetsNothing() {
        m_target->command("set password " + secret);
        QVERIFY(m_target->focus("password"));

        holdAndSpeak();
        QVERIFY(m_app->awaitLine(
            "[ERROR] Injection failed: Quorvane never reads or edits password and secure-entry fields.", m_from));
        QVERIFY(m_app->awaitLine("[WARN] [Couldn't type that]", m_from));
        QCOMPARE(m_target->text("password"), secret);
        QVERIFY(!m_app->log().join('\n').contains(secret));
    }

    // Ctrl+V would type a control character in xterm; only Shift+Insert pastes there.
    void pastesIntoXterm() {
        const QString file = m_folder.filePath("xterm-line");
        startXterm({"-e", "sh", "-c", "read line; echo \"$line\" > \"$0\"", file});
        QVERIFY(awaitActive(m_xterm->processId()));

        holdAndSpeak();
        QVERIFY(m_app->awaitLine("Dictation complete", m_from));
        xdotool({"key", "Return"});
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(file), 5000);
        QTRY_COMPARE_WITH_TIMEOUT(readFileBytes(file).trimmed(), spoken.toUtf8(), 3000);
    }

    // The hotkey thread's X connection is killed and the key released in one request stream, so
    // the server has dropped that client before the release and no reconnection can see it.
    void watchdogMakesGoodALostKeyUp() {
        QVERIFY(m_target->focus("line"));
        xdotool({"keydown", QString::number(rightAlt)});
        QVERIFY(m_app->awaitLine("Recording started.", m_from));
        playClip();

        Display *display = XOpenDisplay(nullptr);
        QVERIFY(display);
        const XID client = hotkeyClient(display, m_app->processID());
        if (client)
            XKillClient(display, client);
        XTestFakeKeyEvent(display, rightAlt, False, CurrentTime);
        XSync(display, False);
        XCloseDisplay(display);
        QVERIFY2(client, "no X client of the app looks like the hotkey thread's");

        QVERIFY(m_app->awaitLine("re-enabled it", m_from));
        QVERIFY(m_app->awaitLine("Key-up was never delivered", m_from));
        QTRY_VERIFY_WITH_TIMEOUT(m_target->text("line").contains(spoken), 8000);
    }

    void switchingWindowsWhileSpeakingPastesNothing() {
        QVERIFY(m_target->focus("line"));
        xdotool({"keydown", QString::number(rightAlt)});
        QVERIFY(m_app->awaitLine("Recording started.", m_from));
        playClip();
        startXterm({"-e", "sh", "-c", "sleep 60"});
        QVERIFY(awaitActive(m_xterm->processId()));
        xdotool({"keyup", QString::number(rightAlt)});

        QVERIFY(
            m_app->awaitLine("[ERROR] Injection failed: The destination app changed while you were speaking.", m_from));
        QVERIFY(m_app->awaitLine("[WARN] [Couldn't type that]", m_from));
        QCOMPARE(m_target->text("line"), QString());
    }

    // Speech that began before the key went down reaches the recogniser from its first syllable.
    void speechBeforeKeyDownIsKept() {
        QVERIFY(m_target->focus("line"));
        const qsizetype uploads = m_whisper.inferenceRequests().size();
        QProcess player;
        play(player, m_clip);
        // The clip is already sounding when the key goes down; only the pre-roll can hold its start
        // (a recording from key-down on matches the first half second at about 0.7).
        QTest::qWait(250);
        xdotool({"keydown", QString::number(rightAlt)});
        QVERIFY(player.waitForFinished(10000));
        QTest::qWait(300);
        xdotool({"keyup", QString::number(rightAlt)});
        QTRY_COMPARE_WITH_TIMEOUT(m_whisper.inferenceRequests().size(), uploads + 1, 8000);

        const auto clip = envelope(WavDecoder::decode(readFileBytes(m_clip)));
        const auto upload = envelope(WavDecoder::decode(*m_whisper.inferenceRequests().last().field("file")));
        const double loudest = *std::max_element(clip.begin(), clip.end());
        const auto onset = std::find_if(clip.begin(), clip.end(), [&](double v) { return v > loudest / 10; });
        QVERIFY(clip.end() - onset >= 50);
        const std::vector<double> firstHalfSecond(onset, onset + 50);
        const double match = bestMatch(firstHalfSecond, upload);
        QVERIFY2(match > 0.9, qPrintable(QString::number(match)));
    }

    // Said while the recogniser was down, delivered once it is back: the user picks the retry from
    // the tray menu, and the text lands where the focus is.
    void retryFromTheTrayMenuDeliversADictationThatFailed() {
        QVERIFY(m_target->focus("line"));
        m_whisper.setListening(false);
        holdAndSpeak();
        QVERIFY(m_app->awaitLine("[ERROR] Transcription failed: ", m_from));
        QVERIFY(m_app->awaitLine("[WARN] [Transcription failed]", m_from));
        QVERIFY(m_app->awaitLine("The dictation is held", m_from));
        QCOMPARE(m_target->text("line"), QString());

        m_whisper.setListening(true);
        const qsizetype uploads = m_whisper.inferenceRequests().size();
        // The state and figures lines above it cannot be chosen: the first choice is the retry. A
        // menu that has not yet grabbed the keyboard misses the keys, so the choice is made again.
        bool retried = false;
        for (int attempt = 0; attempt < 3 && !retried; ++attempt) {
            if (!TrayHost::menuOpen())
                QVERIFY(m_tray->openMenu());
            xdotool({"key", "Down"});
            xdotool({"key", "Return"});
            retried = m_app->awaitLine("Retrying the last dictation.", m_from, 15000).has_value();
        }
        QVERIFY(retried);
        QTRY_VERIFY_WITH_TIMEOUT(m_target->text("line").contains(spoken), 8000);
        QCOMPARE(m_whisper.inferenceRequests().size(), uploads + 1);
        QVERIFY(m_app->awaitLine("Dictation complete", m_from));
        // Kept once, as the dictation it was, with the recording that was held.
        QList<QJsonObject> entries;
        QTRY_VERIFY_WITH_TIMEOUT(!(entries = historyEntries()).isEmpty() &&
                                     entries.last().value("shippedText").toString().contains(spoken),
                                 3000);
        const QJsonObject kept = entries.last();
        QCOMPARE(std::count_if(entries.cbegin(), entries.cend(),
                               [&](const QJsonObject &e) { return e.value("id") == kept.value("id"); }),
                 1);
        QVERIFY(QFileInfo::exists(m_app->home() + "/audio/" + kept.value("audioFile").toString()));
    }

    // Runs last, after the app has logged, kept history and recordings and rewritten its files.
    void everythingWrittenIsOwnerOnly() {
        QVERIFY(QFileInfo::exists(QDir(m_app->home()).filePath("history.jsonl")));
        QVERIFY(!QDir(m_app->home() + "/audio").entryList({"*.wav"}, QDir::Files).isEmpty());
        QDirIterator it(m_app->home(), QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QFileInfo entry(it.next());
            const auto expected = entry.isDir()
                                      ? QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
                                      : QFileDevice::ReadOwner | QFileDevice::WriteOwner;
            QVERIFY2((entry.permissions() & 0x7077) == expected, qPrintable(entry.filePath()));
        }
    }

private:
    static QStringList formatNames(const QList<std::pair<QByteArray, QByteArray>> &formats) {
        QStringList names;
        for (const auto &format : formats)
            names << QString::fromUtf8(format.first);
        return names;
    }
    QList<QJsonObject> historyEntries() const {
        QList<QJsonObject> entries;
        for (const QByteArray &line : readFileBytes(m_app->home() + "/history.jsonl").split('\n'))
            if (!line.isEmpty())
                entries.append(QJsonDocument::fromJson(line).object());
        return entries;
    }

    // Holds Right Alt over the whole clip and a little after it, as a speaker would.
    void holdAndSpeak() { QVERIFY(holdKeyAndSpeak(*m_app, rightAlt, "Recording started.", m_from, m_clip)); }
    void playClip() {
        QProcess player;
        play(player, m_clip);
        QVERIFY(player.waitForFinished(10000));
        QTest::qWait(300);
    }
    void startXterm(const QStringList &arguments) {
        m_xterm = std::make_unique<QProcess>();
        m_xterm->start("xterm", arguments);
        QVERIFY(m_xterm->waitForStarted());
    }

    QTemporaryDir m_folder;
    FakeWhisperServer m_whisper;
    FakeOllamaServer m_ollama;
    QString m_clip;
    std::unique_ptr<TrayHost> m_tray;
    std::unique_ptr<TargetWindow> m_target;
    std::unique_ptr<DictationApp> m_app;
    std::unique_ptr<QProcess> m_xterm;
    qsizetype m_from = 0;
};

QTEST_MAIN(TestDictationDesktop)
#include "tst_dictation_desktop.moc"
