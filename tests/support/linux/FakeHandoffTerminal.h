#pragma once

#include "core/QuorvaneError.h"
#include "platform/linux/LinuxAgentHandoffLauncher.h"

#include <QFile>
#include <QStringList>

// A terminal that "runs" the launch script at once by writing the agent's process id into the
// script's marker, as the script's first lines would.
class FakeHandoffTerminal final : public HandoffTerminal {
public:
    qint32 agentProcessID = 0;
    bool opens = true;
    bool startsScript = true;
    bool rejects = false;
    // What each read shows, in turn; the last one stays.
    QList<std::optional<QString>> screens{QStringLiteral("Welcome to the agent\n> ")};
    bool returnPosts = true;
    bool windowInFrontIsNew = true;

    QStringList opened;        // the folder and script of each window
    QList<qint32> screensRead; // the terminal process asked for
    int returnsPressed = 0;

    std::function<bool()> open(const QString &folder, const QString &script) override {
        if (!opens)
            throw QuorvaneError::agentHandoffFailed(QStringLiteral("Terminal could not be opened"));
        opened << folder + QLatin1Char('/') + script;
        if (startsScript) {
            QString marker = script;
            marker.replace(QLatin1String("launch-"), QLatin1String("agent-"))
                .replace(QLatin1String(".command"), QLatin1String(".pid"));
            QFile file(folder + QLatin1Char('/') + marker);
            if (file.open(QIODevice::WriteOnly))
                file.write(QByteArray::number(agentProcessID) + '\n');
        }
        const bool rejected = rejects;
        return [rejected] { return rejected; };
    }
    bool newWindowInFront() override { return windowInFrontIsNew; }
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
