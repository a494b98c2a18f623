#pragma once

#include "FakePortal.h"

#include <QList>
#include <QPair>
#include <mutex>

// A desktop portal offering GlobalShortcuts as the portal documents it:
// CreateSession and BindShortcuts answer through their Request object's Response signal, and the
// test makes the desktop's side happen (a shortcut pressed and let go, the session closed).
class FakeShortcutsPortal final : public FakePortal {
public:
    enum class Offers { globalShortcuts, otherPortalsOnly };
    using Shortcut = QPair<QString, QString>; // id, preferred trigger

    explicit FakeShortcutsPortal(Offers offers = Offers::globalShortcuts);
    ~FakeShortcutsPortal();

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

    bool handle(const QDBusMessage &message, const QDBusConnection &connection) override;

private:
    void shortcutSignal(const QString &member, const QString &sessionPath, const QString &id);
    QString newestSession() const;

    const Offers m_offers;

    mutable std::mutex m_lock;
    QStringList m_sessions;
    QList<QList<Shortcut>> m_bindings;
    bool m_refuse = false;
};
