#include "repository/RepositoryCandidateSelector.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

namespace {

// One process: id, parent id, command line, working directory relative to the scratch folder
// ("-" for a directory that could not be read).
struct Row {
    qint32 id;
    qint32 parent;
    const char *command;
    const char *directory;
};

} // namespace

Q_DECLARE_METATYPE(QList<Row>)

class TestRepositoryCandidateSelector : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        QVERIFY(m_scratch.isValid());
        m_base = QFileInfo(m_scratch.path()).canonicalFilePath() + '/';
        for (const char *path : {"a/.git", "a/x/y", "b/.git", "b/1/2/3", "out/1/2/3"})
            QVERIFY(QDir().mkpath(m_base + path));
    }

    // Repositories "a" and "b"; "out" is in none. The frontmost application is always process 100.
    void select_data() {
        QTest::addColumn<QList<Row>>("rows");
        QTest::addColumn<QString>("expected");
        // Two tabs, each a login shell with one program at the same depth.
        QTest::newRow("agent in A beats a deeper shell in B")
            << QList<Row>{{100, 1, "Terminal", "out"},     {101, 100, "login -pf me", "-"},
                          {102, 101, "-zsh", "a"},         {103, 102, "node /opt/homebrew/bin/claude", "a"},
                          {104, 100, "login -pf me", "-"}, {105, 104, "-zsh", "b/1/2/3"},
                          {106, 105, "vim", "b/1/2/3"}}
            << "a";
        QTest::newRow("outside any repository is ignored")
            << QList<Row>{{100, 1, "term", "-"}, {101, 100, "zsh", "a"}, {102, 101, "vim", "out/1/2/3"}} << "a";
        QTest::newRow("a parent-id cycle terminates")
            << QList<Row>{{100, 1, "term", "b"}, {200, 201, "claude", "a"}, {201, 200, "claude", "a"}} << "b";
        QTest::newRow("not a descendant of the frontmost")
            << QList<Row>{{100, 1, "term", "-"}, {101, 100, "zsh", "b"}, {300, 1, "/usr/bin/claude", "a"}} << "b";
        QTest::newRow("a child beats its parent")
            << QList<Row>{{100, 1, "term", "-"}, {101, 100, "zsh", "a/x/y"}, {102, 101, "make", "b"}} << "b";
        QTest::newRow("an editor helper beats a deeper shell")
            << QList<Row>{{100, 1, "Code", "-"}, {101, 100, "Code Helper", "a"}, {102, 101, "zsh", "b/1/2/3"}} << "a";
        QTest::newRow("a deeper directory breaks the tie")
            << QList<Row>{{100, 1, "term", "-"}, {101, 100, "zsh", "b"}, {102, 100, "zsh", "a/x/y"}} << "a/x/y";
        QTest::newRow("equal scores go to the lower id")
            << QList<Row>{{100, 1, "term", "-"}, {102, 100, "zsh", "b"}, {101, 100, "zsh", "a"}} << "a";
    }
    void select() {
        QFETCH(QList<Row>, rows);
        QFETCH(QString, expected);
        QMap<qint32, ProcessWorkingDirectory> table;
        for (const Row &row : rows) {
            const QString directory = qstrcmp(row.directory, "-") == 0 ? QString() : m_base + row.directory;
            table.insert(row.id, {row.id, row.parent, row.command, directory});
        }
        QCOMPARE(RepositoryCandidateSelector::select(100, table), m_base + expected);
    }

private:
    QTemporaryDir m_scratch;
    QString m_base;
};

QTEST_GUILESS_MAIN(TestRepositoryCandidateSelector)
#include "tst_repository_candidate_selector.moc"
