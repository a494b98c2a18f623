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
#include <array>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <limits>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace Qt::Literals::StringLiterals;

// The name tables are compared in place, case-insensitively, against views into the tracked paths:
// lower-cased copies of every component of thousands of paths were much of the index's time.
constexpr QLatin1StringView keyFileNames[] = {
    "package.swift"_L1,
    "package.json"_L1,
    "pyproject.toml"_L1,
    "cargo.toml"_L1,
    "go.mod"_L1,
    "gemfile"_L1,
    "pom.xml"_L1,
    "build.gradle"_L1,
    "build.gradle.kts"_L1,
    "dockerfile"_L1,
    "docker-compose.yml"_L1,
    "docker-compose.yaml"_L1,
    "readme.md"_L1,
    "agents.md"_L1,
    "claude.md"_L1,
    "makefile"_L1,
};

constexpr QLatin1StringView excludedDirectories[] = {
    ".git"_L1,     ".build"_L1, "build"_L1,       "dist"_L1,    "node_modules"_L1, "vendor"_L1,
    "vendors"_L1,  "pods"_L1,   "deriveddata"_L1, ".venv"_L1,   "venv"_L1,         "target"_L1,
    "coverage"_L1, ".next"_L1,  ".cache"_L1,      "secrets"_L1, "secret"_L1,
};

constexpr QLatin1StringView excludedFileNames[] = {
    ".env"_L1,         "secrets.plist"_L1, "credentials.json"_L1, "credentials.yaml"_L1, "credentials.yml"_L1,
    "secrets.json"_L1, "id_rsa"_L1,        "id_ed25519"_L1,       "known_hosts"_L1,      ".npmrc"_L1,
    ".pypirc"_L1,
};

constexpr QLatin1StringView excludedSuffixes[] = {
    ".pem"_L1, ".key"_L1, ".p12"_L1, ".pfx"_L1, ".mobileprovision"_L1, ".dmg"_L1, ".zip"_L1,
};

// A name as the lower-case tables see it: ASCII compared in place, anything else through the
// lower-cased copy the rules are defined by (folding and lower-casing differ outside ASCII).
class LowerCaseName {
public:
    explicit LowerCaseName(QStringView name) : m_view(name) {
        if (std::any_of(name.begin(), name.end(), [](QChar c) { return c.unicode() >= 0x80; })) {
            m_copy = Text::lower(name.toString());
            m_view = m_copy;
            m_case = Qt::CaseSensitive;
        }
    }
    LowerCaseName(const LowerCaseName &) = delete;
    LowerCaseName &operator=(const LowerCaseName &) = delete;

    bool is(QLatin1StringView entry) const {
        return m_view.size() == entry.size() && m_view.compare(entry, m_case) == 0;
    }
    template <std::size_t N> bool isAnyOf(const QLatin1StringView (&table)[N]) const {
        return std::any_of(std::begin(table), std::end(table), [this](QLatin1StringView entry) { return is(entry); });
    }
    bool startsWith(QLatin1StringView prefix) const { return m_view.startsWith(prefix, m_case); }
    bool endsWith(QLatin1StringView suffix) const { return m_view.endsWith(suffix, m_case); }

private:
    QString m_copy;
    QStringView m_view;
    Qt::CaseSensitivity m_case = Qt::CaseInsensitive;
};

bool isExcludedDirectory(QStringView component) {
    // Folded rather than lower-cased: outside ASCII that catches a few more names, which for secrets is harmless.
    return std::any_of(std::begin(excludedDirectories), std::end(excludedDirectories), [component](auto name) {
        return component.size() == name.size() && component.compare(name, Qt::CaseInsensitive) == 0;
    });
}

bool isExcludedFileName(QStringView last) {
    const LowerCaseName name(last);
    if (name.isAnyOf(excludedFileNames) || name.startsWith(".env."_L1))
        return true;
    return std::any_of(std::begin(excludedSuffixes), std::end(excludedSuffixes),
                       [&name](QLatin1StringView suffix) { return name.endsWith(suffix); });
}

