#include "repository/RepositoryIndexer.h"

#include "core/OffThread.h"
#include "core/ProgramRun.h"
#include "core/QuorvaneError.h"
#include "core/Text.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QProcessEnvironment>
#include <QSet>
#include <QStringDecoder>
#include <algorithm>
#include <limits>
#include <sys/stat.h>

namespace {

const QSet<QString> &keyFileNames() {
    static const QSet<QString> names{
        QStringLiteral("package.swift"),
        QStringLiteral("package.json"),
        QStringLiteral("pyproject.toml"),
        QStringLiteral("cargo.toml"),
        QStringLiteral("go.mod"),
        QStringLiteral("gemfile"),
        QStringLiteral("pom.xml"),
        QStringLiteral("build.gradle"),
        QStringLiteral("build.gradle.kts"),
        QStringLiteral("dockerfile"),
        QStringLiteral("docker-compose.yml"),
        QStringLiteral("docker-compose.yaml"),
        QStringLiteral("readme.md"),
        QStringLiteral("agents.md"),
        QStringLiteral("claude.md"),
        QStringLiteral("makefile"),
    };
    return names;
}

const QSet<QString> &excludedDirectories() {
    static const QSet<QString> names{
        QStringLiteral(".git"),         QStringLiteral(".build"), QStringLiteral("build"),   QStringLiteral("dist"),
        QStringLiteral("node_modules"), QStringLiteral("vendor"), QStringLiteral("vendors"), QStringLiteral("pods"),
        QStringLiteral("deriveddata"),  QStringLiteral(".venv"),  QStringLiteral("venv"),    QStringLiteral("target"),
        QStringLiteral("coverage"),     QStringLiteral(".next"),  QStringLiteral(".cache"),  QStringLiteral("secrets"),
        QStringLiteral("secret"),
    };
    return names;
}

const QSet<QString> &excludedFileNames() {
    static const QSet<QString> names{
        QStringLiteral(".env"),
        QStringLiteral("secrets.plist"),
        QStringLiteral("credentials.json"),
        QStringLiteral("credentials.yaml"),
        QStringLiteral("credentials.yml"),
        QStringLiteral("secrets.json"),
        QStringLiteral("id_rsa"),
        QStringLiteral("id_ed25519"),
        QStringLiteral("known_hosts"),
        QStringLiteral(".npmrc"),
        QStringLiteral(".pypirc"),
    };
    return names;
}

const QStringList &excludedSuffixes() {
    static const QStringList suffixes{
        QStringLiteral(".pem"),
        QStringLiteral(".key"),
        QStringLiteral(".p12"),
        QStringLiteral(".pfx"),
        QStringLiteral(".mobileprovision"),
        QStringLiteral(".dmg"),
        QStringLiteral(".zip"),
    };
    return suffixes;
}

const QSet<QString> &genericWords() {
    static const QSet<QString> words{
        QStringLiteral("src"),     QStringLiteral("source"),  QStringLiteral("sources"),  QStringLiteral("test"),
        QStringLiteral("tests"),   QStringLiteral("lib"),     QStringLiteral("app"),      QStringLiteral("main"),
        QStringLiteral("index"),   QStringLiteral("utils"),   QStringLiteral("utility"),  QStringLiteral("helper"),
        QStringLiteral("helpers"), QStringLiteral("feature"), QStringLiteral("features"), QStringLiteral("core"),
    };
    return words;
}

const QHash<QString, QString> &languagesByExtension() {
    static const QHash<QString, QString> table = [] {
        QHash<QString, QString> map;
        const auto add = [&map](std::initializer_list<const char *> extensions, const char *language) {
            for (const char *extension : extensions)
                map.insert(QString::fromLatin1(extension), QString::fromLatin1(language));
        };
        add({"swift"}, "Swift");
        add({"m", "mm"}, "Objective-C");
        add({"ts"}, "TypeScript");
        add({"js", "jsx", "cjs"}, "JavaScript");
        add({"py"}, "Python");
        add({"rs"}, "Rust");
        add({"go"}, "Go");
        add({"java"}, "Java");
        add({"kt"}, "Kotlin");
        add({"rb"}, "Ruby");
        add({"php"}, "PHP");
        add({"cs"}, "C#");
        add({"c", "h"}, "C");
        add({"cc", "cpp", "cxx", "c++", "hpp", "hh", "hxx", "h++", "ipp", "tpp", "ixx", "cppm"}, "C++");
        add({"sh", "bash", "zsh"}, "Shell");
        add({"sql"}, "SQL");
        add({"html", "scss"}, "Web");
        return map;
    }();
    return table;
}

// A word character as the pattern engine's Unicode \w sees it: letters, digits and the underscore.
bool isWordCharacter(char32_t c) {
    return c == U'_' || QChar::isLetterOrNumber(c);
}

bool isIdentifierStart(QChar c) {
    return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z') || c == u'_';
}

bool isIdentifierPart(QChar c) {
    return isIdentifierStart(c) || (c >= u'0' && c <= u'9');
}

// Whether a word character ends right before `at`, so that a keyword there would not start a word.
bool followsWordCharacter(QStringView text, qsizetype at) {
    if (at == 0)
        return false;
    const QChar before = text[at - 1];
    if (before.isLowSurrogate() && at >= 2 && text[at - 2].isHighSurrogate())
        return isWordCharacter(QChar::surrogateToUcs4(text[at - 2], before));
    return isWordCharacter(before.unicode());
}

// Every "<keyword> <identifier>" of the text, left to right without overlaps: a keyword that starts
// a word, white space, then an ASCII identifier of at least `minLength` characters. The same as
// matching \b(?:keywords)\s+([A-Za-z_][A-Za-z0-9_]{minLength-1,}) globally, by hand, because this runs
// over every source file read and the pattern engine was most of the index's time.
void collectDeclared(QStringView text, std::initializer_list<QLatin1StringView> keywords, qsizetype minLength,
                     QStringList &into) {
    const qsizetype size = text.size();
    qsizetype at = 0;
    while (at < size) {
        if (!isIdentifierStart(text[at]) || followsWordCharacter(text, at)) {
            ++at;
            continue;
        }
        qsizetype matchEnd = -1;
        for (const QLatin1StringView keyword : keywords) {
            if (!text.sliced(at).startsWith(keyword))
                continue;
            qsizetype name = at + keyword.size();
            while (name < size && Text::isWhitespaceOrNewline(text[name].unicode()))
                ++name;
            if (name == at + keyword.size() || name == size || !isIdentifierStart(text[name]))
                continue;
            qsizetype end = name + 1;
            while (end < size && isIdentifierPart(text[end]))
                ++end;
            if (end - name < minLength)
                continue;
            into.append(text.sliced(name, end - name).toString());
            matchEnd = end;
            break;
        }
        at = matchEnd > 0 ? matchEnd : at + 1;
    }
}

QString lastComponent(const QString &relativePath) {
    const qsizetype slash = relativePath.lastIndexOf(QLatin1Char('/'));
    return slash < 0 ? relativePath : relativePath.mid(slash + 1);
}

QString standardized(const QString &path) {
    return QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

// A prefix cut at the byte limit may end inside a multi-byte character; that alone must not make
// an otherwise valid UTF-8 file count as undecodable.
qsizetype completeUtf8Length(const QByteArray &bytes) {
    const qsizetype size = bytes.size();
    for (qsizetype back = 1; back <= 3 && back <= size; ++back) {
        const auto byte = static_cast<unsigned char>(bytes.at(size - back));
        if ((byte & 0xC0) == 0x80)
            continue; // continuation byte: keep looking for the lead byte
        const int needed = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
        return needed > back ? size - back : size;
    }
    return size;
}

template <typename Counts> QStringList byFallingCount(const Counts &counts, int limit) {
    QList<std::pair<QString, int>> entries;
    entries.reserve(counts.size());
    for (auto it = counts.cbegin(); it != counts.cend(); ++it)
        entries.append({it.key(), it.value()});
    std::sort(entries.begin(), entries.end(), [](const auto &a, const auto &b) {
        return a.second != b.second ? a.second > b.second : a.first < b.first;
    });
    QStringList result;
    for (const auto &entry : entries) {
        if (result.size() >= limit)
            break;
        result << entry.first;
    }
    return result;
}

// Resolves the many paths of one repository: each folder is resolved once, and a file that is not a
// link then costs one lstat instead of a readlink for every component of its path.
class ContainedFileResolver {
public:
    explicit ContainedFileResolver(QString canonicalRoot)
        : m_root(std::move(canonicalRoot)), m_rootPrefix(m_root + QLatin1Char('/')) {}

    std::optional<QString> resolve(const QString &relativePath) {
        const qsizetype slash = relativePath.lastIndexOf(QLatin1Char('/'));
        const QString folder = slash < 0 ? QString() : relativePath.left(slash);
        const QString name = relativePath.mid(slash + 1);
        // Anything unusual ("..", "./", "//") takes the thorough way.
        if (!isPlainName(name) || (!folder.isEmpty() && !isPlainFolder(folder)))
            return RepositoryIndexer::containedRepositoryFile(relativePath, m_root);
        auto known = m_folders.constFind(folder);
        if (known == m_folders.cend())
            known = m_folders.insert(
                folder, folder.isEmpty() ? m_root : QFileInfo(m_root + QLatin1Char('/') + folder).canonicalFilePath());
        if (known->isEmpty())
            return std::nullopt;
        const QString candidate = *known + QLatin1Char('/') + name;
        struct stat info {};
        if (::lstat(QFile::encodeName(candidate).constData(), &info) != 0)
            return std::nullopt;
        if (S_ISLNK(info.st_mode))
            return RepositoryIndexer::containedRepositoryFile(relativePath, m_root);
        if (!S_ISREG(info.st_mode) || !candidate.startsWith(m_rootPrefix))
            return std::nullopt;
        return candidate;
    }

private:
    static bool isPlainName(QStringView part) {
        return !part.isEmpty() && part != QLatin1String(".") && part != QLatin1String("..");
    }
    static bool isPlainFolder(const QString &folder) {
        for (const QStringView part : QStringView(folder).split(QLatin1Char('/'))) {
            if (!isPlainName(part))
                return false;
        }
        return true;
    }

    QString m_root;
    QString m_rootPrefix;
    QHash<QString, QString> m_folders;
};

} // namespace

std::optional<QString> RepositoryIndexer::findRepositoryRoot(const QString &startingAt) {
    if (startingAt.isEmpty())
        return std::nullopt;
    QString directory = standardized(startingAt);
    const QFileInfo start(directory);
    if (start.exists() && !start.isDir())
        directory = standardized(start.absolutePath());
    while (true) {
        if (directory == QLatin1String("/"))
            return std::nullopt;
        if (QFileInfo::exists(directory + QStringLiteral("/.git")))
            return directory;
        const QString parent = QDir::cleanPath(directory + QStringLiteral("/.."));
        if (parent == directory)
            return std::nullopt;
        directory = parent;
    }
}

QCoro::Task<RepositoryContext> RepositoryIndexer::index(QString root, std::optional<QStringList> trackedFiles) const {
    // Copied before the first suspension: the indexer need not outlive the task.
    const RepositoryIndexLimits limits = m_limits;
    if (!QFileInfo(root).isDir())
        throw QuorvaneError::repositoryUnavailable(QStringLiteral("the repository folder could not be read"));
    QStringList paths;
    if (trackedFiles)
        paths = std::move(*trackedFiles);
    else
        paths = co_await RepositoryIndexer::trackedFiles(root, limits.maxTrackedFiles);
    co_return co_await runOffThread<RepositoryContext>(
        [limits, root, paths = std::move(paths)] { return RepositoryIndexer(limits).indexListed(root, paths); });
}

QCoro::Task<QStringList> RepositoryIndexer::trackedFiles(QString root, int maxFiles) {
    // Inherited Git variables (set when we are started from a hook, say) would point Git at some
    // other repository than the one in the working directory.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char *name : {"GIT_DIR", "GIT_WORK_TREE", "GIT_INDEX_FILE", "GIT_COMMON_DIR", "GIT_OBJECT_DIRECTORY"})
        environment.remove(QString::fromLatin1(name));
    // NUL-separated output keeps unusual file names verbatim instead of C-quoted. A Git stuck on a
    // network file system must not hold Prompt Mode up forever.
    const std::optional<ProgramOutput> git = co_await runProgram(
        QStringLiteral("/usr/bin/git"), {QStringLiteral("ls-files"), QStringLiteral("-z")}, root, environment, 10'000);
    if (!git || git->exitCode != 0)
        co_return QStringList{};
    co_return trackedFilesFromListing(git->standardOutput, maxFiles);
}

QStringList RepositoryIndexer::trackedFilesFromListing(const QByteArray &output, int maxFiles) {
    QStringList paths;
    for (const QByteArray &entry : output.split('\0')) {
        if (paths.size() >= maxFiles)
            break;
        if (!entry.isEmpty())
            paths << QString::fromUtf8(entry);
    }
    return paths;
}

RepositoryContext RepositoryIndexer::indexListed(const QString &root, const QStringList &trackedFiles) const {
    const QString rootPath = standardized(root);
    const QString canonicalRoot = QFileInfo(rootPath).canonicalFilePath();

    struct Surviving {
        QString relativePath;
        QString canonicalPath;
    };
    QList<Surviving> surviving;
    ContainedFileResolver resolver(canonicalRoot);
    const qsizetype considered = std::min<qsizetype>(trackedFiles.size(), std::max(m_limits.maxTrackedFiles, 0));
    for (qsizetype i = 0; i < considered && !canonicalRoot.isEmpty(); ++i) {
        const QString &path = trackedFiles.at(i);
        if (isExcluded(path))
            continue;
        if (auto canonical = resolver.resolve(path))
            surviving.append({path, *canonical});
    }

    RepositoryContext context;
    context.rootPath = rootPath;
    context.name = QFileInfo(rootPath).fileName();
    context.branch = branchName(rootPath);

    QHash<QString, int> languageCounts;
    QHash<QString, int> termCounts;
    int sourceFilesRead = 0;
    for (const Surviving &file : surviving) {
        if (context.keyFiles.size() < m_limits.maxKeyFiles && isKeyFile(file.relativePath))
            context.keyFiles << file.relativePath;
        const auto fileLanguage = language(file.relativePath);
        if (!fileLanguage)
            continue;
        ++languageCounts[*fileLanguage];
        if (sourceFilesRead >= m_limits.maxSourceFiles)
            continue;
        ++sourceFilesRead;
        const auto text = readPrefix(file.canonicalPath, m_limits.maxBytesPerSourceFile);
        if (!text)
            continue;
        for (const QString &term : extractIdentifiers(*text))
            ++termCounts[term];
    }
    context.languages = byFallingCount(languageCounts, std::numeric_limits<int>::max());
    // Judged once per distinct name rather than once per occurrence.
    termCounts.removeIf([](const auto &entry) { return !isUsefulTerm(entry.key()); });
    context.vocabulary = byFallingCount(termCounts, m_limits.maxVocabularyTerms);
    return context;
}

bool RepositoryIndexer::isExcluded(const QString &relativePath) {
    if (relativePath.startsWith(QLatin1Char('/')))
        return true;
    QStringView last;
    // Compared in place, without a lower-cased copy of every component of every tracked path.
    for (const QStringView component : QStringView(relativePath).split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        for (const QString &name : excludedDirectories()) {
            if (component.size() == name.size() && component.compare(name, Qt::CaseInsensitive) == 0)
                return true;
        }
        last = component;
    }
    if (last.isEmpty())
        return true;
    const QString lowered = last.toString().toLower();
    if (excludedFileNames().contains(lowered) || lowered.startsWith(QLatin1String(".env.")))
        return true;
    return std::any_of(excludedSuffixes().cbegin(), excludedSuffixes().cend(),
                       [&lowered](const QString &suffix) { return lowered.endsWith(suffix); });
}

std::optional<QString> RepositoryIndexer::containedRepositoryFile(const QString &relativePath,
                                                                  const QString &canonicalRoot) {
    const QFileInfo file(canonicalRoot + QLatin1Char('/') + relativePath);
    // Empty when the file (or the target of a link on its way) does not exist.
    const QString canonical = file.canonicalFilePath();
    if (canonical.isEmpty() || !canonical.startsWith(canonicalRoot + QLatin1Char('/')))
        return std::nullopt;
    if (!QFileInfo(canonical).isFile())
        return std::nullopt;
    return canonical;
}

bool RepositoryIndexer::isKeyFile(const QString &relativePath) {
    return keyFileNames().contains(Text::lower(lastComponent(relativePath)));
}

bool RepositoryIndexer::isUsefulTerm(const QString &term) {
    if (term.size() < 3 || term.size() > 80)
        return false;
    bool hasLetter = false;
    for (char32_t c : Text::codePoints(term)) {
        if (Text::isWhitespaceOrNewline(c))
            return false;
        hasLetter = hasLetter || Text::isLetter(c);
    }
    return hasLetter && !genericWords().contains(Text::lower(term));
}

std::optional<QString> RepositoryIndexer::language(const QString &relativePath) {
    const QString name = lastComponent(relativePath);
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    // A leading dot marks a hidden file, not an extension (".bashrc").
    if (dot <= 0 || dot == name.size() - 1)
        return std::nullopt;
    const auto it = languagesByExtension().constFind(Text::lower(name.mid(dot + 1)));
    if (it == languagesByExtension().cend())
        return std::nullopt;
    return *it;
}

QStringList RepositoryIndexer::extractIdentifiers(const QString &text) {
    using namespace Qt::Literals::StringLiterals;
    QStringList identifiers;
    collectDeclared(
        text, {"class"_L1, "struct"_L1, "enum"_L1, "protocol"_L1, "actor"_L1, "interface"_L1, "trait"_L1, "type"_L1}, 1,
        identifiers);
    collectDeclared(text, {"func"_L1, "function"_L1, "def"_L1, "fn"_L1}, 1, identifiers);
    collectDeclared(text, {"let"_L1, "var"_L1, "const"_L1}, 4, identifiers);
    return identifiers;
}

std::optional<QString> RepositoryIndexer::readPrefix(const QString &path, qint64 maxBytes) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    // Sized by the file: a buffer of the whole allowance would be mapped and zeroed for every file.
    QByteArray bytes = file.read(std::clamp<qint64>(file.size(), 0, std::max<qint64>(maxBytes, 0)));
    if (bytes.size() == maxBytes)
        bytes.truncate(completeUtf8Length(bytes));
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder.decode(bytes);
    if (decoder.hasError())
        return std::nullopt;
    return text;
}

std::optional<QString> RepositoryIndexer::branchName(const QString &root) {
    const QString marker = root + QStringLiteral("/.git");
    QString gitDirectory = marker;
    if (QFileInfo(marker).isFile()) {
        QFile file(marker);
        if (!file.open(QIODevice::ReadOnly))
            return std::nullopt;
        const QString text = QString::fromUtf8(file.read(64 * 1024));
        if (!text.startsWith(QLatin1String("gitdir:")))
            return std::nullopt;
        const QString named = Text::trimmed(text.mid(7).section(QLatin1Char('\n'), 0, 0));
        gitDirectory = QDir::isAbsolutePath(named) ? named : QDir(root).filePath(named);
    }
    QFile head(gitDirectory + QStringLiteral("/HEAD"));
    if (!head.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QString reference = Text::trimmed(QString::fromUtf8(head.read(64 * 1024)));
    const QString prefix = QStringLiteral("ref: refs/heads/");
    if (!reference.startsWith(prefix) || reference.size() == prefix.size())
        return std::nullopt;
    return reference.mid(prefix.size());
}
