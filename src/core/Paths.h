#pragma once

#include <QString>

// The data directory and the owner-only protection of what we write there.
namespace Paths {

// The data directory, created and protected on first use. QUORVANE_HOME overrides the location.
QString root();
// root() + "/" + name.
QString file(const QString &name);

// Creates and protects `directory`, moving `legacyDirectory` (an earlier release's folder) into its
// place first when only the legacy one exists. Failures are ignored. Exposed for tests; root() uses it.
void prepare(const QString &directory, const QString &legacyDirectory);

// Owner read/write only (600); failures are ignored.
void protectFile(const QString &path);
// Owner read/write/search only (700); failures are ignored.
void protectDirectory(const QString &path);
// Creates the directory with its parents and protects it (700). Returns whether it exists afterwards.
bool makeProtectedDirectory(const QString &path);

} // namespace Paths
