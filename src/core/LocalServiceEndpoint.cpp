#include "core/LocalServiceEndpoint.h"

#include <cstdlib>

namespace LocalServiceEndpoint {

bool isAllowed(const QUrl &url) {
    if (!url.isValid())
        return false;
    const QString scheme = url.scheme().toLower();
    // No TLS client: an https endpoint could never be reached.
    if (scheme != QLatin1String("http"))
        return false;
    if (!url.userName().isEmpty() || !url.password().isEmpty())
        return false;
    const QString host = url.host().toLower();
    return host == QLatin1String("localhost") || host == QLatin1String("127.0.0.1") || host == QLatin1String("::1");
}

QUrl resolve(const QString &value, const QString &fallback) {
    const QUrl url(value, QUrl::StrictMode);
    if (url.isValid() && !url.isRelative() && isAllowed(url))
        return url;
    const QUrl defaultUrl(fallback, QUrl::StrictMode);
    if (!defaultUrl.isValid() || defaultUrl.isRelative())
        std::abort(); // a fallback is always one of our own constants
    return defaultUrl;
}

} // namespace LocalServiceEndpoint
