#include "history/Utterance.h"

#include <QJsonValue>
#include <QTimeZone>
#include <cmath>

namespace {

void insertOptional(QJsonObject &object, const QString &key, const std::optional<QString> &value) {
    if (value)
        object.insert(key, *value);
}

bool readString(const QJsonObject &object, const QString &key, QString &out) {
    const QJsonValue value = object.value(key);
    if (!value.isString())
        return false;
    out = value.toString();
    return true;
}

bool readOptional(const QJsonObject &object, const QString &key, std::optional<QString> &out) {
    const QJsonValue value = object.value(key);
    if (value.isUndefined() || value.isNull()) {
        out.reset();
        return true;
    }
    if (!value.isString())
        return false;
    out = value.toString();
    return true;
}

bool readInteger(const QJsonObject &object, const QString &key, qint64 &out) {
    const QJsonValue value = object.value(key);
    if (!value.isDouble())
        return false;
    const double number = value.toDouble();
    // Converting a number outside qint64 is undefined, and a hand-edited line may hold one.
    if (!(number >= -9.2233720368547758e18 && number < 9.2233720368547758e18) || std::trunc(number) != number)
        return false;
    out = static_cast<qint64>(number);
    return true;
}

} // namespace

QJsonObject Utterance::toJson() const {
    QJsonObject object{
        {QStringLiteral("id"), id},
        {QStringLiteral("timestamp"), timestamp.toUTC().toString(Qt::ISODateWithMs)},
        {QStringLiteral("rawTranscript"), rawTranscript},
        {QStringLiteral("formattedText"), formattedText},
        {QStringLiteral("shippedText"), shippedText},
        {QStringLiteral("guardVerdict"), guardVerdict},
        {QStringLiteral("engine"), engine},
        {QStringLiteral("formatter"), formatter},
        {QStringLiteral("asrMS"), asrMS},
        {QStringLiteral("formatMS"), formatMS},
        {QStringLiteral("responseMS"), responseMS},
    };
    insertOptional(object, QStringLiteral("appBundleID"), appBundleID);
    insertOptional(object, QStringLiteral("appName"), appName);
    insertOptional(object, QStringLiteral("audioFile"), audioFile);
    return object;
}

std::optional<Utterance> Utterance::fromJson(const QJsonObject &object) {
    Utterance u;
    QString timestamp;
    const bool ok = readString(object, QStringLiteral("id"), u.id) &&
                    readString(object, QStringLiteral("timestamp"), timestamp) &&
                    readOptional(object, QStringLiteral("appBundleID"), u.appBundleID) &&
                    readOptional(object, QStringLiteral("appName"), u.appName) &&
                    readString(object, QStringLiteral("rawTranscript"), u.rawTranscript) &&
                    readString(object, QStringLiteral("formattedText"), u.formattedText) &&
                    readString(object, QStringLiteral("shippedText"), u.shippedText) &&
                    readString(object, QStringLiteral("guardVerdict"), u.guardVerdict) &&
                    readString(object, QStringLiteral("engine"), u.engine) &&
                    readString(object, QStringLiteral("formatter"), u.formatter) &&
                    readInteger(object, QStringLiteral("asrMS"), u.asrMS) &&
                    readInteger(object, QStringLiteral("formatMS"), u.formatMS) &&
                    readInteger(object, QStringLiteral("responseMS"), u.responseMS) &&
                    readOptional(object, QStringLiteral("audioFile"), u.audioFile);
    if (!ok)
        return std::nullopt;
    u.timestamp = QDateTime::fromString(timestamp, Qt::ISODateWithMs);
    if (!u.timestamp.isValid())
        return std::nullopt;
    return u;
}
