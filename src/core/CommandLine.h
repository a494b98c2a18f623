#pragma once

#include <QString>
#include <QStringList>

// What the executable was asked to do, decided from its arguments alone.
struct Command {
    enum class Kind { transcribe, benchmark, key, application };
    Kind kind = Kind::application;
    QString wavPath;              // transcribe
    QString locale;               // transcribe
    QStringList commandArguments; // benchmark, key: everything after the command word

    bool operator==(const Command &) const = default;

    // `arguments` includes the program name. The command words match exactly and case-sensitively;
    // "transcribe" without a path is not an error and falls through to the application.
    static Command parse(const QStringList &arguments);
};
