#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QList>
#include <QPair>
#include <QString>
#include <QThread>
#include <mutex>

// A desktop portal on the session bus, on a connection and thread of its own (so a blocking call
// from the test's thread is still answered), offering GlobalShortcuts as the portal documents it:
// CreateSession and BindShortcuts answer through their Request object's Response signal, and the
// test makes the desktop's side happen (a shortcut pressed and let go, the session closed).
class FakeShortcutsPortal final {
public:
    enum class Offers { globalShortcuts, otherPortalsOnly };
    using Shortcut = QPair<QString, QString>; // id, preferred trigger

    explicit FakeShortcutsPortal(Offers offers = Offers::globalShortcuts);
    ~FakeShortcutsPortal();
    FakeShortcutsPortal(const FakeShortcutsPortal &) = delete;
    FakeShortcutsPortal &operator=(const FakeShortcutsPortal &) = delete;

    // Whether it owns the portal's name on the bus.
    bool isServing() const { return m_serving; }

    int sessionsCreated() const;
    // Every BindShortcuts so far, in order.
    QList<QList<Shortcut>> bindings() const;
    // The user dismisses the desktop's dialog from now on.
    void refuseBindings();

    // The desktop's side, for the newest session.
    void activate(const QString &id);
    void deactivate(const QString &id);
    void closeSession();
    // A signal of a session that is not ours, as another client on the bus would get.
    void activateElsewhere(const QString &id);

    // Called on the portal's thread for every call to it.
    bool handle(const QDBusMessage &message, const QDBusConnection &connection);

private:
    class Handler;

    void respond(const QDBusConnection &connection, const QString &requestPath, uint response,
                 const QVariantMap &results);
    void shortcutSignal(const QString &member, const QString &sessionPath, const QString &id);
    QString newestSession() const;

    const Offers m_offers;
    QThread m_thread;
    QDBusConnection m_bus;
    Handler *m_handler = nullptr;
    bool m_serving = false;

    mutable std::mutex m_lock;
    QStringList m_sessions;
    QList<QList<Shortcut>> m_bindings;
    bool m_refuse = false;
};
