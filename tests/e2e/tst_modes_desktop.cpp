#include "FakeOllamaServer.h"
#include "FakeWhisperServer.h"
#include "QuorvaneProcess.h"
#include "TempGitRepository.h"
#include "formatting/RewriteCommand.h"
#include "linux/DesktopDriver.h"
#include "repository/AgentHandoffScriptBuilder.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QTest>
#include <csignal>
#include <memory>
#include <sys/stat.h>

namespace {

// The edit and prompt keys as the Linux kit maps them: Right Super and Right Ctrl.
constexpr int editKey = 134;
constexpr int promptKey = 105;

const QString original =
    QStringLiteral("We should probably try to meet on Tuesday at 10 to review the parser changes in src/parser.cpp "
                   "before the release.");
const QString concise = QStringLiteral("Meet Tuesday at 10 to review the parser changes in src/parser.cpp before the "
                                       "release.");
// The sentence appears twice, so a paste over the wrong one shows.
const QString document = QStringLiteral("Notes for the team \u2014 draft\n") + original +
                         QStringLiteral("\nEverything else stays.\n") + original + QStringLiteral("\nThanks, Zo\u00eb");

const QString request = QStringLiteral("Add a unit test for the parser that covers empty input.");

// A model answer that copies the repository facts into Context, already in the delivered layout.
QString compiledPrompt(const QString &repositoryName) {
    return "Goal:\n" + request + "\n\nContext:\nRepository: " + repositoryName +
           "\nBranch: main\n\nConstraints:\ntest empty input of the parser\n\nAcceptance criteria:\nthe unit test "
           "covers empty input\n\nVerification:\nthe parser test passes";
}

QString contents(const QString &path) {
    return QString::fromUtf8(readFileBytes(path));
}

int mode(const QString &path) {
    struct stat status {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 ? int(status.st_mode & 07777) : -1;
}

// Every running process whose command line holds `needle`.
QStringList commandLinesHolding(const QByteArray &needle) {
    QStringList found;
    for (const QString &entry : QDir("/proc").entryList(QDir::Dirs)) {
        if (entry.toInt() <= 0)
            continue;
        QFile file("/proc/" + entry + "/cmdline");
        if (file.open(QIODevice::ReadOnly)) {
            QByteArray line = file.readAll();
            if (line.replace('\0', ' ').contains(needle))
                found << QString::fromUtf8(line);
        }
    }
    return found;
}

QStringList terminalWindows() {
    return QString::fromUtf8(runTool("xdotool", {"search", "--class", "lxterminal"}).output)
        .split('\n', Qt::SkipEmptyParts);
}

// A stand-in agent: shows `banner` after `delay` seconds, then records its folder and everything it
// reads. It ends by itself so that no window outlives the test for long.
QByteArray standInAgent(const QString &banner, int delay, const QString &record) {
    return "#!/bin/sh\n/bin/sleep " + QByteArray::number(delay) + "\nprintf '%s\\n> ' " +
           AgentHandoffScriptBuilder::quote(banner).toUtf8() +
           "\n{ pwd; /usr/bin/timeout --foreground 20 /bin/cat; } > " +
           AgentHandoffScriptBuilder::quote(record).toUtf8() + "\n";
}

} // namespace

class TestModesDesktop : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        // Presses keys and plays sound: only on the throwaway desktop, never in the user's session.
        if (qEnvironmentVariableIsEmpty("QUORVANE_DESKTOP"))
            QSKIP("needs the desktop of scripts/headless-desktop");
        if (!QFileInfo("/usr/bin/lxterminal").isExecutable() || !QFileInfo("/usr/bin/xterm").isExecutable())
            QSKIP("needs lxterminal and xterm");
        if (QFileInfo::exists("/opt/homebrew/bin/claude") || QFileInfo::exists("/usr/local/bin/claude"))
            QSKIP("an agent is installed system-wide on this machine");
        m_editClip = m_folder.filePath("edit.wav");
        m_promptClip = m_folder.filePath("prompt.wav");
        QVERIFY(speak("make it concise", m_editClip));
        QVERIFY(speak("add a unit test for the parser that covers empty input", m_promptClip));
        m_target = std::make_unique<TargetWindow>();
        QVERIFY(m_target->ready);
        startApp("claude");
    }

    void init() {
        m_from = m_app->log().size();
        m_target->command("set line ");
        m_target->command("set password ");
        m_target->command("set edit " + QString(document).replace('\n', "\\n"));
    }

    void cleanup() {
        if (QTest::currentTestFailed())
            qInfo().noquote() << "The app's log of this case:\n" + m_app->log().mid(m_from).join('\n');
        runTool("xdotool", {"keyup", QString::number(editKey)});
        runTool("xdotool", {"keyup", QString::number(promptKey)});
        if (m_xterm) {
            m_xterm->kill();
            m_xterm->waitForFinished();
            m_xterm.reset();
        }
        // Closes the agents' windows; each marker holds its agent's process id.
        const QDir handoffs(m_app->home() + "/handoffs");
        for (const QString &marker : handoffs.entryList({"agent-*.pid"}, QDir::Files))
            if (const int pid = contents(handoffs.filePath(marker)).trimmed().toInt(); pid > 0)
                ::kill(pid, SIGTERM);
        // Lets any clipboard restore of a failed case settle before the next one snapshots it.
        QTest::qWait(500);
    }

    // The guarded rewrite replaces the selected occurrence and nothing else.
    void editReplacesExactlyTheSelection() {
        const qsizetype at = document.lastIndexOf(original);
        QCOMPARE(m_target->command(QString("select edit %1 %2").arg(at).arg(original.size())), "ok");
        QVERIFY(m_target->focus("edit"));
        m_whisper.setDefaultInference(FakeWhisperServer::transcript(" Make it concise.\n"));
        m_ollama.setDefaultGenerate(FakeOllamaServer::generation(concise));

        QVERIFY(holdKeyAndSpeak(*m_app, editKey, "Edit command recording started.", m_from, m_editClip));
        QVERIFY(m_app->awaitLine("[INFO] Edit in Place complete \u00b7 Make concise", m_from));
        QTRY_COMPARE_WITH_TIMEOUT(m_target->text("edit"), QString(document).replace(at, original.size(), concise),
                                  3000);
    }

    // Each way an edit can go wrong leaves every field as it was and tells the user why.
    void editFailureLeavesTheDocumentAlone_data() {
        QTest::addColumn<QString>("field");
        QTest::addColumn<QString>("spoken");
        QTest::addColumn<QString>("rewrite");
        QTest::addColumn<bool>("moveSelection"); // while the model is still writing
        QTest::addColumn<int>("modelRequests");
        QTest::addColumn<QString>("logLine");
        QTest::addColumn<QString>("notice");
        const QString command = "Make it concise.";
        QTest::newRow("rewrite refused by the guard")
            << "edit" << command << "Meet Tuesday to review the parser changes before the release." << false << 1
            << "[WARN] Rewrite guard kept the original selection (rejectedProtectedContent)"
            << "[WARN] [Unsafe rewrite blocked] Quorvane kept the original text because the rewrite changed protected "
               "content or meaning.";
        QTest::newRow("unrecognised command") << "edit"
                                              << "Make it sparkle." << concise << false << 0
                                              << "[INFO] Edit command was not recognized; selection left untouched."
                                              << "[WARN] [Edit command not recognized] Say one command: " +
                                                     RewriteCommand::recognitionHints().join(", ") + ".";
        QTest::newRow("selection moved before the rewrite arrived")
            << "edit" << command << concise << true << 1
            << "[WARN] Selected text was not replaced: The selection changed while you were speaking. Nothing was "
               "replaced."
            << "[WARN] [Nothing was replaced] The selection changed while you were speaking. Nothing was replaced.";
        QTest::newRow("password field")
            << "password" << command << concise << false << 0
            << "[WARN] Could not capture the selection: Quorvane never reads or edits password and secure-entry "
               "fields."
            << "[WARN] [Edit in Place] Quorvane never reads or edits password and secure-entry fields. Nothing was "
               "replaced.";
    }
    void editFailureLeavesTheDocumentAlone() {
        QFETCH(QString, field);
        QFETCH(QString, spoken);
        QFETCH(QString, rewrite);
        QFETCH(bool, moveSelection);
        if (field == "password")
            m_target->command("set password " + original);
        const qsizetype at = field == "password" ? 0 : document.lastIndexOf(original);
        QCOMPARE(m_target->command(QString("select %1 %2 %3").arg(field).arg(at).arg(original.size())), "ok");
        QVERIFY(m_target->focus(field));
        const QByteArray before = m_target->command("text");
        m_whisper.setDefaultInference(FakeWhisperServer::transcript(" " + spoken + "\n"));
        // Slow enough to move the selection meanwhile, well inside the formatter's budget.
        m_ollama.setDefaultGenerate(FakeOllamaServer::generation(rewrite).delayedBy(moveSelection ? 1500 : 0));
        const qsizetype requests = m_ollama.generateRequests().size();

        QVERIFY(holdKeyAndSpeak(*m_app, editKey, "Edit command recording started.", m_from, m_editClip));
        if (moveSelection) {
            QTRY_COMPARE_WITH_TIMEOUT(m_ollama.generateRequests().size(), requests + 1, 8000);
            QCOMPARE(
                m_target->command(QString("select edit %1 %2").arg(document.indexOf(original)).arg(original.size())),
                "ok");
        }
        QFETCH(QString, logLine);
        QFETCH(QString, notice);
        for (const QString &expected : {logLine, notice}) {
            const auto line = m_app->awaitLine(expected, m_from);
            QVERIFY2(line && line->endsWith(expected), qPrintable(line.value_or("nothing like: " + expected)));
        }
        QTest::qWait(500);
        QCOMPARE(m_target->command("text"), before);
        QTEST(int(m_ollama.generateRequests().size() - requests), "modelRequests");
    }

    // The real terminal starts the agent in the repository the frontmost terminal works in; the
    // agent gets the prompt and Return only while it is in front and asks nothing.
    void handsOffToTheAgent_data() {
        QTest::addColumn<QString>("repositoryName");
        QTest::addColumn<QString>("banner");  // empty: no agent installed
        QTest::addColumn<bool>("moveFocus");  // to another window while the agent starts
        QTest::addColumn<QString>("failure"); // empty: handed off
        const QString ready = "Stand-in agent ready";
        QTest::newRow("ready agent") << "project" << ready << false << "";
        QTest::newRow("quote in the repository path") << "it's here" << ready << false << "";
        QTest::newRow("trust question")
            << "project"
            << "Do you trust the files in this folder?" << false
            << "Could not hand off the prompt: finish the agent's trust or sign-in prompt, then paste the copied "
               "specification";
        QTest::newRow("focus moved away while the agent starts")
            << "project" << ready << true
            << "Could not hand off the prompt: focus changed before the prompt could be submitted";
        QTest::newRow("no agent installed")
            << "project"
            << "" << false << "The coding agent is unavailable: Claude Code CLI is not installed in a trusted location";
    }
    void handsOffToTheAgent() {
        QFETCH(QString, repositoryName);
        QFETCH(QString, banner);
        QFETCH(bool, moveFocus);
        QFETCH(QString, failure);
        TempGitRepository repo(repositoryName);
        QVERIFY(repo.isValid());
        const QString record = repo.scratch() + "/record";
        const QString agent = m_userHome.filePath(".local/bin/claude");
        QFile::remove(agent);
        if (!banner.isEmpty())
            QVERIFY(TempGitRepository::writeFile(agent, standInAgent(banner, moveFocus ? 2 : 0, record), true));
        const QString prompt = compiledPrompt(repositoryName);
        m_whisper.setDefaultInference(FakeWhisperServer::transcript(" " + request + "\n"));
        m_ollama.setDefaultGenerate(FakeOllamaServer::generation(prompt));
        startXterm(repo.root(), {"-e", "sh", "-c", "sleep 60"});
        const QStringList windowsBefore = terminalWindows();
        const QByteArray fieldsBefore = m_target->command("text");
        const QString handoffs = m_app->home() + "/handoffs";
        const auto markers = [&] { return QDir(handoffs).entryList({"agent-*.pid"}, QDir::Files); };
        const QStringList markersBefore = markers();

        QVERIFY(holdKeyAndSpeak(*m_app, promptKey, "Prompt Mode recording started.", m_from, m_promptClip));
        if (moveFocus) {
            // While the agent is still starting in a window the app has seen come to the front.
            QTRY_VERIFY_WITH_TIMEOUT(markers() != markersBefore, 8000);
            const auto agentInFront = [&] {
                const qint64 active = activeProcess();
                return active != 0 && active != m_xterm->processId();
            };
            QTRY_VERIFY_WITH_TIMEOUT(agentInFront(), 5000);
            // Long enough for the app to see its terminal in front, well before the agent's first words.
            QTest::qWait(500);
            QVERIFY(m_target->focus("line"));
        }
        const QString outcome = failure.isEmpty() ? "[INFO] Prompt handed off \u00b7 Claude Code"
                                                  : "[ERROR] Prompt delivery failed: " + failure;
        // The prompt travels only through the clipboard, never on a command line.
        QStringList exposed;
        std::optional<QString> line;
        QVERIFY(QTest::qWaitFor(
            [&] {
                exposed += commandLinesHolding(request.toUtf8());
                line = m_app->awaitLine(outcome, m_from, 0);
                return line.has_value();
            },
            20000));
        QVERIFY2(line->endsWith(outcome), qPrintable(*line));
        QVERIFY2(exposed.isEmpty(), qPrintable(exposed.join('\n')));

        if (failure.isEmpty()) {
            QTRY_COMPARE_WITH_TIMEOUT(contents(record), repo.root() + "\n" + prompt + "\n", 5000);
        } else {
            // The agent, once it listens, reads nothing.
            const QString started = banner.isEmpty() ? QString() : repo.root() + "\n";
            QTRY_COMPARE_WITH_TIMEOUT(contents(record), started, 5000);
            QTest::qWait(500);
            QCOMPARE(contents(record), started);
            QCOMPARE(m_target->command("text"), fieldsBefore);
        }
        // Windows of earlier agents may close meanwhile; none may open.
        if (banner.isEmpty())
            for (const QString &window : terminalWindows())
                QVERIFY2(windowsBefore.contains(window), "a terminal opened without an agent");

        // The launchers hold the user's paths and the agent's process id: theirs alone.
        if (QFileInfo::exists(handoffs)) {
            QCOMPARE(mode(handoffs), 0700);
            for (const QFileInfo &file : QDir(handoffs).entryInfoList(QDir::Files))
                QCOMPARE(mode(file.filePath()), file.fileName().startsWith("launch-") ? 0700 : 0600);
        }
    }

    // The compiled prompt, with the facts of the repository the terminal in front works in, is
    // pasted into that terminal.
    void promptReachesTheFocusedTerminal() {
        startApp("focusedApp");
        m_from = 0;
        TempGitRepository repo("quorvane-demo");
        QVERIFY(repo.isValid());
        QVERIFY(repo.write("src/parser.cpp", "int parse();\n"));
        repo.commitAll();
        const QString typed = repo.scratch() + "/typed";
        const QString prompt = compiledPrompt("quorvane-demo");
        m_whisper.setDefaultInference(FakeWhisperServer::transcript(" " + request + "\n"));
        m_ollama.setDefaultGenerate(FakeOllamaServer::generation(prompt));
        startXterm(repo.root(), {"-e", "sh", "-c", "cat > \"$0\"", typed});

        QVERIFY(holdKeyAndSpeak(*m_app, promptKey, "Prompt Mode recording started.", m_from, m_promptClip));
        QVERIFY(m_app->awaitLine("[INFO] Prompt Mode complete", m_from));
        // The model was told the facts of this terminal's repository; earlier requests were for others.
        const QList<QJsonObject> bodies = m_ollama.generateBodies();
        const auto compilation = std::find_if(bodies.rbegin(), bodies.rend(), [](const QJsonObject &body) {
            return body.value("prompt").toString().contains("<spoken-request>\n" + request);
        });
        QVERIFY(compilation != bodies.rend());
        const QString sent = compilation->value("prompt").toString();
        QVERIFY2(sent.contains("Repository: quorvane-demo\nBranch: main\n"), qPrintable(sent));
        // xterm fetches the pasted text from us after the keystroke: once every line but the last
        // has reached the file, the last one waits in the terminal for its Return.
        QVERIFY(prompt.contains('\n'));
        QTRY_COMPARE_WITH_TIMEOUT(contents(typed), prompt.left(prompt.lastIndexOf('\n') + 1), 5000);
        runTool("xdotool", {"key", "Return"});
        QTRY_COMPARE_WITH_TIMEOUT(contents(typed), prompt + "\n", 5000);
    }

