#include "app/HistoryWindow.h"
#include "history/Store.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>
#include <QTreeWidget>

namespace {

Utterance entry(int minute, const QString &app, const QString &shipped, const QString &verdict) {
    Utterance u;
    u.id = QStringLiteral("id-%1").arg(minute);
    u.timestamp = QDateTime(QDate::currentDate(), QTime(9, minute));
    u.appName = app;
    u.shippedText = shipped;
    u.rawTranscript = QStringLiteral("raw ") + shipped;
    u.guardVerdict = verdict;
    return u;
}

QStringList row(const QTreeWidgetItem *item) {
    return {item->text(0), item->text(1), item->text(2), item->text(3)};
}

QPushButton *button(const QWidget &window, const QString &text) {
    for (QPushButton *candidate : window.findChildren<QPushButton *>())
        if (candidate->text().startsWith(text))
            return candidate;
    return nullptr;
}

} // namespace

class HistoryWindowTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // Newest first, one line each; copying gives back the whole text as it was typed.
    void showsAndCopiesTheDictations() {
        QTemporaryDir data;
        Store store(data.path());
        store.append(entry(1, QStringLiteral("Terminal"), QStringLiteral("git status"), QStringLiteral("accepted")));
        store.append(entry(2, QStringLiteral("Mail"), QStringLiteral("Dear Ann,\nsee you at noon."),
                           QStringLiteral("rejectedLength")));
        HistoryWindow window(store);
        QTreeWidget *list = window.list();
        QCOMPARE(list->topLevelItemCount(), 2);
        const QString nine = QLocale().toString(QTime(9, 2), QLocale::ShortFormat);
        QCOMPARE(row(list->topLevelItem(0)),
                 (QStringList{nine, "Mail", "Dear Ann, see you at noon.", "rejectedLength"}));
        QCOMPARE(list->topLevelItem(1)->text(1), QStringLiteral("Terminal"));

        list->setCurrentItem(list->topLevelItem(0));
        button(window, QStringLiteral("Copy"))->click();
        QCOMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("Dear Ann,\nsee you at noon."));
    }

    void deleteAllAsksFirst_data() {
        QTest::addColumn<bool>("confirmed");
        QTest::newRow("confirmed") << true;
        QTest::newRow("cancelled") << false;
    }
    void deleteAllAsksFirst() {
        QFETCH(bool, confirmed);
        QTemporaryDir data;
        Store store(data.path());
        store.append(entry(3, QStringLiteral("Editor"), QStringLiteral("hello"), QStringLiteral("accepted")));
        HistoryWindow window(store);
        window.confirm = [&](const QString &, const QString &) { return confirmed; };
        window.deleteAll = [&](std::function<void()> done) {
            store.deleteRetainedData(&window, [done](std::optional<QString>) { done(); });
        };
        button(window, QStringLiteral("Delete All"))->click();
        QTRY_COMPARE(store.totalCount(), confirmed ? 0 : 1);
        QTRY_COMPARE(window.list()->topLevelItemCount(), confirmed ? 0 : 1);
        // Nothing left to copy or delete.
        QCOMPARE(button(window, QStringLiteral("Copy"))->isEnabled(), !confirmed);
        QCOMPARE(button(window, QStringLiteral("Delete All"))->isEnabled(), !confirmed);
    }
};

QTEST_MAIN(HistoryWindowTest)
#include "tst_history_window.moc"
