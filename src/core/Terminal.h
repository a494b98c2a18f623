#pragma once

#include <QString>

// Lines for a user who started the app from a shell. Written only when standard error is a
// terminal: started from the desktop, nobody reads it and the log is the record.
namespace Terminal {

bool attached();
// Writes `line` and a line break to standard error when attached.
void tell(const QString &line);

} // namespace Terminal
