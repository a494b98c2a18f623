#include "LogRecorder.h"
#include "platform/linux/SwayFrontmostApp.h"

#include <QJsonDocument>
#include <QTest>

using Window = SwayFrontmostApp::Window;

Q_DECLARE_METATYPE(std::optional<SwayFrontmostApp::Window>)

namespace {

Window window(const QString &appID, const QString &wmClass, std::optional<qint32> pid) {
    Window w;
    w.identity.applicationID = appID;
    w.identity.wmClass = wmClass;
    w.identity.wmInstance = wmClass.toLower();
    w.processID = pid;
    return w;
}

// Shaped like sway's get_tree: outputs hold workspaces, which hold tiled and floating windows.
QByteArray tree(const QByteArray &tiled, const QByteArray &floating = "[]") {
    return R"({"type":"root","focused":false,"nodes":[
        {"type":"output","name":"__i3","focused":false,"nodes":[],"floating_nodes":[]},
        {"type":"output","name":"HEADLESS-1","focused":false,"nodes":[
            {"type":"workspace","name":"1","focused":false,"nodes":)" +
           tiled + R"(,"floating_nodes":)" + floating + "}]}]}";
}

} // namespace

class SwayFrontmostAppTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void focusedWindow_data() {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<std::optional<Window>>("expected");
        const QByteArray foot = R"({"type":"con","focused":false,"app_id":"foot","pid":40,"nodes":[]})";
        QTest::newRow("tiled, beside an unfocused one")
            << tree("[" + foot + R"(,{"type":"con","focused":true,"app_id":"org.gnome.gedit","pid":41,"nodes":[]}])")
            << std::optional(window("org.gnome.gedit", "", 41));
        QTest::newRow("nested in a split container")
            << tree(R"([{"type":"con","focused":false,"nodes":[)" + foot +
                    R"(,{"type":"con","focused":true,"app_id":"kitty","pid":42,"nodes":[]}]}])")
            << std::optional(window("kitty", "", 42));
        QTest::newRow("floating") << tree("[" + foot + "]", R"([{"type":"floating_con","focused":true,
                "app_id":"pavucontrol","pid":43,"nodes":[]}])")
                                  << std::optional(window("pavucontrol", "", 43));
        QTest::newRow("XWayland window: class instead of app_id")
            << tree(R"([{"type":"con","focused":true,"app_id":null,"pid":44,"shell":"xwayland",
                "window_properties":{"class":"XTerm","instance":"xterm"},"nodes":[]}])")
            << std::optional(window("", "XTerm", 44));
        // An empty workspace holds the focus itself: no application is in front.
        QTest::newRow("empty workspace focused")
            << QByteArray(R"({"type":"root","focused":false,"nodes":[{"type":"workspace","focused":true,"nodes":[]}]})")
            << std::optional<Window>();
        QTest::newRow("nothing focused") << tree("[" + foot + "]") << std::optional<Window>();
    }
    void focusedWindow() {
        QFETCH(QByteArray, json);
        QFETCH(std::optional<Window>, expected);
        const QJsonDocument document = QJsonDocument::fromJson(json);
        QVERIFY(document.isObject());
        QCOMPARE(SwayFrontmostApp::focusedWindow(document.object()), expected);
    }

    // Only client windows count, wherever they sit, so that a new window is told from a container.
    void windows_data() {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QStringList>("all");
        QTest::addColumn<QString>("focused");
        const QByteArray foot = R"({"type":"con","id":7,"focused":false,"app_id":"foot","pid":40,"nodes":[]})";
        QTest::newRow("tiled in a split, beside a floating one")
            << tree(R"([{"type":"con","id":5,"focused":false,"nodes":[)" + foot +
                        R"(,{"type":"con","id":8,"focused":true,"app_id":"kitty","pid":42,"nodes":[]}]}])",
                    R"([{"type":"floating_con","id":9,"focused":false,"app_id":"mpv","pid":43,"nodes":[]}])")
            << QStringList{"7", "8", "9"} << "8";
        QTest::newRow("an empty workspace focused") << QByteArray(R"({"type":"root","id":1,"focused":false,"nodes":[
                {"type":"workspace","id":3,"focused":true,"nodes":[)" +
                                                                  foot + "]}]}")
                                                    << QStringList{"7"} << "";
    }
    void windows() {
        QFETCH(QByteArray, json);
        const QJsonDocument document = QJsonDocument::fromJson(json);
        QVERIFY(document.isObject());
        const CompositorWindows windows = SwayFrontmostApp::windows(document.object());
        QTEST(windows.all, "all");
        QTEST(windows.focused, "focused");
    }

    // No compositor: the destination is unknown, and said once however often it is asked.
    void noSocketIsSaidOnce() {
        LogRecorder log;
        SwayFrontmostApp app(QStringLiteral("/nonexistent/sway-ipc.sock"));
        QCOMPARE(app.frontmostApp(), FrontmostApp());
        QCOMPARE(app.focusedApplicationID(), QString());
        QCOMPARE(log.lines.size(), 1);
        QVERIFY2(log.lines.constFirst().startsWith(QLatin1String("WARN ")), qPrintable(log.lines.constFirst()));
    }
};

QTEST_GUILESS_MAIN(SwayFrontmostAppTest)
#include "tst_sway_frontmost_app.moc"
