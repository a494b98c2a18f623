#pragma once

#include "repository/HandoffTerminal.h"

#include <QFile>
#include <QStringList>

// A terminal that "runs" the launch script as soon as it opens, by writing the agent's process id
// into the script's marker as the script's first lines would.
class FakeHandoffTerminal final : public HandoffTerminal {
public:
    qint32 agentProcessID = 0;
    TerminalOpening::Outcome outcome = TerminalOpening::Outcome::opened;
    bool startsScript = true;
    // The terminal ends in failure after opening, while the agent is awaited.
    bool failsLater = false;
    // What each read shows, in turn; the last one stays.
    QList<std::optional<QString>> screens{QStringLiteral("Welcome to the agent\n> ")};
    bool returnPosts = true;
    bool windowInFrontIsNew = true;

    QStringList opened;
    QList<qint32> screensRead; // the terminal process asked for
    int returnsPressed = 0;

    QCoro::Task<TerminalOpening> open(QString scriptPath) override {
        opened << scriptPath;
        if (outcome == TerminalOpening::Outcome::opened && startsScript) {
            QString marker = scriptPath;
            marker.replace(QLatin1String("/launch-"), QLatin1String("/agent-"))
                .replace(QLatin1String(".command"), QLatin1String(".pid"));
            QFile file(marker);
            if (file.open(QIODevice::WriteOnly))
                file.write(QByteArray::number(agentProcessID) + '\n');
        }
        TerminalOpening opening;
        opening.outcome = outcome;
        if (failsLater)
            opening.failedSince = [] { return true; };
        co_return opening;
    }
    bool agentWindowInFront(const FrontmostApp &) override { return windowInFrontIsNew; }
    std::optional<QString> screenText(qint32 terminalProcessID) override {
        screensRead << terminalProcessID;
        return screens.size() > 1 ? screens.takeFirst() : screens.first();
    }
    bool pressReturn() override {
        if (returnPosts)
            ++returnsPressed;
        return returnPosts;
    }
};
