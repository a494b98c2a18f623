#include "core/Config.h"

#include "core/LocalServiceEndpoint.h"
#include "core/Log.h"
#include "core/Paths.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>
#include <cmath>
#include <limits>

namespace {

template <typename E> struct EnumCase {
    E value;
    const char *raw;
    const char *display;
};

const EnumCase<PushToTalkKey> pushToTalkKeys[] = {
    {PushToTalkKey::rightOption, "rightOption", "Right Option (\u2325)"},
    {PushToTalkKey::rightCommand, "rightCommand", "Right Command (\u2318)"},
    {PushToTalkKey::fn, "fn", "Fn / Globe"},
};
const EnumCase<AsrKind> asrKinds[] = {
    {AsrKind::appleSpeech, "appleSpeech", "On-device speech recognition"},
    {AsrKind::whisperServer, "whisperServer", "whisper.cpp server"},
};
const EnumCase<FormatterKind> formatterKinds[] = {
    {FormatterKind::appleFoundation, "appleFoundation", "On-device language model"},
    {FormatterKind::ollama, "ollama", "Ollama"},
    {FormatterKind::none, "none", "No formatting"},
};
const EnumCase<PromptDestination> promptDestinations[] = {
    {PromptDestination::focusedApp, "focusedApp", "Focused app"},
    {PromptDestination::codex, "codex", "Codex"},
    {PromptDestination::claude, "claude", "Claude Code"},
};

template <typename E> const auto &table();
template <> const auto &table<PushToTalkKey>() {
    return pushToTalkKeys;
}
template <> const auto &table<AsrKind>() {
    return asrKinds;
}
template <> const auto &table<FormatterKind>() {
    return formatterKinds;
}
template <> const auto &table<PromptDestination>() {
    return promptDestinations;
}

template <typename E> const EnumCase<E> &entry(E value) {
    for (const auto &candidate : table<E>())
        if (candidate.value == value)
            return candidate;
    return table<E>()[0];
}

// Each reader yields nullopt for a missing, null or mistyped value, which then takes its default.
std::optional<bool> readBool(const QJsonObject &object, const char *key) {
    const QJsonValue value = object.value(QLatin1String(key));
    return value.isBool() ? std::optional<bool>(value.toBool()) : std::nullopt;
}

std::optional<QString> readString(const QJsonObject &object, const char *key);

// A local endpoint, or the default. https is refused here, with its reason, rather than later by a
// client that could only report the server as missing.
QString readEndpoint(const QJsonObject &object, const char *key, const QString &fallback) {
    const QString value = readString(object, key).value_or(fallback);
    const QUrl url(value, QUrl::StrictMode);
    if (url.scheme().compare(QLatin1String("https"), Qt::CaseInsensitive) == 0) {
        Log::warn(QStringLiteral("Settings: %1 %2 is not used because local servers are reached over plain http "
                                 "only; using %3.")
                      .arg(QLatin1String(key), value, fallback));
        return fallback;
    }
    return LocalServiceEndpoint::resolve(value, fallback).toString();
}

std::optional<QString> readString(const QJsonObject &object, const char *key) {
    const QJsonValue value = object.value(QLatin1String(key));
    return value.isString() ? std::optional<QString>(value.toString()) : std::nullopt;
}

std::optional<double> readDouble(const QJsonObject &object, const char *key) {
    const QJsonValue value = object.value(QLatin1String(key));
    return value.isDouble() ? std::optional<double>(value.toDouble()) : std::nullopt;
}

std::optional<qint64> readInteger(const QJsonObject &object, const char *key) {
    const QJsonValue value = object.value(QLatin1String(key));
    if (!value.isDouble())
        return std::nullopt;
    const double number = value.toDouble();
    // A fractional or out-of-range number is not an integer.
    if (!std::isfinite(number) || std::trunc(number) != number || number < -9.2233720368547758e18 ||
        number >= 9.2233720368547758e18)
        return std::nullopt;
    return value.toInteger(static_cast<qint64>(number));
}

template <typename E> std::optional<E> readEnum(const QJsonObject &object, const char *key) {
    const auto raw = readString(object, key);
    return raw ? fromRawValue<E>(*raw) : std::nullopt;
}

std::optional<QStringList> readStringList(const QJsonObject &object, const char *key) {
    const QJsonValue value = object.value(QLatin1String(key));
    if (!value.isArray())
        return std::nullopt;
    QStringList list;
    for (const QJsonValue &element : value.toArray()) {
        if (!element.isString())
            return std::nullopt;
        list.append(element.toString());
    }
    return list;
}

std::optional<QList<AppRule>> readAppRules(const QJsonObject &object) {
    const QJsonValue value = object.value(QLatin1String("appRules"));
    if (!value.isArray())
        return std::nullopt;
    QList<AppRule> rules;
    for (const QJsonValue &element : value.toArray()) {
        if (!element.isObject())
            return std::nullopt;
        const auto prefix = readString(element.toObject(), "bundleIDPrefix");
        const auto style = readString(element.toObject(), "styleInstruction");
        if (!prefix || !style)
            return std::nullopt;
        rules.append({*prefix, *style});
    }
    return rules;
}

PushToTalkKey firstFreeKey(std::initializer_list<PushToTalkKey> taken) {
    for (PushToTalkKey key : allCases<PushToTalkKey>())
        if (std::find(taken.begin(), taken.end(), key) == taken.end())
            return key;
    return PushToTalkKey::fn;
}

} // namespace

