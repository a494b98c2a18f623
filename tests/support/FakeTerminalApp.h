#pragma once

#include "repository/TerminalAppHandoffLauncher.h"

#include <QFile>
#include <QStringList>

// A terminal application that "runs" the launch script as soon as its opener succeeds, by writing
// the agent's process id into the script's marker as the script's first lines would.
class FakeTerminalApp final : public TerminalApp {
public:
    qint32 agentProcessID = 0;
    // The opener's exit status; absent when it cannot be started.
    std::optional<int> openerStatus = 0;
    bool startsScript = true;
    std::optional<QString> screen = QStringLiteral("Welcome to the agent\n> ");
    bool returnPosts = true;

    QStringList opened;
    int screensRead = 0;
    int returnsPressed = 0;

    QCoro::Task<std::optional<int>> open(QString scriptPath) override {
        opened << scriptPath;
        if (openerStatus == 0 && startsScript) {
            QString marker = scriptPath;
            marker.replace(QLatin1String("/launch-"), QLatin1String("/agent-"))
                .replace(QLatin1String(".command"), QLatin1String(".pid"));
            QFile file(marker);
            if (file.open(QIODevice::WriteOnly))
                file.write(QByteArray::number(agentProcessID) + '\n');
        }
        co_return std::optional<int>(openerStatus);
    }
    std::optional<QString> focusedText() override {
        ++screensRead;
        return screen;
    }
    bool pressReturn() override {
        if (returnPosts)
            ++returnsPressed;
        return returnPosts;
    }
};
