#pragma once

#include "platform/TextInjection.h"

#include <QProcess>
#include <QStringList>

// Types text into the focused window with XTest through xdotool, for desktop tests that must not
// depend on the clipboard injector; remembers what it was asked to type.
class XdotoolTypingInjector final : public TextInjector {
public:
    QStringList typed;
    QString clipboard;

    void inject(const QString &text) override {
        typed << text;
        if (QProcess::execute(QStringLiteral("/usr/bin/xdotool"), {QStringLiteral("type"), QStringLiteral("--delay"),
                                                                   QStringLiteral("5"), QStringLiteral("--"), text}) !=
            0)
            throw QuorvaneError::injectionFailed(QStringLiteral("xdotool could not type"));
    }
    void copyToClipboard(const QString &text) override { clipboard = text; }
};
