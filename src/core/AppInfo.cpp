#include "core/AppInfo.h"

namespace AppInfo {

QString versionFrom(const std::optional<QString> &shortVersion) {
    return QStringLiteral("v") + shortVersion.value_or(QStringLiteral("0.1.0"));
}

} // namespace AppInfo
