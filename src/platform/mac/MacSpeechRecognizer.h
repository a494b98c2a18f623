#pragma once

#include "speech/OnDeviceSpeechRecognizer.h"

// The Speech framework through SpeechBridge.swift: SpeechAnalyzer on macOS 26, else
// SFSpeechRecognizer held to on-device recognition.
class MacSpeechRecognizer final : public OnDeviceSpeechRecognizer {
public:
    Technology technology() const override;
    Permission permission() const override;
    void requestPermission(std::function<void(bool granted)> done) override;
    void localeSupport(const QString &locale, std::function<void(LocaleSupport)> done) override;
    std::function<double()> install(const QString &locale, std::function<void(QString error)> done) override;
    std::shared_ptr<Session> start(const QString &locale, const QStringList &contextualStrings,
                                   std::function<void(QString segment)> onSegment) override;
};
