#include "app/HistoryWindow.h"

#include "history/Store.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLocale>
#include <QPointer>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace {

enum Column { timeColumn, appColumn, textColumn, verdictColumn };

QString when(const QDateTime &timestamp) {
    const QDateTime local = timestamp.toLocalTime();
    const QString time = QLocale().toString(local.time(), QLocale::ShortFormat);
    if (local.date() == QDate::currentDate())
        return time;
    return QLocale().toString(local.date(), QLocale::ShortFormat) + QLatin1Char(' ') + time;
}

} // namespace

HistoryWindow::HistoryWindow(Store &store) : m_store(store) {
    setWindowTitle(title());
    auto *layout = new QVBoxLayout(this);
    m_list = new QTreeWidget;
    m_list->setRootIsDecorated(false);
    m_list->setUniformRowHeights(true);
    m_list->setHeaderLabels(
        {QStringLiteral("Time"), QStringLiteral("Application"), QStringLiteral("Text"), QStringLiteral("Verdict")});
    m_list->header()->setSectionResizeMode(textColumn, QHeaderView::Stretch);
    m_list->header()->setStretchLastSection(false);
    connect(m_list, &QTreeWidget::itemSelectionChanged, this, &HistoryWindow::updateButtons);
    connect(m_list, &QTreeWidget::itemDoubleClicked, this, &HistoryWindow::copySelected);
    layout->addWidget(m_list);

    auto *buttons = new QHBoxLayout;
    m_copy = new QPushButton(QStringLiteral("Copy Text"));
    m_delete = new QPushButton(QStringLiteral("Delete All\u2026"));
    connect(m_copy, &QPushButton::clicked, this, &HistoryWindow::copySelected);
    connect(m_delete, &QPushButton::clicked, this, &HistoryWindow::deleteEverything);
    buttons->addWidget(m_delete);
    buttons->addStretch();
    buttons->addWidget(m_copy);
    layout->addLayout(buttons);
    resize(720, 420);
    reload();
}

HistoryWindow::~HistoryWindow() = default;

void HistoryWindow::reload() {
    m_list->clear();
    for (const Utterance &entry : m_store.recentEntries(shownEntries)) {
        auto *item = new QTreeWidgetItem(m_list);
        item->setText(timeColumn, when(entry.timestamp));
        item->setToolTip(timeColumn, QLocale().toString(entry.timestamp.toLocalTime(), QLocale::LongFormat));
        item->setText(appColumn, entry.appName.value_or(entry.appBundleID.value_or(QString())));
        // One line per entry in the list; the whole text is what gets copied.
        item->setText(textColumn, entry.shippedText.simplified());
        item->setToolTip(textColumn, entry.shippedText);
        item->setData(textColumn, Qt::UserRole, entry.shippedText);
        item->setText(verdictColumn, entry.guardVerdict);
    }
    m_list->resizeColumnToContents(timeColumn);
    m_list->resizeColumnToContents(appColumn);
    m_list->resizeColumnToContents(verdictColumn);
    if (m_list->topLevelItemCount() > 0)
        m_list->setCurrentItem(m_list->topLevelItem(0));
    updateButtons();
}

void HistoryWindow::copySelected() {
    const QTreeWidgetItem *item = m_list->currentItem();
    if (!item)
        return;
    QGuiApplication::clipboard()->setText(item->data(textColumn, Qt::UserRole).toString());
}

void HistoryWindow::deleteEverything() {
    if (!deleteAll || (confirm && !confirm(QStringLiteral("Delete all history?"),
                                           QStringLiteral("Quorvane deletes its history and its recordings. "
                                                          "This cannot be undone."))))
        return;
    QPointer<HistoryWindow> self(this);
    deleteAll([self] {
        if (self)
            self->reload();
    });
}

void HistoryWindow::updateButtons() {
    m_copy->setEnabled(m_list->currentItem() != nullptr);
    m_delete->setEnabled(m_list->topLevelItemCount() > 0);
}
