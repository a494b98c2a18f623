#include "LogRecorder.h"
#include "linux/FakeShortcutsPortal.h"
#include "platform/linux/wayland/WaylandKeys.h"

#include <QDBusConnection>
#include <QTest>
#include <algorithm>
#include <memory>
#include <optional>
#include <vector>

using Shortcuts = QList<FakeShortcutsPortal::Shortcut>;
using ModeKeys = QList<QPair<PushToTalkKey, PipelineMode>>;

namespace {

const ModeKeys defaultKeys = {{PushToTalkKey::rightOption, PipelineMode::dictation},
                              {PushToTalkKey::rightCommand, PipelineMode::editSelection},
                              {PushToTalkKey::fn, PipelineMode::developerPrompt}};

// The mode keys as the shell arms them, each press and release written down as "<id> press".
struct Rig {
    explicit Rig(const WaylandKeys::Route &route, const ModeKeys &keys = defaultKeys) {
        for (const auto &[key, mode] : keys) {
            std::unique_ptr<GlobalHotkey> hotkey = route.hotkey(key, mode);
            const QString id = GlobalShortcutsSession::shortcutId(mode);
            hotkey->onPress = [this, id] { calls << id + QStringLiteral(" press"); };
            hotkey->onRelease = [this, id] { calls << id + QStringLiteral(" release"); };
            started = hotkey->start() && started;
            hotkeys.push_back(std::move(hotkey));
        }
    }
    // Each key reports its own changes in order; between keys only the order of posting holds.
    QStringList callsByMode() const {
        QStringList sorted = calls;
        std::stable_sort(sorted.begin(), sorted.end(), [](const QString &a, const QString &b) {
            return a.section(QLatin1Char(' '), 0, 0) < b.section(QLatin1Char(' '), 0, 0);
        });
        return sorted;
    }
    bool logged(const QString &fragment) const {
        return std::any_of(log.lines.begin(), log.lines.end(),
                           [&](const QString &line) { return line.contains(fragment); });
    }

    LogRecorder log;
    QStringList calls;
    bool started = true;
    std::vector<std::unique_ptr<GlobalHotkey>> hotkeys;
};

WaylandKeys::Route portalRoute() {
    return WaylandKeys::choose(GlobalShortcutsSession::probe(QDBusConnection::sessionBus()));
}

} // namespace

class GlobalShortcutsDesktopTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() {
        if (!QDBusConnection::sessionBus().isConnected())
            QSKIP("needs a session bus (run under scripts/headless-desktop)");
    }

    void portalIsUsedOnlyWhereItOffersGlobalShortcuts_data() {
        QTest::addColumn<std::optional<FakeShortcutsPortal::Offers>>("desktop");
        QTest::addColumn<bool>("portal");
        QTest::addColumn<QString>("reason");
        QTest::newRow("no portal") << std::optional<FakeShortcutsPortal::Offers>() << false
                                   << QStringLiteral("no desktop portal runs");
        QTest::newRow("portal without global shortcuts") << std::optional(FakeShortcutsPortal::Offers::otherPortalsOnly)
                                                         << false << QStringLiteral("offers no global shortcuts");
        QTest::newRow("portal with global shortcuts")
            << std::optional(FakeShortcutsPortal::Offers::globalShortcuts) << true << QString();
    }
    void portalIsUsedOnlyWhereItOffersGlobalShortcuts() {
        QFETCH(std::optional<FakeShortcutsPortal::Offers>, desktop);
        QFETCH(bool, portal);
        QFETCH(QString, reason);
        std::optional<FakeShortcutsPortal> fake;
        if (desktop) {
            fake.emplace(*desktop);
            QVERIFY(fake->isServing());
        }
        const WaylandKeys::Route route = portalRoute();
        QCOMPARE(route.portal, portal);
        if (portal)
            return;
        // The fallback says why, and the setup step names the bindings to make.
        QVERIFY2(route.summary.contains(reason), qPrintable(route.summary));
        QVERIFY2(route.setupStep.contains(reason) && route.setupStep.contains(QStringLiteral("quorvane key press")),
                 qPrintable(route.setupStep));
        // The fallback's keys answer the compositor's bindings.
        Rig rig(route, {{PushToTalkKey::rightOption, PipelineMode::dictation}});
        QVERIFY(rig.started);
    }

    void eachModeKeyIsAskedForInOneSession_data() {
        QTest::addColumn<ModeKeys>("keys");
        QTest::addColumn<Shortcuts>("expected");
        QTest::newRow("default keys") << defaultKeys
                                      << Shortcuts{{QStringLiteral("dictate"), QStringLiteral("Alt_R")},
                                                   {QStringLiteral("edit"), QStringLiteral("Super_R")},
                                                   {QStringLiteral("prompt"), QStringLiteral("Control_R")}};
        QTest::newRow("two modes, other keys") << ModeKeys{{PushToTalkKey::fn, PipelineMode::developerPrompt},
                                                           {PushToTalkKey::rightCommand, PipelineMode::dictation}}
                                               << Shortcuts{{QStringLiteral("dictate"), QStringLiteral("Super_R")},
                                                            {QStringLiteral("prompt"), QStringLiteral("Control_R")}};
    }
    void eachModeKeyIsAskedForInOneSession() {
        QFETCH(ModeKeys, keys);
        QFETCH(Shortcuts, expected);
        FakeShortcutsPortal portal;
        Rig rig(portalRoute(), keys);
        QVERIFY(rig.started);
        QTRY_COMPARE(portal.bindings(), QList<Shortcuts>{expected});
        QTRY_VERIFY(rig.logged(QStringLiteral("INFO The desktop's shortcut portal bound the mode keys")));
        QCOMPARE(portal.sessionsCreated(), 1);
    }

    void shortcutSignalsPressAndReleaseTheirMode_data() {
        QTest::addColumn<QStringList>("script");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("held and let go") << QStringList{QStringLiteral("activate edit"),
                                                        QStringLiteral("deactivate edit")}
                                         << QStringList{QStringLiteral("edit press"), QStringLiteral("edit release")};
        QTest::newRow("two modes overlapping")
            << QStringList{QStringLiteral("activate edit"), QStringLiteral("activate prompt"),
                           QStringLiteral("deactivate edit"), QStringLiteral("deactivate prompt")}
            << QStringList{QStringLiteral("edit press"), QStringLiteral("edit release"), QStringLiteral("prompt press"),
                           QStringLiteral("prompt release")};
        QTest::newRow("repeated activation")
            << QStringList{QStringLiteral("activate prompt"), QStringLiteral("activate prompt"),
                           QStringLiteral("deactivate prompt")}
            << QStringList{QStringLiteral("prompt press"), QStringLiteral("prompt release")};
        QTest::newRow("release without press") << QStringList{QStringLiteral("deactivate edit")} << QStringList{};
        QTest::newRow("another client's session") << QStringList{QStringLiteral("elsewhere edit")} << QStringList{};
        QTest::newRow("unknown shortcut") << QStringList{QStringLiteral("activate paste")} << QStringList{};
    }
    void shortcutSignalsPressAndReleaseTheirMode() {
        QFETCH(QStringList, script);
        QFETCH(QStringList, expected);
        FakeShortcutsPortal portal;
        Rig rig(portalRoute());
        QTRY_COMPARE(portal.bindings().size(), 1);
        QTRY_VERIFY(rig.logged(QStringLiteral("bound the mode keys")));
        for (const QString &step : std::as_const(script)) {
            const QString action = step.section(QLatin1Char(' '), 0, 0);
            const QString id = step.section(QLatin1Char(' '), 1);
            if (action == QLatin1String("activate"))
                portal.activate(id);
            else if (action == QLatin1String("deactivate"))
                portal.deactivate(id);
            else
                portal.activateElsewhere(id);
        }
        // Signals arrive in order: once the marker's release is in, the script's effects are too.
        portal.activate(QStringLiteral("dictate"));
        portal.deactivate(QStringLiteral("dictate"));
        expected.prepend(QStringLiteral("dictate release"));
        expected.prepend(QStringLiteral("dictate press"));
        QTRY_COMPARE(rig.callsByMode(), expected);
    }

    void aClosedSessionReleasesTheHeldKeyOnceAndIsCreatedAgain() {
        FakeShortcutsPortal portal;
        Rig rig(portalRoute());
        QTRY_COMPARE(portal.bindings().size(), 1);
        QTRY_VERIFY(rig.logged(QStringLiteral("bound the mode keys")));
        portal.activate(QStringLiteral("dictate"));
        QTRY_COMPARE(rig.calls, QStringList{QStringLiteral("dictate press")});

        portal.closeSession();
        // The old session's late release must not release a second time.
        portal.deactivate(QStringLiteral("dictate"));
        QTRY_COMPARE(portal.sessionsCreated(), 2);
        QTRY_COMPARE(portal.bindings().size(), 2);
        QCOMPARE(portal.bindings().at(1), portal.bindings().at(0));
        QTRY_COMPARE(rig.log.lines.filter(QStringLiteral("bound the mode keys")).size(), 2);
        QVERIFY(rig.logged(QStringLiteral("WARN The desktop closed Quorvane's shortcut session")));

        portal.activate(QStringLiteral("dictate"));
        portal.deactivate(QStringLiteral("dictate"));
        QTRY_COMPARE(rig.calls, (QStringList{QStringLiteral("dictate press"), QStringLiteral("dictate release"),
                                             QStringLiteral("dictate press"), QStringLiteral("dictate release")}));
    }

    void aDismissedDialogIsSaidWithTheNextStep() {
        FakeShortcutsPortal portal;
        portal.refuseBindings();
        Rig rig(portalRoute());
        QTRY_VERIFY(rig.logged(QStringLiteral("ERROR The desktop's shortcut portal was not allowed to bind")));
        QVERIFY(rig.logged(QStringLiteral("restart Quorvane from the menu and confirm the shortcuts")));
        QCOMPARE(portal.bindings().size(), 1);
    }
};

QTEST_MAIN(GlobalShortcutsDesktopTest)
#include "tst_global_shortcuts_desktop.moc"