private:
    void startApp(const QString &destination) {
        m_app.reset();
        QVERIFY(QDir().mkpath(m_userHome.filePath(".local/bin")));
        AppSetup setup;
        setup.ollama = m_ollama.url();
        setup.config = QJsonObject{{"promptDestination", destination}};
        // The agent is looked for in the home the app sees, and the terminal keeps its settings there.
        setup.environment.insert("HOME", m_userHome.path());
        m_app = std::make_unique<DictationApp>(m_whisper.url(), setup);
        QVERIFY(m_app->awaitReady());
    }
    void startXterm(const QString &folder, const QStringList &arguments) {
        m_xterm = std::make_unique<QProcess>();
        m_xterm->setWorkingDirectory(folder);
        m_xterm->start("xterm", arguments);
        QVERIFY(m_xterm->waitForStarted());
        QVERIFY(awaitActive(m_xterm->processId()));
    }

    QTemporaryDir m_folder;
    QTemporaryDir m_userHome;
    FakeWhisperServer m_whisper;
    FakeOllamaServer m_ollama;
    QString m_editClip;
    QString m_promptClip;
    std::unique_ptr<TargetWindow> m_target;
    std::unique_ptr<DictationApp> m_app;
    std::unique_ptr<QProcess> m_xterm;
    qsizetype m_from = 0;
};

QTEST_MAIN(TestModesDesktop)
#include "tst_modes_desktop.moc"
