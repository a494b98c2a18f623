#include "history/Store.h"

#include "core/Async.h"
#include "core/Log.h"
#include "core/Paths.h"
#include "core/Text.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QPointer>
#include <QRegularExpression>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <unistd.h>

namespace {

constexpr QFileDevice::Permissions ownerOnly = QFileDevice::ReadOwner | QFileDevice::WriteOwner;
constexpr qint64 copyChunk = 1 << 20;

// A full history sheds its oldest entries down to four fifths of each ceiling at once, so the next
// few hundred dictations are plain appends (400 at the default 2,000 entries, about as many 4 KB
// entries at 8 MiB) instead of one rewrite of the whole file each.
qint64 pruneTarget(qint64 ceiling) {
    return ceiling - ceiling / 5;
}

std::optional<Utterance> parseLine(const QByteArray &line) {
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(line, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    return Utterance::fromJson(document.object());
}

} // namespace

Store::Store(QString root, RetentionLimits limits) : m_root(std::move(root)), m_limits(limits) {
    Paths::makeProtectedDirectory(m_root);
}

Store::~Store() {
    m_queue.drain();
}

QString Store::historyPath() const {
    return m_root + QStringLiteral("/history.jsonl");
}
QString Store::audioDirectory() const {
    return m_root + QStringLiteral("/audio");
}
QString Store::vocabularyPath() const {
    return m_root + QStringLiteral("/vocabulary.txt");
}

void Store::drain() const {
    m_queue.drain();
}

std::optional<QByteArray> Store::entryLine(const Utterance &utterance) const {
    QByteArray line = QJsonDocument(utterance.toJson()).toJson(QJsonDocument::Compact);
    line.append('\n');
    if (line.size() > m_limits.maxHistoryBytes) {
        Log::warn(QStringLiteral("A history item exceeded the local retention ceiling and was not stored."));
        return std::nullopt;
    }
    return line;
}

void Store::append(const Utterance &utterance) {
    if (std::optional<QByteArray> line = entryLine(utterance))
        m_queue.async([this, line = std::move(*line)] { appendLine(line); });
}

void Store::keepDelivered(Utterance utterance, RecordingWriter writeRecording, bool appendEntry, qint64 afterMs) {
    const auto due = std::chrono::steady_clock::now() + std::chrono::milliseconds(afterMs);
    m_queue.async([this, utterance = std::move(utterance), writeRecording = std::move(writeRecording), appendEntry,
                   due]() mutable {
        std::this_thread::sleep_until(due);
        utterance.audioFile.reset();
        if (writeRecording) {
            const QString path = audioURL(utterance.id);
            if (writeRecording(path)) {
                Paths::protectFile(path);
                pruneAudio();
                utterance.audioFile = audioFileName(utterance.id);
            }
        }
        if (!appendEntry)
            return;
        if (const std::optional<QByteArray> line = entryLine(utterance))
            appendLine(*line);
    });
}

void Store::loadIndex() const {
    QFile file(historyPath());
    if (m_index.loaded && file.size() == m_index.bytes)
        return;
    // First use, or someone else changed the file: count its lines again.
    m_index = Index{};
    m_index.loaded = true;
    if (!file.open(QIODevice::ReadOnly))
        return;
    qint64 lineStart = 0;
    qint64 position = 0;
    for (;;) {
        const QByteArray chunk = file.read(copyChunk);
        if (chunk.isEmpty())
            break;
        const char *data = chunk.constData();
        const char *end = data + chunk.size();
        for (const char *p = data; (p = static_cast<const char *>(std::memchr(p, '\n', end - p))); ++p) {
            const qint64 lineEnd = position + (p - data) + 1;
            m_index.lineSizes.push_back(lineEnd - lineStart);
            lineStart = lineEnd;
        }
        position += chunk.size();
    }
    m_index.bytes = lineStart;
    if (position > lineStart) {
        // An append cut short by a kill (a write can stop at any page boundary) or a writer that
        // was not this store: the unfinished line was never a stored entry, and the next append
        // must not be glued to it.
        file.close();
        QFile::resize(historyPath(), lineStart);
        Log::warn(QStringLiteral("The history file ended with an incomplete line, which was dropped."));
    }
}

void Store::appendLine(const QByteArray &line) {
    loadIndex();
    const size_t held = m_index.lineSizes.size();
    qint64 count = static_cast<qint64>(held) + 1;
    qint64 bytes = m_index.bytes + line.size();
    if (count <= m_limits.maxHistoryEntries && bytes <= m_limits.maxHistoryBytes) {
        appendInPlace(line);
        return;
    }
    // Over a ceiling: a whole batch of the oldest goes at once, through an atomic rewrite.
    const qint64 entryTarget = pruneTarget(m_limits.maxHistoryEntries);
    const qint64 byteTarget = pruneTarget(m_limits.maxHistoryBytes);
    size_t drop = 0;
    while (drop < held && (count > entryTarget || bytes > byteTarget)) {
        bytes -= m_index.lineSizes[drop++];
        --count;
    }
    // A ceiling of no entries keeps not even the newest.
    const bool keepNewest = count <= m_limits.maxHistoryEntries && bytes <= m_limits.maxHistoryBytes;
    rewriteHistory(static_cast<qint64>(drop), keepNewest ? line : QByteArray());
}

void Store::appendInPlace(const QByteArray &line) {
    QFile file(historyPath());
    if (file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered, ownerOnly) &&
        file.write(line) == line.size()) {
        Paths::protectFile(historyPath());
        m_index.lineSizes.push_back(line.size());
        m_index.bytes += line.size();
        return;
    }
    const QString reason = file.errorString();
    // Whatever part of the line did reach the file goes, so the history stays whole lines.
    if (file.isOpen() && file.size() > m_index.bytes)
        file.resize(m_index.bytes);
    reportLostEntry(reason);
}