bool isKeyFileName(QStringView last) {
    return LowerCaseName(last).isAnyOf(keyFileNames);
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

struct LanguageEntry {
    QLatin1StringView extension;
    QLatin1StringView language;
};

constexpr LanguageEntry languagesByExtension[] = {
    {"swift"_L1, "Swift"_L1},   {"m"_L1, "Objective-C"_L1},  {"mm"_L1, "Objective-C"_L1}, {"ts"_L1, "TypeScript"_L1},
    {"js"_L1, "JavaScript"_L1}, {"jsx"_L1, "JavaScript"_L1}, {"cjs"_L1, "JavaScript"_L1}, {"py"_L1, "Python"_L1},
    {"rs"_L1, "Rust"_L1},       {"go"_L1, "Go"_L1},          {"java"_L1, "Java"_L1},      {"kt"_L1, "Kotlin"_L1},
    {"rb"_L1, "Ruby"_L1},       {"php"_L1, "PHP"_L1},        {"cs"_L1, "C#"_L1},          {"c"_L1, "C"_L1},
    {"h"_L1, "C"_L1},           {"cc"_L1, "C++"_L1},         {"cpp"_L1, "C++"_L1},        {"cxx"_L1, "C++"_L1},
    {"c++"_L1, "C++"_L1},       {"hpp"_L1, "C++"_L1},        {"hh"_L1, "C++"_L1},         {"hxx"_L1, "C++"_L1},
    {"h++"_L1, "C++"_L1},       {"ipp"_L1, "C++"_L1},        {"tpp"_L1, "C++"_L1},        {"ixx"_L1, "C++"_L1},
    {"cppm"_L1, "C++"_L1},      {"sh"_L1, "Shell"_L1},       {"bash"_L1, "Shell"_L1},     {"zsh"_L1, "Shell"_L1},
    {"sql"_L1, "SQL"_L1},       {"html"_L1, "Web"_L1},       {"scss"_L1, "Web"_L1},
};

QStringView lastComponentView(QStringView relativePath) {
    return relativePath.sliced(relativePath.lastIndexOf(u'/') + 1);
}

// The language of a file's last path component, by its extension.
std::optional<QLatin1StringView> languageOfName(QStringView name) {
    const qsizetype dot = name.lastIndexOf(u'.');
    // A leading dot marks a hidden file, not an extension (".bashrc").
    if (dot <= 0 || dot == name.size() - 1)
        return std::nullopt;
    const LowerCaseName extension(name.sliced(dot + 1));
    for (const LanguageEntry &entry : languagesByExtension) {
        if (extension.is(entry.extension))
            return entry.language;
    }
    return std::nullopt;
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

// The three kinds of declaration, in the order their names are listed: types, functions, then
// variables and constants of at least four characters.
struct DeclarationKind {
    std::initializer_list<QLatin1StringView> keywords;
    qsizetype minLength;
};
const DeclarationKind declarationKinds[] = {
    {{"class"_L1, "struct"_L1, "enum"_L1, "protocol"_L1, "actor"_L1, "interface"_L1, "trait"_L1, "type"_L1}, 1},
    {{"func"_L1, "function"_L1, "def"_L1, "fn"_L1}, 1},
    {{"let"_L1, "var"_L1, "const"_L1}, 4},
};
constexpr std::size_t declarationKindCount = std::size(declarationKinds);

qsizetype identifierEnd(QStringView text, qsizetype at) {
    while (at < text.size() && isIdentifierPart(text[at]))
        ++at;
    return at;
}

// Every "<keyword> <identifier>" of the text, for each kind left to right without overlaps: a keyword
// that starts a word, white space, then an ASCII identifier of at least the kind's length. The same as
// matching \b(?:keywords)\s+([A-Za-z_][A-Za-z0-9_]{minLength-1,}) globally once per kind, in one pass
// by hand: the text of every source file read goes through it. A keyword is followed by white space,
// so it is a whole ASCII word; words are stepped over whole.
template <typename Found> void forEachDeclared(QStringView text, Found found) {
    const qsizetype size = text.size();
    // Where each kind's previous match ended: its matches do not overlap.
    std::array<qsizetype, declarationKindCount> consumed{};
    qsizetype at = 0;
    while (at < size) {
        if (!isIdentifierStart(text[at])) {
            ++at;
            continue;
        }
        const qsizetype wordEnd = identifierEnd(text, at);
        if (followsWordCharacter(text, at)) {
            at = wordEnd;
            continue;
        }
        const QStringView word = text.sliced(at, wordEnd - at);
        for (std::size_t kind = 0; kind < declarationKindCount; ++kind) {
            const auto &keywords = declarationKinds[kind].keywords;
            if (at < consumed[kind] || std::find(keywords.begin(), keywords.end(), word) == keywords.end())
                continue;
            qsizetype name = wordEnd;
            while (name < size && Text::isWhitespaceOrNewline(text[name].unicode()))
                ++name;
            if (name == wordEnd || name == size || !isIdentifierStart(text[name]))
                break;
            const qsizetype end = identifierEnd(text, name + 1);
            if (end - name >= declarationKinds[kind].minLength) {
                found(kind, text.sliced(name, end - name));
                consumed[kind] = end;
            }
            break;
        }
        at = wordEnd;
    }
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

// Resolves the many paths of one repository. Each folder is resolved once, from its parent, following
// nothing unless it is a link, and is held open while its files are looked at (Git lists them
// together). A folder's first file costs one fstatat of its name; from its second on, the folder's
// entries are read in a few calls and their types looked up. A system call costs about a microsecond
// on the machines we measured, and a stat of every tracked file's whole path used to be most of the
// index's time.
class ContainedFileResolver {
public:
    explicit ContainedFileResolver(QString canonicalRoot)
        : m_root(std::move(canonicalRoot)), m_rootPrefix(m_root + QLatin1Char('/')) {
        m_folders.insert(QString(), m_root);
    }
    ~ContainedFileResolver() { leaveFolder(); }
    ContainedFileResolver(const ContainedFileResolver &) = delete;
    ContainedFileResolver &operator=(const ContainedFileResolver &) = delete;

    std::optional<QString> resolve(const QString &relativePath) {
        const qsizetype slash = relativePath.lastIndexOf(QLatin1Char('/'));
        const QStringView folder = QStringView(relativePath).first(std::max<qsizetype>(slash, 0));
        const QStringView name = QStringView(relativePath).sliced(slash + 1);
        // Anything unusual ("..", "./", "//") takes the thorough way.
        if (!isPlainName(name) || (!folder.isEmpty() && !isPlainFolder(folder)))
            return RepositoryIndexer::containedRepositoryFile(relativePath, m_root);
        if (!enterFolder(folder))
            return std::nullopt;
        switch (typeOf(encoded(name))) {
        case Type::regular:
            break;
        case Type::link:
            return RepositoryIndexer::containedRepositoryFile(relativePath, m_root);
        case Type::other:
            return std::nullopt;
        }
        QString canonical;
        canonical.reserve(m_folderPath.size() + 1 + name.size());
        canonical.append(m_folderPath).append(QLatin1Char('/')).append(name);
        return canonical;
    }

private:
    enum class Type { regular, link, other };
    struct Entry {
        quint32 offset;
        quint32 length;
        unsigned char type;
    };
    // Enough for any source folder; a larger one is read no further and its other names are asked for.
    static constexpr std::size_t maxListedEntries = 8192;

    Type typeOf(const std::string &name) {
        if (++m_lookupsInFolder == 2)
            listFolder();
        if (m_listed) {
            const auto found = std::lower_bound(m_entries.cbegin(), m_entries.cend(), name,
                                                [this](const Entry &e, const std::string &n) { return nameOf(e) < n; });
            const bool listed = found != m_entries.cend() && nameOf(*found) == name;
            // Some file systems leave the type to a stat.
            if (listed && found->type != DT_UNKNOWN)
                return found->type == DT_REG ? Type::regular : found->type == DT_LNK ? Type::link : Type::other;
            if (!listed && m_listedAll)
                return Type::other;
        }
        struct stat info {};
        if (::fstatat(m_folderFd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
            return Type::other;
        return S_ISREG(info.st_mode) ? Type::regular : S_ISLNK(info.st_mode) ? Type::link : Type::other;
    }

    std::string_view nameOf(const Entry &entry) const {
        return std::string_view(m_names).substr(entry.offset, entry.length);
    }

    void listFolder() {
        m_entries.clear();
        m_names.clear();
        m_listedAll = false;
        m_listed = true;
        // A duplicate, because closedir closes the descriptor it was given and ours stays in use.
        const int listing = ::fcntl(m_folderFd, F_DUPFD_CLOEXEC, 0);
        DIR *directory = listing >= 0 ? ::fdopendir(listing) : nullptr;
        if (!directory) {
            if (listing >= 0)
                ::close(listing);
            m_listed = false;
            return;
        }
        ::rewinddir(directory);
        while (m_entries.size() < maxListedEntries) {
            errno = 0;
            const dirent *entry = ::readdir(directory);
            if (!entry) {
                // An error part way leaves the listing unused: each name is then asked for itself.
                m_listedAll = errno == 0;
                m_listed = m_listedAll;
                break;
            }
            const std::size_t length = std::strlen(entry->d_name);
            m_entries.push_back({quint32(m_names.size()), quint32(length), entry->d_type});
            m_names.append(entry->d_name, length);
        }
        ::closedir(directory);
        std::sort(m_entries.begin(), m_entries.end(),
                  [this](const Entry &a, const Entry &b) { return nameOf(a) < nameOf(b); });
    }

    // A NUL would cut the name short where the file system reads it.
    static bool isPlainName(QStringView part) {
        return !part.isEmpty() && part != QLatin1String(".") && part != QLatin1String("..") && !part.contains(QChar(0));
    }
    static bool isPlainFolder(QStringView folder) {
        for (const QStringView part : folder.split(QLatin1Char('/'))) {
            if (!isPlainName(part))
                return false;
        }
        return true;
    }

    bool enterFolder(QStringView folder) {
        if (m_inFolder && folder == m_folder)
            return m_folderFd >= 0;
        leaveFolder();
        m_inFolder = true;
        m_folder = folder.toString();
        m_folderPath = canonicalFolder(m_folder);
        if (!m_folderPath.isEmpty())
            m_folderFd = ::open(QFile::encodeName(m_folderPath).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        return m_folderFd >= 0;
    }

    void leaveFolder() {
        if (m_folderFd >= 0)
            ::close(m_folderFd);
        m_folderFd = -1;
        m_inFolder = false;
        m_listed = false;
        m_lookupsInFolder = 0;
    }

    // The folder's path with links resolved, empty when it is no folder under the root.
    QString canonicalFolder(const QString &folder) {
        if (const auto known = m_folders.constFind(folder); known != m_folders.cend())
            return *known;
        const qsizetype slash = folder.lastIndexOf(QLatin1Char('/'));
        const QString parent = canonicalFolder(slash < 0 ? QString() : folder.left(slash));
        QString resolved;
        if (!parent.isEmpty()) {
            const QString path = parent + QLatin1Char('/') + folder.sliced(slash + 1);
            struct stat info {};
            if (::lstat(QFile::encodeName(path).constData(), &info) == 0) {
                if (S_ISDIR(info.st_mode)) {
                    resolved = path;
                } else if (S_ISLNK(info.st_mode)) {
                    const QFileInfo target(QFileInfo(path).canonicalFilePath());
                    const QString targetPath = target.filePath();
                    if (target.isDir() && (targetPath == m_root || targetPath.startsWith(m_rootPrefix)))
                        resolved = targetPath;
                }
            }
        }
        m_folders.insert(folder, resolved);
        return resolved;
    }

    // The name as the file system takes it, in a buffer reused for every file.
    const std::string &encoded(QStringView name) {
        m_name.clear();
        for (const QChar c : name) {
            if (c.unicode() >= 0x80) {
                m_name = QFile::encodeName(name.toString()).toStdString();
                break;
            }
            m_name.push_back(static_cast<char>(c.unicode()));
        }
        return m_name;
    }

    QString m_root;
    QString m_rootPrefix;
    QHash<QString, QString> m_folders;
    bool m_inFolder = false;
    QString m_folder;
    QString m_folderPath;
    int m_folderFd = -1;
    int m_lookupsInFolder = 0;
    bool m_listed = false;
    bool m_listedAll = false;
    std::vector<Entry> m_entries;
    std::string m_names;
    std::string m_name;
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
        std::optional<QLatin1StringView> language;
        bool key;
    };
    QList<Surviving> surviving;
    ContainedFileResolver resolver(canonicalRoot);
    const qsizetype considered = std::min<qsizetype>(trackedFiles.size(), std::max(m_limits.maxTrackedFiles, 0));
    for (qsizetype i = 0; i < considered && !canonicalRoot.isEmpty(); ++i) {
        const QString &path = trackedFiles.at(i);
        if (isExcluded(path))
            continue;
        const QStringView name = lastComponentView(path);
        const bool key = isKeyFileName(name);
        const std::optional<QLatin1StringView> fileLanguage = languageOfName(name);
        // A file that is neither a key file nor source adds no fact: the disk need not be asked.
        if (!key && !fileLanguage)
            continue;
        if (auto canonical = resolver.resolve(path))
            surviving.append({path, std::move(*canonical), fileLanguage, key});
    }

    RepositoryContext context;
    context.rootPath = rootPath;
    context.name = QFileInfo(rootPath).fileName();
    context.branch = branchName(rootPath);

    QHash<QLatin1StringView, int> languageCounts;
    QHash<QString, int> termCounts;
    int sourceFilesRead = 0;
    for (const Surviving &file : surviving) {
        if (file.key && context.keyFiles.size() < m_limits.maxKeyFiles)
            context.keyFiles << file.relativePath;
        if (!file.language)
            continue;
        ++languageCounts[*file.language];
        if (sourceFilesRead >= m_limits.maxSourceFiles)
            continue;
        ++sourceFilesRead;
        const auto text = readPrefix(file.canonicalPath, m_limits.maxBytesPerSourceFile);
        if (!text)
            continue;
        // Counted against the file's own text first: one copy of each distinct name per file.
        QHash<QStringView, int> inFile;
        forEachDeclared(*text, [&inFile](std::size_t, QStringView name) { ++inFile[name]; });
        for (auto it = inFile.cbegin(); it != inFile.cend(); ++it)
            termCounts[it.key().toString()] += it.value();
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
    for (const QStringView component : QStringView(relativePath).split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        if (isExcludedDirectory(component))
            return true;
        last = component;
    }
    return last.isEmpty() || isExcludedFileName(last);
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
    return isKeyFileName(lastComponentView(relativePath));
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
    if (const auto found = languageOfName(lastComponentView(relativePath)))
        return QString(*found);
    return std::nullopt;
}

QStringList RepositoryIndexer::extractIdentifiers(const QString &text) {
    std::array<QStringList, declarationKindCount> byKind;
    forEachDeclared(text, [&byKind](std::size_t kind, QStringView name) { byKind[kind] << name.toString(); });
    QStringList identifiers;
    for (const QStringList &names : byKind)
        identifiers << names;
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
