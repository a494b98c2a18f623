#pragma once

#include <QString>
#include <QUrl>

// Local services (speech and model servers) are only ever reached on the loopback interface.
namespace LocalServiceEndpoint {

// http, no credentials, host exactly localhost, 127.0.0.1 or ::1.
bool isAllowed(const QUrl &url);
// `value` when it parses and is allowed, else `fallback` (which must parse).
QUrl resolve(const QString &value, const QString &fallback);

} // namespace LocalServiceEndpoint