void Store::reportLostEntry(const QString &reason) {
    Log::error(QStringLiteral("Could not store a history entry: ") + reason);
    // The file may have changed under us; count again before the next write.
    m_index.loaded = false;
}

bool Store::rewriteHistory(qint64 dropLines, const QByteArray &extra) {
    qint64 skip = 0;
    for (qint64 i = 0; i < dropLines; ++i)
        skip += m_index.lineSizes[static_cast<size_t>(i)];
    const QString target = historyPath();
    const QString temporary = target + QStringLiteral(".tmp");
    QFile out(temporary);
    if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate, ownerOnly)) {
        reportLostEntry(out.errorString());
        return false;
    }
    out.setPermissions(ownerOnly);
    QString reason;
    qint64 remaining = m_index.bytes - skip;
    if (remaining > 0) {
        QFile in(target);
        if (!in.open(QIODevice::ReadOnly) || !in.seek(skip))
            reason = in.errorString();
        while (reason.isEmpty() && remaining > 0) {
            const QByteArray chunk = in.read(std::min(remaining, copyChunk));
            if (chunk.isEmpty() || out.write(chunk) != chunk.size())
                reason = chunk.isEmpty() ? in.errorString() : out.errorString();
            remaining -= chunk.size();
        }
    }
    if (reason.isEmpty() && (out.write(extra) != extra.size() || !out.flush()))
        reason = out.errorString();
    // On disk before it replaces the old file, so a crash of the machine cannot leave it empty.
    if (reason.isEmpty() && ::fsync(out.handle()) != 0)
        reason = QString::fromLocal8Bit(std::strerror(errno));
    out.close();
    if (reason.isEmpty() &&
        std::rename(QFile::encodeName(temporary).constData(), QFile::encodeName(target).constData()) != 0)
        reason = QString::fromLocal8Bit(std::strerror(errno));
    if (!reason.isEmpty()) {
        QFile::remove(temporary);
        reportLostEntry(reason);
        return false;
    }
    for (qint64 i = 0; i < dropLines; ++i)
        m_index.lineSizes.pop_front();
    if (!extra.isEmpty())
        m_index.lineSizes.push_back(extra.size());
    m_index.bytes = m_index.bytes - skip + extra.size();
    return true;
}

QList<Utterance> Store::readRecent(int limit) const {
    QFile file(historyPath());
    if (!file.open(QIODevice::ReadOnly))
        return {};
    // Reads backwards from the end, in growing chunks, until enough whole entries are found.
    qint64 position = m_index.bytes;
    QByteArray buffer;
    QList<Utterance> newestFirst;
    while (newestFirst.size() < limit) {
        const qsizetype previous = buffer.size() > 1 ? buffer.lastIndexOf('\n', buffer.size() - 2) : -1;
        if (previous < 0 && position > 0) {
            const qint64 chunk = std::min(position, std::max<qint64>(65536, buffer.size()));
            position -= chunk;
            if (!file.seek(position))
                break;
            const QByteArray read = file.read(chunk);
            if (read.size() != chunk)
                break;
            buffer.prepend(read);
            continue;
        }
        if (buffer.isEmpty())
            break;
        const QByteArray line = buffer.mid(previous + 1, buffer.size() - previous - 2);
        buffer.truncate(previous + 1);
        if (std::optional<Utterance> entry = parseLine(line))
            newestFirst.append(std::move(*entry));
    }
    return newestFirst;
}

QStringList Store::recentTranscripts(int limit) const {
    if (limit <= 0)
        return {};
    QStringList result;
    m_queue.sync([&] {
        loadIndex();
        for (const Utterance &entry : readRecent(limit))
            result.prepend(entry.shippedText);
    });
    return result;
}

