#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QVariantList>
#include <QVariantMap>
#include <functional>

class QDBusPendingCallWatcher;

// The desktop portal's way of answering: a method call returns at once with the path of a Request
// object, and the real answer comes later as that object's Response signal, often after the user
// has answered a dialog. The path is predictable from our bus name and a token we choose, so the
// signal is subscribed to before the call goes out and cannot be missed.
//
// One instance is one call. Destroying it before the answer closes the request on the portal and
// no callback is made.
class PortalRequest final : public QObject {
    Q_OBJECT

public:
    struct Outcome {
        enum class Kind { success, cancelled, failed };
        Kind kind = Kind::failed;
        QVariantMap results;
        // For a failed call, a lower-case fragment saying why.
        QString problem;
    };
    using Finished = std::function<void(const Outcome &)>;

    static inline const QString service = QStringLiteral("org.freedesktop.portal.Desktop");
    static inline const QString objectPath = QStringLiteral("/org/freedesktop/portal/desktop");

    explicit PortalRequest(QDBusConnection bus, QObject *parent = nullptr);
    ~PortalRequest() override;
    PortalRequest(const PortalRequest &) = delete;
    PortalRequest &operator=(const PortalRequest &) = delete;

    // A token no other request or session of this process has used: letters, digits and '_'.
    static QString newToken();
    // Where the portal puts the object for `token` of a caller on `bus`: "request" or "session".
    static QString handlePath(const QDBusConnection &bus, const QString &kind, const QString &token);

    // Calls `method` of `interface` on the portal. The last of `arguments` is the options map; the
    // handle token is added to it. `finished` is called once, on this object's thread.
    void call(const QString &interface, const QString &method, QVariantList arguments, Finished finished);

private Q_SLOTS:
    void onResponse(uint response, const QVariantMap &results);

private:
    void subscribe(const QString &path);
    void unsubscribe();
    void replied(QDBusPendingCallWatcher *watcher);
    void finish(const Outcome &outcome);

    QDBusConnection m_bus;
    QString m_path;
    Finished m_finished;
};
