#include "LogRecorder.h"
#include "ScriptedTextBackend.h"
#include "core/QuorvaneError.h"
#include "core/Scheduler.h"
#include "linux/FakeRemoteDesktopPortal.h"
#include "platform/PasteTextInjector.h"
#include "platform/linux/wayland/PortalTextBackend.h"
#include "platform/linux/wayland/RemoteDesktopSession.h"

#include <QDBusConnection>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <algorithm>
#include <sys/stat.h>

using Key = FakeRemoteDesktopPortal::Key;
using Keys = QList<Key>;
using Item = DesktopTextBackend::ClipboardItem;

namespace {

const QString utf8Text = QStringLiteral("text/plain;charset=utf-8");

// The backend as the kit wires it on GNOME: the portal's session for the chord (and the clipboard
// where the portal shares it), with the compositor's backend (here in memory) beside it.
struct Rig {
    explicit Rig(const QString &tokenFile) {
        const RemoteDesktopSession::Availability remote = RemoteDesktopSession::probe(QDBusConnection::sessionBus());
        usable = remote.keyboard;
        session = std::make_shared<RemoteDesktopSession>(QDBusConnection::sessionBus(), remote.clipboard, tokenFile);
        session->start();
        // Without clipboard control the compositor's clipboard is XWayland's, which is never read back.
        compositor->ownerHangs = true;
        injector = std::make_unique<PasteTextInjector>(
            std::make_shared<PortalTextBackend>(session, compositor, false, [this] { return destination; }), clock);
    }
    bool settled() const {
        return session->state() != RemoteDesktopSession::State::idle &&
               session->state() != RemoteDesktopSession::State::starting;
    }
    bool logged(const QString &fragment) const {
        return std::any_of(log.lines.begin(), log.lines.end(),
                           [&](const QString &line) { return line.contains(fragment); });
    }

    LogRecorder log;
    bool usable = false;
    QString destination;
    std::shared_ptr<ScriptedTextBackend> compositor = std::make_shared<ScriptedTextBackend>();
    std::shared_ptr<RemoteDesktopSession> session;
    ManualScheduler clock;
    std::unique_ptr<PasteTextInjector> injector;
};

// An application pastes `type` and gets what the session hands over.
QByteArray pasteFrom(FakeRemoteDesktopPortal &portal, const QString &type) {
    const uint serial = portal.paste(type);
    std::optional<QByteArray> got;
    [&] { QTRY_VERIFY((got = portal.pasted(serial)).has_value()); }();
    return got.value_or(QByteArray("(nothing)"));
}

} // namespace

class RemoteDesktopPortalTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() {
        if (!QDBusConnection::sessionBus().isConnected())
            QSKIP("needs a session bus (run under scripts/headless-desktop)");
    }

    // The user confirms once: the token of each start is kept owner-only and offered at the next.
    void sessionAsksForTheKeyboardAndKeepsTheToken() {
        FakeRemoteDesktopPortal portal;
        QVERIFY(portal.isServing());
        QTemporaryDir data;
        const QString tokenFile = data.filePath(QStringLiteral("remote-desktop.token"));
        QStringList issued;
        for (int start = 0; start < 2; ++start) {
            Rig rig(tokenFile);
            QVERIFY(rig.usable);
            QTRY_VERIFY(rig.settled());
            QCOMPARE(rig.session->state(), RemoteDesktopSession::State::started);
            QVERIFY(rig.session->clipboardEnabled());
            issued << portal.issuedToken();
            QFile file(tokenFile);
            QVERIFY(file.open(QIODevice::ReadOnly));
            QCOMPARE(QString::fromUtf8(file.readAll()), issued.last());
            struct stat status {};
            QCOMPARE(stat(QFile::encodeName(tokenFile).constData(), &status), 0);
            QCOMPARE(status.st_mode & 0777, 0600u);
        }
        const QList<QVariantMap> selections = portal.deviceSelections();
        QCOMPARE(selections.size(), 2);
        for (const QVariantMap &options : selections) {
            QCOMPARE(options.value(QStringLiteral("types")).toUInt(), 1u);
            QCOMPARE(options.value(QStringLiteral("persist_mode")).toUInt(), 2u);
        }
        QVERIFY(!selections[0].contains(QStringLiteral("restore_token")));
        QCOMPARE(selections[1].value(QStringLiteral("restore_token")).toString(), issued[0]);
        QVERIFY(issued[0] != issued[1]);
    }

    void chordFollowsTheDestination_data() {
        QTest::addColumn<FakeRemoteDesktopPortal::Offers>("offers");
        QTest::addColumn<QString>("destination");
        QTest::addColumn<Keys>("keys");
        const auto clipboard = FakeRemoteDesktopPortal::Offers::keyboardAndClipboard;
        QTest::newRow("editor: Ctrl+V") << clipboard << "org.gnome.TextEditor"
                                        << Keys{{29, 1}, {47, 1}, {47, 0}, {29, 0}};
        QTest::newRow("unknown destination: Ctrl+V") << clipboard << "" << Keys{{29, 1}, {47, 1}, {47, 0}, {29, 0}};
        QTest::newRow("terminal: Ctrl+Shift+V")
            << clipboard << "org.gnome.Terminal" << Keys{{29, 1}, {42, 1}, {47, 1}, {47, 0}, {42, 0}, {29, 0}};
        QTest::newRow("xterm: Shift+Insert") << clipboard << "xterm" << Keys{{42, 1}, {110, 1}, {110, 0}, {42, 0}};
        // The text went to XWayland's clipboard; the chord still comes through the portal.
        QTest::newRow("no portal clipboard") << FakeRemoteDesktopPortal::Offers::keyboardOnly << "konsole"
                                             << Keys{{29, 1}, {42, 1}, {47, 1}, {47, 0}, {42, 0}, {29, 0}};
    }
    void chordFollowsTheDestination() {
        QFETCH(FakeRemoteDesktopPortal::Offers, offers);
        QFETCH(QString, destination);
        QFETCH(Keys, keys);
        FakeRemoteDesktopPortal portal(offers);
        QTemporaryDir data;
        Rig rig(data.filePath(QStringLiteral("token")));
        QTRY_VERIFY(rig.settled());
        rig.destination = destination;
        rig.injector->inject(QStringLiteral("hello"));
        QCOMPARE(portal.keys(), keys);
        // Nobody said what the clipboard held before, and XWayland's cannot be read: either way the
        // text stays rather than being replaced by a guess.
        rig.clock.advance(PasteTextInjector::restoreDelayMs);
        const bool portalClipboard = offers == FakeRemoteDesktopPortal::Offers::keyboardAndClipboard;
        QCOMPARE(portal.selections().size(), portalClipboard ? 1 : 0);
        QCOMPARE(rig.compositor->clipboard,
                 portalClipboard ? DesktopTextBackend::ClipboardSnapshot{} : ScriptedTextBackend::plainText("hello"));
    }

    // The pasted text is served through the session, then the user's clipboard comes back byte for
    // byte unless someone copied in the meantime.
    void clipboardIsServedAndRestored_data() {
        QTest::addColumn<Item>("earlier");
        QTest::addColumn<Item>("copiedMeanwhile");
        QTest::addColumn<bool>("announced");
        const QByteArray png("\x89PNG\r\n\x1a\n\0\xff\x00 image", 18);
        QTest::newRow("text and image come back")
            << Item{{QStringLiteral("text/plain"), QByteArray("earlier text")}, {QStringLiteral("image/png"), png}}
            << Item{} << true;
        QTest::newRow("empty clipboard stays empty") << Item{} << Item{} << true;
        // Not knowing is not "empty": clearing would only take the dictated text away as well.
        QTest::newRow("clipboard never announced keeps the text") << Item{} << Item{} << false;
        QTest::newRow("a copy meanwhile wins")
            << Item{{QStringLiteral("text/plain"), QByteArray("earlier text")}}
            << Item{{QStringLiteral("text/html"), QByteArray("<b>newer</b>")}} << true;
    }
    void clipboardIsServedAndRestored() {
        QFETCH(Item, earlier);
        QFETCH(Item, copiedMeanwhile);
        QFETCH(bool, announced);
        FakeRemoteDesktopPortal portal;
        QTemporaryDir data;
        Rig rig(data.filePath(QStringLiteral("token")));
        QTRY_VERIFY(rig.settled());
        if (announced) {
            portal.copyElsewhere(earlier);
            QTRY_COMPARE(rig.session->changeCount(), 1);
        }

        rig.injector->inject(QStringLiteral("dictated \u00e9t\u00e9"));
        QCOMPARE(portal.selections().size(), 1);
        QVERIFY(portal.selections().constFirst().contains(utf8Text));
        QCOMPARE(pasteFrom(portal, utf8Text), QStringLiteral("dictated \u00e9t\u00e9").toUtf8());

        if (!copiedMeanwhile.isEmpty()) {
            const qint64 before = rig.session->changeCount();
            portal.copyElsewhere(copiedMeanwhile);
            QTRY_COMPARE(rig.session->changeCount(), before + 1);
        }
        rig.clock.advance(PasteTextInjector::restoreDelayMs);
        if (!copiedMeanwhile.isEmpty() || !announced) {
            QCOMPARE(portal.selections().size(), 1);
            return;
        }
        QCOMPARE(portal.selections().size(), 2);
        QStringList types;
        for (const auto &[type, bytes] : std::as_const(earlier)) {
            types << type;
            QCOMPARE(pasteFrom(portal, type), bytes);
        }
        QCOMPARE(portal.selections().last(), types);
    }

    // Without the session nothing can be pasted: the text stays on the clipboard the compositor
    // reaches, the failure is the usual one, and the log says what to do.
    void noSessionLeavesTheTextOnTheClipboard_data() {
        QTest::addColumn<bool>("dismissed");
        QTest::addColumn<QString>("logged");
        QTest::addColumn<int>("sessionsAfter");
        QTest::newRow("dialog dismissed")
            << true << "ERROR The desktop's remote desktop portal dialog was dismissed" << 1;
        // Started again for the next dictation, which may show the dialog once more.
        QTest::newRow("session closed") << false << "WARN The desktop closed Quorvane's remote desktop session" << 2;
    }
    void noSessionLeavesTheTextOnTheClipboard() {
        QFETCH(bool, dismissed);
        QFETCH(QString, logged);
        QFETCH(int, sessionsAfter);
        FakeRemoteDesktopPortal portal;
        if (dismissed)
            portal.dismissDialog();
        QTemporaryDir data;
        Rig rig(data.filePath(QStringLiteral("token")));
        QTRY_VERIFY(rig.settled());
        if (!dismissed) {
            portal.closeSession();
            QTRY_COMPARE(rig.session->state(), RemoteDesktopSession::State::closed);
        }
        QTRY_VERIFY2(rig.logged(logged), qPrintable(rig.log.lines.join(QLatin1Char('\n'))));

        try {
            rig.injector->inject(QStringLiteral("kept"));
            QFAIL("the paste should have failed");
        } catch (const QuorvaneError &error) {
            QVERIFY2(error ==
                         QuorvaneError::injectionFailed(QStringLiteral("could not synthesise the paste keystroke")),
                     qPrintable(error.message()));
        }
        QCOMPARE(rig.compositor->clipboard, ScriptedTextBackend::plainText("kept"));
        QVERIFY(portal.keys().isEmpty());
        QTRY_COMPARE(portal.sessionsCreated(), sessionsAfter);
        QCOMPARE(QFile::exists(data.filePath(QStringLiteral("token"))), !dismissed);
    }
};

QTEST_GUILESS_MAIN(RemoteDesktopPortalTest)
#include "tst_remote_desktop_portal_desktop.moc"
