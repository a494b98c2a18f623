#pragma once

#include <QString>
#include <QStringList>
#include <exception>
#include <optional>
#include <string>

// The command line of `quorvane benchmark`.
struct BenchmarkOptions {
    enum class Engine { fromSettings, whisper, native };

    // A command line we cannot act on; the message says what is wrong with it.
    class UsageError : public std::exception {
    public:
        explicit UsageError(const QString &message) : m_message(message), m_what(message.toStdString()) {}
        const QString &message() const { return m_message; }
        const char *what() const noexcept override { return m_what.c_str(); }

    private:
        QString m_message;
        std::string m_what;
    };

    QString manifestPath;
    Engine engine = Engine::fromSettings;
    std::optional<QString> endpoint;
    std::optional<QString> locale;
    std::optional<qsizetype> limit;
    qsizetype warmup = 0;
    std::optional<QString> outputDirectory;
    bool help = false;

    // Accepts "--option value" and "--option=value". Throws UsageError.
    static BenchmarkOptions parse(const QStringList &arguments);
    static QString usage();
};
