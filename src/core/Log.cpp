#include "core/Log.h"

#include "core/Paths.h"
#include "core/RotatingLogWriter.h"
#include "core/SerialQueue.h"

#include <QRegularExpression>
#include <memory>
#include <mutex>

namespace Log {

namespace {

struct State {
    SerialQueue queue{QStringLiteral("quorvane.log")};
    std::unique_ptr<RotatingLogWriter> writer;
    std::mutex observerMutex;
    std::function<void(const QString &, const QString &)> observer;
};

State &state() {
    // Never destroyed: lines logged during static destruction must not hit a dead queue.
    static State *instance = new State;
    return *instance;
}

} // namespace

QString formatLine(const QTime &time, const QString &level, const QString &message) {
    static const QRegularExpression lineBreaks(QStringLiteral("\\s*\\R+\\s*"),
                                               QRegularExpression::UseUnicodePropertiesOption);
    QString folded = message;
    folded.replace(lineBreaks, QStringLiteral(" "));
    return time.toString(QStringLiteral("HH:mm:ss.zzz")) + QStringLiteral(" [") + level + QStringLiteral("] ") +
           folded + QLatin1Char('\n');
}

void write(const QString &level, const QString &message) {
    const QString line = formatLine(QTime::currentTime(), level, message);
    State &s = state();
    {
        std::lock_guard lock(s.observerMutex);
        if (s.observer)
            s.observer(level, line.mid(line.indexOf(QStringLiteral("] ")) + 2).chopped(1));
    }
    s.queue.async([line] {
        State &st = state();
        if (!st.writer)
            st.writer = std::make_unique<RotatingLogWriter>(Paths::file(QStringLiteral("quorvane.log")), 2097152, 2);
        st.writer->append(line.toUtf8());
    });
}

void flush() {
    state().queue.drain();
}

void setObserver(std::function<void(const QString &level, const QString &message)> observer) {
    State &s = state();
    std::lock_guard lock(s.observerMutex);
    s.observer = std::move(observer);
}

} // namespace Log
