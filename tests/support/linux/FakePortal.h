#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QString>
#include <QThread>
#include <QVariantMap>

// The part every fake desktop portal shares: the portal's name on the session bus, served from a
// connection and thread of its own (so a blocking call from the test's thread is still answered),
// and the Request and Session objects its methods hand out.
class FakePortal {
public:
    static const QString root;

    FakePortal(const FakePortal &) = delete;
    FakePortal &operator=(const FakePortal &) = delete;

    // Whether it owns the portal's name on the bus.
    bool isServing() const { return m_serving; }

    // Called on the portal's thread for every call to it.
    virtual bool handle(const QDBusMessage &message, const QDBusConnection &connection) = 0;

protected:
    explicit FakePortal(const QString &connectionName);
    virtual ~FakePortal();
    // Derived classes start serving once built and stop before they are torn down.
    void serve();
    void stopServing();

    // Where the portal puts a caller's request or session: ":1.42" and "t" give ".../1_42/t".
    static QString handlePath(const QString &sender, const QString &kind, const QString &token);
    // A virtual object sees nested arguments undecoded.
    static QVariantMap mapOf(const QVariant &value);
    // The Request object's Response signal: 0 success, 1 the user dismissed the dialog.
    static void respond(const QDBusConnection &connection, const QString &requestPath, uint response,
                        const QVariantMap &results);
    void sessionClosed(const QString &sessionPath);

    QDBusConnection m_bus;

private:
    class Handler;

    const QString m_connectionName;
    QThread m_thread;
    Handler *m_handler = nullptr;
    bool m_serving = false;
};
