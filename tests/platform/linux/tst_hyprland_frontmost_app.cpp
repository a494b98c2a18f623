#include "LogRecorder.h"
#include "platform/linux/HyprlandFrontmostApp.h"

#include <QCoreApplication>
#include <QDir>
#include <QTemporaryDir>
#include <QTest>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

Q_DECLARE_METATYPE(FrontmostApp)
Q_DECLARE_METATYPE(std::optional<CompositorWindows>)

namespace {

// Hyprland's request socket as it behaves: one request per connection, read in one go, answered,
// then the connection is closed.
class StandInHyprland {
public:
    StandInHyprland(const QString &path, QList<QByteArray> replies) : m_replies(std::move(replies)) {
        QDir().mkpath(QFileInfo(path).absolutePath());
        m_listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const QByteArray name = path.toLocal8Bit();
        std::memcpy(address.sun_path, name.constData(), size_t(name.size()));
        bound = ::bind(m_listener, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
                listen(m_listener, 4) == 0;
        m_thread = std::thread([this] { serve(); });
    }
    ~StandInHyprland() {
        shutdown(m_listener, SHUT_RDWR);
        m_thread.join();
        close(m_listener);
    }

    bool bound = false;
    // What each connection asked, once the server has closed it.
    QList<QByteArray> requests;

private:
    void serve() {
        for (const QByteArray &reply : std::as_const(m_replies)) {
            const int client = accept(m_listener, nullptr, nullptr);
            if (client < 0)
                return;
            char buffer[256];
            const ssize_t got = read(client, buffer, sizeof buffer);
            requests << QByteArray(buffer, got > 0 ? int(got) : 0);
            (void)!write(client, reply.constData(), size_t(reply.size()));
            close(client);
        }
    }

    const QList<QByteArray> m_replies;
    int m_listener = -1;
    std::thread m_thread;
};

} // namespace

class HyprlandFrontmostAppTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() {
        // No installed desktop entries: the window's own class names it.
        qputenv("XDG_DATA_HOME", m_empty.path().toUtf8());
        qputenv("XDG_DATA_DIRS", m_empty.path().toUtf8());
    }

    void socketPath_data() {
        QTest::addColumn<QString>("signature");
        // Where the instance's socket exists: "runtime", "tmp" or nowhere.
        QTest::addColumn<QString>("existsIn");
        QTest::addColumn<QString>("expected");
        const QString unique = QStringLiteral("quorvane-test-%1").arg(QCoreApplication::applicationPid());
        QTest::newRow("in the runtime folder") << unique << "runtime"
                                               << "RUNTIME/hypr/SIG/.socket.sock";
        QTest::newRow("an older Hyprland's /tmp") << unique << "tmp"
                                                  << "/tmp/hypr/SIG/.socket.sock";
        QTest::newRow("not started yet: where it will be") << unique << ""
                                                           << "RUNTIME/hypr/SIG/.socket.sock";
        QTest::newRow("no signature") << ""
                                      << "runtime"
                                      << "";
        QTest::newRow("a signature leading elsewhere") << "../../etc"
                                                       << "runtime"
                                                       << "";
    }
    void socketPath() {
        QFETCH(QString, signature);
        QFETCH(QString, existsIn);
        QFETCH(QString, expected);
        QTemporaryDir runtime;
        const QString base = existsIn == QLatin1String("tmp") ? QStringLiteral("/tmp") : runtime.path();
        const QString folder = base + QStringLiteral("/hypr/") + signature;
        std::optional<StandInHyprland> server;
        if (!existsIn.isEmpty() && !signature.isEmpty())
            server.emplace(folder + QStringLiteral("/.socket.sock"), QList<QByteArray>{});
        const QString found = HyprlandFrontmostApp::socketPath(runtime.path(), signature);
        server.reset();
        if (existsIn == QLatin1String("tmp")) {
            QDir(folder).removeRecursively();
            // Only when empty: a real Hyprland's folder stays.
            QDir(QStringLiteral("/tmp")).rmdir(QStringLiteral("hypr"));
        }
        QCOMPARE(found,
                 expected.replace(QStringLiteral("RUNTIME"), runtime.path()).replace(QStringLiteral("SIG"), signature));
    }

