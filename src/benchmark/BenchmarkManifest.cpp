#include "benchmark/BenchmarkManifest.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>

namespace {

[[noreturn]] void fail(const QString &problem) {
    throw BenchmarkManifest::Invalid({problem});
}

std::optional<QString> optionalString(const QJsonObject &object, const QString &key, const QString &where,
                                      QStringList &problems) {
    const QJsonValue value = object.value(key);
    if (value.isUndefined() || value.isNull())
        return std::nullopt;
    if (!value.isString() || value.toString().trimmed().isEmpty()) {
        problems.append(QStringLiteral("%1: \"%2\" must be a non-empty text.").arg(where, key));
        return std::nullopt;
    }
    return value.toString().trimmed();
}

} // namespace

BenchmarkManifest BenchmarkManifest::load(const QString &path) {
    const QFileInfo info(path);
    if (!info.exists())
        fail(QStringLiteral("Manifest not found: %1").arg(path));
    QFile file(path);
    if (info.isDir() || !file.open(QIODevice::ReadOnly))
        fail(QStringLiteral("Cannot read the manifest %1.").arg(path));
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &parseError);
    if (parseError.error != QJsonParseError::NoError)
        fail(QStringLiteral("The manifest %1 is not valid JSON: %2 (at byte %3).")
                 .arg(path, parseError.errorString())
                 .arg(parseError.offset));
    if (!document.isObject())
        fail(QStringLiteral("The manifest %1 must be a JSON object with \"name\" and \"clips\".").arg(path));
    const QJsonObject root = document.object();

    BenchmarkManifest manifest;
    manifest.path = info.absoluteFilePath();
    QStringList problems;
    const QString where = QStringLiteral("The manifest");
    manifest.name = optionalString(root, QStringLiteral("name"), where, problems).value_or(QString());
    if (manifest.name.isEmpty() && problems.isEmpty())
        problems.append(QStringLiteral("The manifest has no \"name\" for its dataset."));
    manifest.locale = optionalString(root, QStringLiteral("locale"), where, problems);
    const QJsonValue provenance = root.value(QStringLiteral("provenance"));
    if (provenance.isObject())
        manifest.provenance = provenance.toObject();
    else if (!provenance.isUndefined() && !provenance.isNull())
        problems.append(QStringLiteral("The manifest's \"provenance\" must be an object with \"source\", "
                                       "\"license\", \"url\" and \"notes\"."));

    const QJsonValue clipsValue = root.value(QStringLiteral("clips"));
    if (!clipsValue.isArray() || clipsValue.toArray().isEmpty()) {
        problems.append(QStringLiteral("The manifest has no \"clips\": it needs a list of clips with \"id\", "
                                       "\"audio\" and \"reference\"."));
        throw Invalid(problems);
    }

    const QDir folder = info.absoluteDir();
    QHash<QString, qsizetype> seen;
    const QJsonArray clips = clipsValue.toArray();
    for (qsizetype i = 0; i < clips.size(); ++i) {
        const QString position = QStringLiteral("Clip %1").arg(i + 1);
        if (!clips[i].isObject()) {
            problems.append(position + QStringLiteral(" is not an object."));
            continue;
        }
        const QJsonObject object = clips[i].toObject();
        BenchmarkClip clip;
        const QJsonValue id = object.value(QStringLiteral("id"));
        if (id.isString() && !id.toString().trimmed().isEmpty()) {
            clip.id = id.toString().trimmed();
        } else if (id.isDouble()) {
            clip.id = QString::number(id.toInteger());
        } else {
            problems.append(position + QStringLiteral(" has no \"id\"."));
            continue;
        }
        const QString named = QStringLiteral("Clip \"%1\"").arg(clip.id);
        if (const auto first = seen.constFind(clip.id); first != seen.constEnd()) {
            problems.append(
                QStringLiteral("Duplicate clip id \"%1\" (clips %2 and %3).").arg(clip.id).arg(*first + 1).arg(i + 1));
            continue;
        }
        seen.insert(clip.id, i);

        const QJsonValue reference = object.value(QStringLiteral("reference"));
        if (!reference.isString()) {
            problems.append(named + QStringLiteral(" has no \"reference\" text."));
            continue;
        }
        clip.reference = reference.toString();
        clip.locale = optionalString(object, QStringLiteral("locale"), named, problems);
        const QJsonValue audio = object.value(QStringLiteral("audio"));
        if (!audio.isString() || audio.toString().isEmpty()) {
            problems.append(named + QStringLiteral(" has no \"audio\" file."));
            continue;
        }
        clip.audio = audio.toString();
        clip.audioPath = QDir::cleanPath(folder.absoluteFilePath(clip.audio));
        const QFileInfo audioInfo(clip.audioPath);
        if (!audioInfo.exists())
            problems.append(named + QStringLiteral(": audio file not found: %1").arg(clip.audioPath));
        else if (!audioInfo.isFile())
            problems.append(named + QStringLiteral(": audio is not a file: %1").arg(clip.audioPath));
        manifest.clips.append(clip);
    }
    if (!problems.isEmpty())
        throw Invalid(problems);
    return manifest;
}