QString rawValue(PushToTalkKey value) {
    return QString::fromUtf8(entry(value).raw);
}
QString rawValue(AsrKind value) {
    return QString::fromUtf8(entry(value).raw);
}
QString rawValue(FormatterKind value) {
    return QString::fromUtf8(entry(value).raw);
}
QString rawValue(PromptDestination value) {
    return QString::fromUtf8(entry(value).raw);
}
QString displayName(PushToTalkKey value) {
    return QString::fromUtf8(entry(value).display);
}
QString displayName(AsrKind value) {
    return QString::fromUtf8(entry(value).display);
}
QString displayName(FormatterKind value) {
    return QString::fromUtf8(entry(value).display);
}
QString displayName(PromptDestination value) {
    return QString::fromUtf8(entry(value).display);
}

template <typename E> std::optional<E> fromRawValue(const QString &raw) {
    for (const auto &candidate : table<E>())
        if (raw == QLatin1String(candidate.raw))
            return candidate.value;
    return std::nullopt;
}

template <typename E> QList<E> allCases() {
    QList<E> cases;
    for (const auto &candidate : table<E>())
        cases.append(candidate.value);
    return cases;
}

template std::optional<PushToTalkKey> fromRawValue<PushToTalkKey>(const QString &);
template std::optional<AsrKind> fromRawValue<AsrKind>(const QString &);
template std::optional<FormatterKind> fromRawValue<FormatterKind>(const QString &);
template std::optional<PromptDestination> fromRawValue<PromptDestination>(const QString &);
template QList<PushToTalkKey> allCases<PushToTalkKey>();
template QList<AsrKind> allCases<AsrKind>();
template QList<FormatterKind> allCases<FormatterKind>();
template QList<PromptDestination> allCases<PromptDestination>();

const QList<SpeechLocaleChoice> &SpeechLocaleChoice::all() {
    static const QList<SpeechLocaleChoice> choices = {
        {QStringLiteral("en-US"), QStringLiteral("English \u2014 United States")},
        {QStringLiteral("en-IN"), QStringLiteral("English \u2014 India")},
        {QStringLiteral("en-GB"), QStringLiteral("English \u2014 United Kingdom")},
        {QStringLiteral("en-AU"), QStringLiteral("English \u2014 Australia")},
        {QStringLiteral("en-CA"), QStringLiteral("English \u2014 Canada")},
        {QStringLiteral("en-IE"), QStringLiteral("English \u2014 Ireland")},
        {QStringLiteral("en-NZ"), QStringLiteral("English \u2014 New Zealand")},
        {QStringLiteral("en-SG"), QStringLiteral("English \u2014 Singapore")},
        {QStringLiteral("en-ZA"), QStringLiteral("English \u2014 South Africa")},
    };
    return choices;
}

const QList<RecordingLimitChoice> &RecordingLimitChoice::all() {
    static const QList<RecordingLimitChoice> choices = {
        {60, QStringLiteral("1 minute")},
        {180, QStringLiteral("3 minutes")},
        {300, QStringLiteral("5 minutes")},
    };
    return choices;
}

QList<AppRule> Config::defaultAppRules() {
    const QString terminal = QStringLiteral("Technical tone. Preserve commands, flags and paths exactly as spoken.");
    return {
        {QStringLiteral("com.tinyspeck.slackmacgap"),
         QStringLiteral("Casual team-chat tone. Keep it brief. No greeting or sign-off.")},
        {QStringLiteral("com.apple.mail"),
         QStringLiteral("Professional email prose. Complete sentences and paragraphs.")},
        {QStringLiteral("com.apple.MobileSMS"), QStringLiteral("Casual text message. Short. Contractions are fine.")},
        {QStringLiteral("com.microsoft.VSCode"),
         QStringLiteral("Technical tone. Preserve code identifiers, file paths and symbols exactly as spoken.")},
        {QStringLiteral("com.apple.Terminal"), terminal},
        {QStringLiteral("com.googlecode.iterm2"), terminal},
    };
}

