#include "core/Terminal.h"

#include <cstdio>
#include <unistd.h>

namespace Terminal {

bool attached() {
    static const bool value = isatty(STDERR_FILENO) == 1;
    return value;
}

void tell(const QString &line) {
    if (!attached())
        return;
    std::fputs((line + QLatin1Char('\n')).toLocal8Bit().constData(), stderr);
    std::fflush(stderr);
}

} // namespace Terminal
