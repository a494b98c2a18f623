#include "core/AppInfo.h"

namespace AppInfo {

QString version() {
    return versionFrom(QStringLiteral(QUORVANE_VERSION));
}

} // namespace AppInfo
