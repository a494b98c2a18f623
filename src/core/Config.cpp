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
#include <type_traits>

namespace {

constexpr NamedCase<PushToTalkKey> pushToTalkKeys[] = {
    {PushToTalkKey::rightOption, "rightOption", "Right Option (\u2325)"},
    {PushToTalkKey::rightCommand, "rightCommand", "Right Command (\u2318)"},
    {PushToTalkKey::fn, "fn", "Fn / Globe"},
};
constexpr NamedCase<AsrKind> asrKinds[] = {
    {AsrKind::appleSpeech, "appleSpeech", "On-device speech recognition"},
    {AsrKind::whisperServer, "whisperServer", "whisper.cpp server"},
};
constexpr NamedCase<FormatterKind> formatterKinds[] = {
    {FormatterKind::appleFoundation, "appleFoundation", "On-device language model"},
    {FormatterKind::ollama, "ollama", "Ollama"},
    {FormatterKind::none, "none", "No formatting"},
};
constexpr NamedCase<PromptDestination> promptDestinations[] = {
    {PromptDestination::focusedApp, "focusedApp", "Focused app"},
    {PromptDestination::codex, "codex", "Codex"},
    {PromptDestination::claude, "claude", "Claude Code"},
};

// Each decoder yields nullopt for a missing, null or mistyped value, which then takes its default.
template <typename T> std::optional<T> decodeValue(const QJsonValue &value) {
    static_assert(std::is_enum_v<T>);
    return value.isString() ? fromName<T>(value.toString()) : std::nullopt;
}

template <> std::optional<bool> decodeValue(const QJsonValue &value) {
    return value.isBool() ? std::optional<bool>(value.toBool()) : std::nullopt;
}

template <> std::optional<QString> decodeValue(const QJsonValue &value) {
    return value.isString() ? std::optional<QString>(value.toString()) : std::nullopt;
}

template <> std::optional<double> decodeValue(const QJsonValue &value) {
    return value.isDouble() ? std::optional<double>(value.toDouble()) : std::nullopt;
}

template <> std::optional<qint64> decodeValue(const QJsonValue &value) {
    if (!value.isDouble())
        return std::nullopt;
    const double number = value.toDouble();
    // A fractional or out-of-range number is not an integer.
    constexpr double limit = 9.2233720368547758e18;
    if (!std::isfinite(number) || std::trunc(number) != number || number < -limit || number >= limit)
        return std::nullopt;
    return value.toInteger(static_cast<qint64>(number));
}

template <> std::optional<QStringList> decodeValue(const QJsonValue &value) {
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

// Decoded whole: one malformed rule brings back the defaults.
template <> std::optional<QList<AppRule>> decodeValue(const QJsonValue &value) {
    if (!value.isArray())
        return std::nullopt;
    QList<AppRule> rules;
    for (const QJsonValue &element : value.toArray()) {
        const auto prefix = decodeValue<QString>(element[QLatin1String("bundleIDPrefix")]);
        const auto style = decodeValue<QString>(element[QLatin1String("styleInstruction")]);
        if (!element.isObject() || !prefix || !style)
            return std::nullopt;
        rules.append({*prefix, *style});
    }
    return rules;
}

template <typename T> QJsonValue encodeValue(const T &value) {
    if constexpr (std::is_enum_v<T>)
        return toName(value);
    else
        return value;
}

template <> QJsonValue encodeValue(const QStringList &value) {
    return QJsonArray::fromStringList(value);
}

template <> QJsonValue encodeValue(const QList<AppRule> &rules) {
    QJsonArray array;
    for (const AppRule &rule : rules)
        array.append(QJsonObject{{QStringLiteral("bundleIDPrefix"), rule.bundleIDPrefix},
                                 {QStringLiteral("styleInstruction"), rule.styleInstruction}});
    return array;
}

template <typename> struct Field;
template <typename T> struct Field<T Config::*> { using Type = T; };
template <typename T> struct Field<std::optional<T> Config::*> {
    using Type = T;
    static constexpr bool optional = true;
};
template <typename M>
concept OptionalField = Field<M>::optional;

// A repair turns any well-typed value into an acceptable one; `fallback` is the key's default.
template <qint64 low, qint64 high> qint64 clampedTo(qint64 value, const qint64 &, const char *) {
    return std::clamp(value, low, high);
}

// A local endpoint, or the default. https is refused here, with its reason, rather than later by a
// client that could only report the server as missing.
QString localEndpoint(QString value, const QString &fallback, const char *key) {
    const QUrl url(value, QUrl::StrictMode);
    if (url.scheme().compare(QLatin1String("https"), Qt::CaseInsensitive) == 0) {
        Log::warn(QStringLiteral("Settings: %1 %2 is not used because local servers are reached over plain http "
                                 "only; using %3.")
                      .arg(QLatin1String(key), value, fallback));
        return fallback;
    }
    return LocalServiceEndpoint::resolve(value, fallback).toString();
}

// How one key is read, repaired and written. Reading starts from the defaults, so a key that is
// missing or does not decode keeps its default; an absent optional key is omitted when written.
struct Setting {
    const char *key;
    void (*read)(const QJsonValue &value, Config &config, const char *key);
    void (*write)(const Config &config, QJsonObject &object, const char *key);
};

template <auto member, auto repair = nullptr> constexpr Setting setting(const char *key) {
    using M = decltype(member);
    using T = typename Field<M>::Type;
    Setting result{key, nullptr, nullptr};
    if constexpr (OptionalField<M>) {
        result.read = [](const QJsonValue &value, Config &config, const char *) {
            config.*member = decodeValue<T>(value);
        };
        result.write = [](const Config &config, QJsonObject &object, const char *name) {
            if (config.*member)
                object.insert(QLatin1String(name), encodeValue(*(config.*member)));
        };
    } else {
        result.read = [](const QJsonValue &value, Config &config, const char *name) {
            T decoded = decodeValue<T>(value).value_or(config.*member);
            if constexpr (!std::is_null_pointer_v<decltype(repair)>)
                decoded = repair(decoded, config.*member, name);
            config.*member = decoded;
        };
        result.write = [](const Config &config, QJsonObject &object, const char *name) {
            object.insert(QLatin1String(name), encodeValue(config.*member));
        };
    }
    return result;
}

// The JSON key is the field's name, so it is spelled once.
#define QUORVANE_SETTING(field, ...) setting<&Config::field __VA_OPT__(, ) __VA_ARGS__>(#field)

constexpr Setting settings[] = {
    QUORVANE_SETTING(pushToTalkKey),
    QUORVANE_SETTING(editKey),
    QUORVANE_SETTING(promptKey),
    QUORVANE_SETTING(repositoryContextEnabled),
    QUORVANE_SETTING(pinnedRepositoryPath),
    QUORVANE_SETTING(promptDestination),
    QUORVANE_SETTING(asr),
    QUORVANE_SETTING(formatter),
    QUORVANE_SETTING(ollamaModel),
    QUORVANE_SETTING(ollamaEndpoint, localEndpoint),
    QUORVANE_SETTING(whisperEndpoint, localEndpoint),
    QUORVANE_SETTING(locale),
    QUORVANE_SETTING(voiceProcessingEnabled),
    QUORVANE_SETTING(captureCommand),
    QUORVANE_SETTING(formatterTimeoutMS, clampedTo<Config::minFormatterTimeoutMS, Config::maxFormatterTimeoutMS>),
    QUORVANE_SETTING(maximumRecordingSeconds, clampedTo<Config::minRecordingSeconds, Config::maxRecordingSeconds>),
    QUORVANE_SETTING(guardMinContentRetention),
    QUORVANE_SETTING(guardMaxLengthRatio),
    QUORVANE_SETTING(guardMinWordsForLLM),
    QUORVANE_SETTING(retainAudio),
    QUORVANE_SETTING(retainHistory),
    QUORVANE_SETTING(learnVocabulary),
    QUORVANE_SETTING(playSounds),
    QUORVANE_SETTING(showOverlay),
    QUORVANE_SETTING(didCompleteOnboarding),
    QUORVANE_SETTING(launchAtLogin),
    QUORVANE_SETTING(appRules),
};

#undef QUORVANE_SETTING

PushToTalkKey firstFreeKey(std::initializer_list<PushToTalkKey> taken) {
    for (PushToTalkKey key : allCases<PushToTalkKey>())
        if (std::find(taken.begin(), taken.end(), key) == taken.end())
            return key;
    return PushToTalkKey::fn;
}

// Three keys for three modes: a key taken by an earlier mode moves to the first free one.
void makeModeKeysDistinct(Config &c) {
    if (c.editKey == c.pushToTalkKey)
        c.editKey =
            c.pushToTalkKey == PushToTalkKey::rightOption ? PushToTalkKey::rightCommand : PushToTalkKey::rightOption;
    if (c.promptKey == c.pushToTalkKey || c.promptKey == c.editKey)
        c.promptKey = firstFreeKey({c.pushToTalkKey, c.editKey});
}

} // namespace

std::span<const NamedCase<PushToTalkKey>> namedCases(PushToTalkKey) {
    return pushToTalkKeys;
}
std::span<const NamedCase<AsrKind>> namedCases(AsrKind) {
    return asrKinds;
}
std::span<const NamedCase<FormatterKind>> namedCases(FormatterKind) {
    return formatterKinds;
}
std::span<const NamedCase<PromptDestination>> namedCases(PromptDestination) {
    return promptDestinations;
}

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
        {Config::minRecordingSeconds, QStringLiteral("1 minute")},
        {Config::defaultRecordingSeconds, QStringLiteral("3 minutes")},
        {Config::maxRecordingSeconds, QStringLiteral("5 minutes")},
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

Config Config::fromJson(const QJsonObject &object) {
    Config config;
    for (const Setting &setting : settings)
        setting.read(object.value(QLatin1String(setting.key)), config, setting.key);
    makeModeKeysDistinct(config);
    return config;
}

std::optional<Config> Config::decode(const QByteArray &json) {
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    return fromJson(document.object());
}

QJsonObject Config::toJson() const {
    QJsonObject object;
    for (const Setting &setting : settings)
        setting.write(*this, object, setting.key);
    return object;
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
    const bool opened = file.open(QIODevice::WriteOnly);
    if (opened) {
        // Owner-only before the rename, so no moment exists where others may read the settings.
        file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
        file.write(bytes);
    }
    if (!opened || !file.commit()) {
        Log::error(QStringLiteral("Settings could not be saved to %1: %2").arg(path, file.errorString()));
        return;
    }
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
    // A slow model gets up to six times the setting, never more than the largest setting allowed.
    constexpr qint64 factor = 6;
    constexpr qint64 ceiling = maxFormatterTimeoutMS;
    const qint64 t = formatterTimeoutMS;
    if (t <= 0)
        return std::min(std::max(base, factor), ceiling);
    if (t >= ceiling / factor)
        return ceiling;
    return std::max(factor * t, std::min<qint64>(std::max<qint64>(base, 1), ceiling));
}