QList<Utterance> Store::recentEntries(int limit) const {
    if (limit <= 0)
        return {};
    QList<Utterance> result;
    m_queue.sync([&] {
        loadIndex();
        result = readRecent(limit);
    });
    return result;
}

int Store::totalCount() const {
    int count = 0;
    m_queue.sync([&] {
        loadIndex();
        count = static_cast<int>(m_index.lineSizes.size());
    });
    return count;
}

int Store::retainedAudioCount() const {
    int count = 0;
    m_queue.sync([&] {
        count = static_cast<int>(
            QDir(audioDirectory()).entryList({QStringLiteral("*.wav")}, QDir::Files | QDir::Hidden).size());
    });
    return count;
}

QString Store::audioFileName(const QString &utteranceID) {
    // The identifier becomes a file name: nothing in it may lead out of the folder.
    static const QRegularExpression unsafe(QStringLiteral("[^A-Za-z0-9_-]"));
    QString name = utteranceID;
    name.replace(unsafe, QStringLiteral("_"));
    return name + QStringLiteral(".wav");
}

QString Store::audioURL(const QString &utteranceID) const {
    Paths::makeProtectedDirectory(audioDirectory());
    return audioDirectory() + QLatin1Char('/') + audioFileName(utteranceID);
}

void Store::didWriteAudio(const QString &path) {
    Paths::protectFile(path);
    m_queue.async([this] { pruneAudio(); });
}

void Store::pruneAudio() {
    QFileInfoList files = QDir(audioDirectory()).entryInfoList({QStringLiteral("*.wav")}, QDir::Files | QDir::Hidden);
    std::sort(files.begin(), files.end(), [](const QFileInfo &a, const QFileInfo &b) {
        const QDateTime left = a.lastModified();
        const QDateTime right = b.lastModified();
        return left != right ? left < right : a.fileName() < b.fileName();
    });
    qint64 bytes = 0;
    for (const QFileInfo &info : files)
        bytes += info.size();
    qsizetype oldest = 0;
    while (oldest < files.size() &&
           (files.size() - oldest > m_limits.maxAudioFiles || bytes > m_limits.maxAudioBytes)) {
        const QFileInfo &victim = files[oldest++];
        // One that cannot be deleted is skipped rather than retried forever.
        QFile::remove(victim.absoluteFilePath());
        bytes -= victim.size();
    }
}

QString Store::vocabularyHeader() {
    return QStringLiteral("# Quorvane custom vocabulary — one term per line.\n"
                          "# Names, product names and jargon listed here are expected by the recogniser\n"
                          "# and kept as written by the formatter. Lines beginning with # are ignored.\n");
}

void Store::ensureVocabularyFile() const {
    QFile file(vocabularyPath());
    if (file.exists())
        return;
    // NewOnly: a file the user created meanwhile is never overwritten.
    if (file.open(QIODevice::WriteOnly | QIODevice::NewOnly, ownerOnly)) {
        file.write(vocabularyHeader().toUtf8());
        file.close();
    }
    Paths::protectFile(vocabularyPath());
}

QStringList Store::vocabulary() const {
    QFile file(vocabularyPath());
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QStringList terms;
    for (const QString &line : QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'))) {
        const QString term = Text::trimmed(line);
        if (!term.isEmpty() && !term.startsWith(QLatin1Char('#')) && !terms.contains(term))
            terms.append(term);
    }
    return terms;
}

void Store::deleteRetainedData(QObject *context, std::function<void(std::optional<QString>)> completion) {
    QPointer<QObject> guard(context);
    m_queue.async([this, guard, hasContext = context != nullptr, completion = std::move(completion)] {
        QStringList failures;
        const QString history = historyPath();
        if (QFile::exists(history) && !QFile::remove(history))
            failures.append(QStringLiteral("could not delete the history"));
        // A rewrite cut short by a crash leaves its copy behind.
        QFile::remove(history + QStringLiteral(".tmp"));
        m_index = Index{};
        const QFileInfoList recordings =
            QDir(audioDirectory()).entryInfoList({QStringLiteral("*.wav")}, QDir::Files | QDir::Hidden);
        int kept = 0;
        for (const QFileInfo &info : recordings) {
            if (!QFile::remove(info.absoluteFilePath()))
                ++kept;
        }
        if (kept > 0)
            failures.append(QStringLiteral("could not delete %1 recordings").arg(kept));
        std::optional<QString> error;
        if (!failures.isEmpty())
            error = failures.join(QStringLiteral("; "));
        if (!completion)
            return;
        if (!hasContext) {
            completion(error);
            return;
        }
        // The context is only looked at on the main thread, where it could be destroyed.
        runOn(QCoreApplication::instance(), [guard, completion, error] {
            if (guard)
                completion(error);
        });
    });
}
