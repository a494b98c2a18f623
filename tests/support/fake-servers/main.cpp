// quorvane_fake_servers: the test whisper.cpp and Ollama servers as a process of their own, for
// scripts that run the real app. Prints "whisper <url>" and "ollama <url>" once both listen, then
// serves until stdin closes. Whisper hears `text`, and Ollama echoes it back as its rewrite, so the
// guard accepts it.
//   quorvane_fake_servers [text]
#include "FakeOllamaServer.h"
#include "FakeWhisperServer.h"

#include <QCoreApplication>
#include <QSocketNotifier>
#include <cstdio>
#include <unistd.h>

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    const QString text = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("Hello world.");
    FakeWhisperServer whisper;
    whisper.setDefaultInference(FakeWhisperServer::transcript(QLatin1Char(' ') + text + QLatin1Char('\n')));
    FakeOllamaServer ollama;
    ollama.setDefaultGenerate(FakeOllamaServer::generation(text));
    std::printf("whisper %s\nollama %s\n", qPrintable(whisper.url().toString()), qPrintable(ollama.url().toString()));
    std::fflush(stdout);

    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &app, [&app] {
        char buffer[256];
        if (::read(STDIN_FILENO, buffer, sizeof buffer) <= 0)
            app.quit();
    });
    return app.exec();
}
