#include "core/CommandLine.h"

Command Command::parse(const QStringList &arguments) {
    Command command;
    if (arguments.size() >= 3 && arguments.at(1) == QLatin1String("transcribe")) {
        command.kind = Kind::transcribe;
        command.wavPath = arguments.at(2);
        command.locale = arguments.size() >= 4 ? arguments.at(3) : QStringLiteral("en-US");
    } else if (arguments.size() >= 2 && arguments.at(1) == QLatin1String("benchmark")) {
        command.kind = Kind::benchmark;
        command.commandArguments = arguments.mid(2);
    } else if (arguments.size() >= 2 && arguments.at(1) == QLatin1String("key")) {
        command.kind = Kind::key;
        command.commandArguments = arguments.mid(2);
    }
    return command;
}