Config Config::fromJson(const QJsonObject &o) {
    Config c;
    c.pushToTalkKey = readEnum<PushToTalkKey>(o, "pushToTalkKey").value_or(PushToTalkKey::rightOption);
    c.editKey = readEnum<PushToTalkKey>(o, "editKey").value_or(PushToTalkKey::rightCommand);
    if (c.editKey == c.pushToTalkKey)
        c.editKey =
            c.pushToTalkKey == PushToTalkKey::rightOption ? PushToTalkKey::rightCommand : PushToTalkKey::rightOption;
    c.promptKey = readEnum<PushToTalkKey>(o, "promptKey").value_or(PushToTalkKey::fn);
    if (c.promptKey == c.pushToTalkKey || c.promptKey == c.editKey)
        c.promptKey = firstFreeKey({c.pushToTalkKey, c.editKey});
    c.repositoryContextEnabled = readBool(o, "repositoryContextEnabled").value_or(true);
    c.pinnedRepositoryPath = readString(o, "pinnedRepositoryPath");
    c.promptDestination = readEnum<PromptDestination>(o, "promptDestination").value_or(PromptDestination::focusedApp);
    c.asr = readEnum<AsrKind>(o, "asr").value_or(AsrKind::appleSpeech);
    c.formatter = readEnum<FormatterKind>(o, "formatter").value_or(FormatterKind::appleFoundation);
    c.ollamaModel = readString(o, "ollamaModel").value_or(c.ollamaModel);
    c.ollamaEndpoint = readEndpoint(o, "ollamaEndpoint", defaultOllamaEndpoint());
    c.whisperEndpoint = readEndpoint(o, "whisperEndpoint", defaultWhisperEndpoint());
    c.locale = readString(o, "locale").value_or(c.locale);
    c.voiceProcessingEnabled = readBool(o, "voiceProcessingEnabled").value_or(true);
    c.captureCommand = readStringList(o, "captureCommand");
    c.formatterTimeoutMS = std::clamp<qint64>(readInteger(o, "formatterTimeoutMS").value_or(2500), 250, 15000);
    c.maximumRecordingSeconds = std::clamp<qint64>(readInteger(o, "maximumRecordingSeconds").value_or(180), 60, 300);
    c.guardMinContentRetention = readDouble(o, "guardMinContentRetention").value_or(0.6);
    c.guardMaxLengthRatio = readDouble(o, "guardMaxLengthRatio").value_or(2.5);
    c.guardMinWordsForLLM = readInteger(o, "guardMinWordsForLLM").value_or(2);
    c.retainAudio = readBool(o, "retainAudio").value_or(false);
    c.retainHistory = readBool(o, "retainHistory").value_or(false);
    c.learnVocabulary = readBool(o, "learnVocabulary").value_or(true);
    c.playSounds = readBool(o, "playSounds").value_or(true);
    c.showOverlay = readBool(o, "showOverlay").value_or(true);
    c.didCompleteOnboarding = readBool(o, "didCompleteOnboarding").value_or(false);
    c.launchAtLogin = readBool(o, "launchAtLogin").value_or(false);
    c.appRules = readAppRules(o).value_or(defaultAppRules());
    return c;
}

std::optional<Config> Config::decode(const QByteArray &json) {
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    return fromJson(document.object());
}

