#pragma once

#include <QString>
#include <optional>

namespace AppInfo {

// "v" + the bundle's short version (macOS) or the build's project version (Linux). Defined by the
// platform library.
QString version();
// "v" + `shortVersion`, or "v0.1.0" when there is none.
QString versionFrom(const std::optional<QString> &shortVersion);

} // namespace AppInfo