    // Over a real socket: what is asked, and what each answer makes of the window in front.
    void frontmostApp_data() {
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<FrontmostApp>("app");
        QTest::addColumn<QString>("applicationID");
        QTest::addColumn<int>("warnings");
        QTest::newRow("native window") << QByteArray(R"({"address":"0x5a1","mapped":true,"class":"kitty",
                "title":"~/src","initialClass":"kitty","pid":4242,"xwayland":false})")
                                       << FrontmostApp{QStringLiteral("kitty"), QStringLiteral("kitty"), 4242}
                                       << "kitty" << 0;
        QTest::newRow("XWayland window") << QByteArray(R"({"class":"XTerm","title":"xterm","pid":77,
                "xwayland":true})") << FrontmostApp{QStringLiteral("XTerm"), QStringLiteral("XTerm"), 77}
                                         << "XTerm" << 0;
        QTest::newRow("no active window") << QByteArray("{}") << FrontmostApp{} << "" << 0;
        QTest::newRow("not JSON") << QByteArray("unknown request") << FrontmostApp{} << "" << 1;
        QTest::newRow("closed without a word") << QByteArray() << FrontmostApp{} << "" << 1;
    }
    void frontmostApp() {
        QFETCH(QByteArray, reply);
        QFETCH(FrontmostApp, app);
        QFETCH(QString, applicationID);
        QFETCH(int, warnings);
        QTemporaryDir runtime;
        const QString path = HyprlandFrontmostApp::socketPath(runtime.path(), QStringLiteral("sig"));
        LogRecorder log;
        {
            StandInHyprland server(path, {reply, reply});
            QVERIFY(server.bound);
            HyprlandFrontmostApp hyprland(path);
            QCOMPARE(hyprland.frontmostApp(), app);
            QCOMPARE(hyprland.focusedApplicationID(), applicationID);
        }
        // An unknown destination is said once, however often it is asked.
        QCOMPARE(log.lines.filter(QStringLiteral("WARN ")).size(), warnings);
    }

    // Over a real socket: every client by address and the active one, or nothing when a reply is
    // not what Hyprland sends.
    void windows_data() {
        QTest::addColumn<QByteArray>("clients");
        QTest::addColumn<QByteArray>("active");
        QTest::addColumn<std::optional<CompositorWindows>>("expected");
        const QByteArray two = R"([{"address":"0x5a1","class":"kitty","pid":40},
                {"address":"0x5b2","class":"lxterminal","pid":41}])";
        QTest::newRow("one of two active") << two << QByteArray(R"({"address":"0x5b2","class":"lxterminal","pid":41})")
                                           << std::optional(CompositorWindows{{"0x5a1", "0x5b2"}, "0x5b2"});
        QTest::newRow("none active") << two << QByteArray("{}")
                                     << std::optional(CompositorWindows{{"0x5a1", "0x5b2"}, ""});
        QTest::newRow("clients not a list")
            << QByteArray("unknown request") << QByteArray("{}") << std::optional<CompositorWindows>();
    }
    void windows() {
        QFETCH(QByteArray, clients);
        QFETCH(QByteArray, active);
        QTemporaryDir runtime;
        const QString path = HyprlandFrontmostApp::socketPath(runtime.path(), QStringLiteral("sig"));
        std::optional<CompositorWindows> found;
        QList<QByteArray> requests;
        {
            StandInHyprland server(path, {clients, active});
            QVERIFY(server.bound);
            found = HyprlandFrontmostApp(path).windows();
            requests = server.requests;
        }
        QTEST(found, "expected");
        QCOMPARE(requests, (QList<QByteArray>{"j/clients", "j/activewindow"}));
    }

    void asksForTheActiveWindow() {
        QTemporaryDir runtime;
        const QString path = HyprlandFrontmostApp::socketPath(runtime.path(), QStringLiteral("sig"));
        QList<QByteArray> requests;
        {
            StandInHyprland server(path, {QByteArray(R"({"version":"0.41.2"})"), QByteArray("{}")});
            QVERIFY(HyprlandFrontmostApp::answers(path));
            HyprlandFrontmostApp(path).frontmostApp();
            requests = server.requests;
        }
        QCOMPARE(requests, (QList<QByteArray>{"j/version", "j/activewindow"}));
        QVERIFY(!HyprlandFrontmostApp::answers(path));
    }

private:
    QTemporaryDir m_empty;
};

QTEST_GUILESS_MAIN(HyprlandFrontmostAppTest)
#include "tst_hyprland_frontmost_app.moc"