QJsonObject Config::toJson() const {
    QJsonObject o;
    o.insert(QStringLiteral("pushToTalkKey"), rawValue(pushToTalkKey));
    o.insert(QStringLiteral("editKey"), rawValue(editKey));
    o.insert(QStringLiteral("promptKey"), rawValue(promptKey));
    o.insert(QStringLiteral("repositoryContextEnabled"), repositoryContextEnabled);
    if (pinnedRepositoryPath)
        o.insert(QStringLiteral("pinnedRepositoryPath"), *pinnedRepositoryPath);
    o.insert(QStringLiteral("promptDestination"), rawValue(promptDestination));
    o.insert(QStringLiteral("asr"), rawValue(asr));
    o.insert(QStringLiteral("formatter"), rawValue(formatter));
    o.insert(QStringLiteral("ollamaModel"), ollamaModel);
    o.insert(QStringLiteral("ollamaEndpoint"), ollamaEndpoint);
    o.insert(QStringLiteral("whisperEndpoint"), whisperEndpoint);
    o.insert(QStringLiteral("locale"), locale);
    o.insert(QStringLiteral("voiceProcessingEnabled"), voiceProcessingEnabled);
    if (captureCommand)
        o.insert(QStringLiteral("captureCommand"), QJsonArray::fromStringList(*captureCommand));
    o.insert(QStringLiteral("formatterTimeoutMS"), formatterTimeoutMS);
    o.insert(QStringLiteral("maximumRecordingSeconds"), maximumRecordingSeconds);
    o.insert(QStringLiteral("guardMinContentRetention"), guardMinContentRetention);
    o.insert(QStringLiteral("guardMaxLengthRatio"), guardMaxLengthRatio);
    o.insert(QStringLiteral("guardMinWordsForLLM"), guardMinWordsForLLM);
    o.insert(QStringLiteral("retainAudio"), retainAudio);
    o.insert(QStringLiteral("retainHistory"), retainHistory);
    o.insert(QStringLiteral("learnVocabulary"), learnVocabulary);
    o.insert(QStringLiteral("playSounds"), playSounds);
    o.insert(QStringLiteral("showOverlay"), showOverlay);
    o.insert(QStringLiteral("didCompleteOnboarding"), didCompleteOnboarding);
    o.insert(QStringLiteral("launchAtLogin"), launchAtLogin);
    QJsonArray rules;
    for (const AppRule &rule : appRules)
        rules.append(QJsonObject{{QStringLiteral("bundleIDPrefix"), rule.bundleIDPrefix},
                                 {QStringLiteral("styleInstruction"), rule.styleInstruction}});
    o.insert(QStringLiteral("appRules"), rules);
    return o;
}

QByteArray Config::encode() const {
    // QJsonObject keeps its keys sorted, so the document lists them alphabetically.
    return QJsonDocument(toJson()).toJson(QJsonDocument::Indented);
}

Config Config::load(const QString &path) {
    QFile file(path);
    if (file.open(QIODevice::ReadOnly)) {
        if (auto decoded = decode(file.readAll()))
            return *decoded;
    }
    file.close();
    const Config defaults;
    if (!QFileInfo::exists(path) && !QFileInfo(path).isSymLink()) {
        defaults.save(path);
        return defaults;
    }
    const QString preserved = QFileInfo(path).dir().filePath(QStringLiteral("config.invalid.json"));
    const bool cleared = !QFileInfo::exists(preserved) || QFile::remove(preserved);
    if (!cleared || !QFile::rename(path, preserved)) {
        Log::error(QStringLiteral("Settings were invalid and could not be preserved; using safe in-memory defaults."));
        return defaults;
    }
    Paths::protectFile(preserved);
    defaults.save(path);
    Log::warn(QStringLiteral("Settings were invalid. Safe defaults were loaded and the original file was preserved "
                             "as config.invalid.json."));
    return defaults;
}

void Config::save(const QString &path) const {
    const QByteArray bytes = encode();
    QDir().mkpath(QFileInfo(path).absolutePath());
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return;
    // Owner-only before the rename, so no moment exists where others may read the settings.
    file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    file.write(bytes);
    if (!file.commit())
        return;
    Paths::protectFile(path);
}

std::optional<QString> Config::styleInstruction(const std::optional<QString> &bundleID) const {
    return AppRule::styleFor(appRules, bundleID);
}

std::optional<QString> AppRule::styleFor(const QList<AppRule> &rules, const std::optional<QString> &bundleID) {
    if (!bundleID)
        return std::nullopt;
    const AppRule *best = nullptr;
    for (const AppRule &rule : rules) {
        if (!bundleID->startsWith(rule.bundleIDPrefix))
            continue;
        if (!best || rule.bundleIDPrefix.size() > best->bundleIDPrefix.size())
            best = &rule;
    }
    return best ? std::optional<QString>(best->styleInstruction) : std::nullopt;
}

qint64 Config::formatterTimeoutCeiling(qint64 base) const {
    const qint64 t = formatterTimeoutMS;
    if (t <= 0)
        return std::min<qint64>(std::max<qint64>(base, 6), 15000);
    if (t >= 2500)
        return 15000;
    return std::max<qint64>(6 * t, std::min<qint64>(std::max<qint64>(base, 1), 15000));
}
