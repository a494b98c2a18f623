#include "QuorvaneProcess.h"

#include "speech/WavEncoder.h"

#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QTimer>
#include <cmath>
#include <vector>

QuorvaneRun runQuorvane(const QString &home, const QStringList &arguments, const QHash<QString, QString> &environment,
                        int timeoutMs) {
    QProcess process;
    QProcessEnvironment variables = QProcessEnvironment::systemEnvironment();
    variables.insert(QStringLiteral("QUORVANE_HOME"), home);
    for (auto it = environment.cbegin(); it != environment.cend(); ++it) {
        if (it.value().isEmpty())
            variables.remove(it.key());
        else
            variables.insert(it.key(), it.value());
    }
    process.setProcessEnvironment(variables);
    QEventLoop loop;
    QObject::connect(&process, &QProcess::finished, &loop, &QEventLoop::quit);
    QObject::connect(&process, &QProcess::errorOccurred, &loop, &QEventLoop::quit);
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    process.start(QStringLiteral(QUORVANE_BINARY), arguments);
    loop.exec();
    QuorvaneRun run;
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished();
        return run;
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

void writeToneWav(const QString &path, double seconds, double rate) {
    std::vector<float> samples(static_cast<std::size_t>(std::lround(seconds * rate)));
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = 0.2f * static_cast<float>(std::sin(static_cast<double>(i) * 0.05));
    writeFileBytes(path, WavEncoder::encode(samples, rate));
}

void writeFileBytes(const QString &path, const QByteArray &bytes) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        qFatal("cannot write %s", qPrintable(path));
    file.write(bytes);
}

QByteArray readFileBytes(const QString &path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
