#pragma once

#include "core/EnumNames.h"

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>
#include <optional>

enum class PushToTalkKey { rightOption, rightCommand, fn };
enum class AsrKind { appleSpeech, whisperServer };
enum class FormatterKind { appleFoundation, ollama, none };
enum class PromptDestination { focusedApp, codex, claude };

// Each is stored as its case name and shown under its display name, cases in menu order.
std::span<const NamedCase<PushToTalkKey>> namedCases(PushToTalkKey);
std::span<const NamedCase<AsrKind>> namedCases(AsrKind);
std::span<const NamedCase<FormatterKind>> namedCases(FormatterKind);
std::span<const NamedCase<PromptDestination>> namedCases(PromptDestination);

struct AppRule {
    QString bundleIDPrefix;
    QString styleInstruction;
    bool operator==(const AppRule &) const = default;

    // The style of the rule with the longest prefix of `bundleID`, if any.
    static std::optional<QString> styleFor(const QList<AppRule> &rules, const std::optional<QString> &bundleID);
};

struct SpeechLocaleChoice {
    QString identifier;
    QString displayName;
    static const QList<SpeechLocaleChoice> &all();
};

struct RecordingLimitChoice {
    qint64 seconds;
    QString displayName;
    static const QList<RecordingLimitChoice> &all();
};

// Every user setting. Decoding never fails key by key: a bad or missing key takes its default.
struct Config {
    // Limits a loaded value is clamped to; the formatter's is also the ceiling of its whole budget.
    static constexpr qint64 minFormatterTimeoutMS = 250;
    static constexpr qint64 defaultFormatterTimeoutMS = 2500;
    static constexpr qint64 maxFormatterTimeoutMS = 15000;
    static constexpr qint64 minRecordingSeconds = 60;
    static constexpr qint64 defaultRecordingSeconds = 180;
    static constexpr qint64 maxRecordingSeconds = 300;

    PushToTalkKey pushToTalkKey = PushToTalkKey::rightOption;
    PushToTalkKey editKey = PushToTalkKey::rightCommand;
    PushToTalkKey promptKey = PushToTalkKey::fn;
    bool repositoryContextEnabled = true;
    std::optional<QString> pinnedRepositoryPath;
    PromptDestination promptDestination = PromptDestination::focusedApp;
    AsrKind asr = AsrKind::appleSpeech;
    FormatterKind formatter = FormatterKind::appleFoundation;
    QString ollamaModel = QStringLiteral("qwen3.5:latest");
    QString ollamaEndpoint = defaultOllamaEndpoint();
    QString whisperEndpoint = defaultWhisperEndpoint();
    QString locale = QStringLiteral("en-US");
    bool voiceProcessingEnabled = true;
    std::optional<QStringList> captureCommand;
    qint64 formatterTimeoutMS = defaultFormatterTimeoutMS;
    qint64 maximumRecordingSeconds = defaultRecordingSeconds;
    double guardMinContentRetention = 0.6;
    double guardMaxLengthRatio = 2.5;
    qint64 guardMinWordsForLLM = 2;
    bool retainAudio = false;
    bool retainHistory = false;
    bool learnVocabulary = true;
    bool playSounds = true;
    bool showOverlay = true;
    bool didCompleteOnboarding = false;
    bool launchAtLogin = false;
    QList<AppRule> appRules = defaultAppRules();

    bool operator==(const Config &) const = default;

    static QString defaultOllamaEndpoint() { return QStringLiteral("http://127.0.0.1:11434"); }
    static QString defaultWhisperEndpoint() { return QStringLiteral("http://127.0.0.1:8080"); }
    static QList<AppRule> defaultAppRules();

    // Fails (nullopt) only when `json` is not an object; everything inside is repaired.
    static std::optional<Config> decode(const QByteArray &json);
    static Config fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    // Pretty-printed with keys sorted; absent optional keys are omitted.
    QByteArray encode() const;

    // Never fails: a missing file is created with the defaults; an unreadable one is set aside as
    // "config.invalid.json" and replaced by the defaults.
    static Config load(const QString &path);
    // Atomic, owner-only; failures leave the file as it was.
    void save(const QString &path) const;

    std::optional<QString> styleInstruction(const std::optional<QString> &bundleID) const;
    qint64 formatterTimeoutCeiling(qint64 base) const;
};
