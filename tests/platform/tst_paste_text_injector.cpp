#include "LogRecorder.h"
#include "ScriptedTextBackend.h"
#include "core/Scheduler.h"
#include "platform/PasteTextInjector.h"

#include <QTest>

namespace {

using Case = QuorvaneError::Case;
using Clipboard = DesktopTextBackend::ClipboardSnapshot;
using Element = ScriptedTextBackend::Element;

// Two items, one of them in two formats, one holding bytes that are not text.
Clipboard richClipboard() {
    return {{{"text/plain;charset=utf-8", "first"}, {"text/html", "<b>first</b>"}},
            {{"image/png", QByteArray("\x89PNG\r\n\x1a\n\0\0\xff", 11)}}};
}

Element selecting(const QString &text) {
    Element element;
    element.selectedText = text;
    element.range = TextSelectionRange{7, qint64(text.size())};
    return element;
}

std::optional<QuorvaneError> failureOf(const std::function<void()> &action) {
    try {
        action();
    } catch (const QuorvaneError &error) {
        return error;
    }
    return std::nullopt;
}

} // namespace

class TestPasteTextInjector : public QObject {
    Q_OBJECT

private slots:
    // Refusals happen before the clipboard is read or written, so the user's copy is never at risk.
    void refusesWithoutTouchingClipboard_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("trusted");
        QTest::addColumn<QStringList>("roles");
        QTest::addColumn<int>("error");
        QTest::newRow("empty text") << "" << false << QStringList{"AXSecureTextField"} << -1;
        QTest::newRow("not trusted") << "hello" << false << QStringList{"AXTextField"}
                                     << int(Case::accessibilityDenied);
        QTest::newRow("secure role") << "hello" << true << QStringList{"AXSecureTextField"}
                                     << int(Case::secureTextSelected);
        QTest::newRow("secure subrole") << "hello" << true << QStringList{"AXTextField", "AXSecureTextField"}
                                        << int(Case::secureTextSelected);
        QTest::newRow("password text") << "hello" << true << QStringList{"password text"}
                                       << int(Case::secureTextSelected);
    }
    void refusesWithoutTouchingClipboard() {
        QFETCH(QString, text);
        QFETCH(bool, trusted);
        QFETCH(QStringList, roles);
        QFETCH(int, error);
        auto backend = std::make_shared<ScriptedTextBackend>();
        backend->trusted = trusted;
        backend->element->roles = roles;
        backend->clipboard = richClipboard();
        ManualScheduler scheduler;
        PasteTextInjector injector(backend, scheduler);

        const std::optional<QuorvaneError> failure = failureOf([&] { injector.inject(text); });
        QCOMPARE(failure ? int(failure->errorCase()) : -1, error);
        QCOMPARE(backend->clipboard, richClipboard());
        QCOMPARE(backend->changeCount(), 0);
        QVERIFY(backend->pasted.isEmpty());
        QCOMPARE(scheduler.pendingCount(), 0u);
    }

    // The text is pasted, then the clipboard as it was comes back 350 ms later unless someone
    // else wrote it in between. A clipboard that could not be read is never "restored" by clearing
    // it: the dictated text stays, and says so once per paste.
    void restoresClipboard_data() {
        QTest::addColumn<std::optional<Clipboard>>("before");
        QTest::addColumn<QString>("meanwhile");
        QTest::addColumn<Clipboard>("at350");
        QTest::addColumn<Clipboard>("after");
        QTest::addColumn<int>("warnings");
        const Clipboard rich = richClipboard();
        const Clipboard injected = ScriptedTextBackend::plainText("hello");
        const Clipboard again = ScriptedTextBackend::plainText("again");
        const std::optional<Clipboard> unreadable;
        QTest::newRow("every item and format") << std::optional(rich) << "" << rich << rich << 0;
        QTest::newRow("empty stays empty") << std::optional(Clipboard{}) << "" << Clipboard{} << Clipboard{} << 0;
        const Clipboard mine = ScriptedTextBackend::plainText("mine");
        QTest::newRow("user copies") << std::optional(rich) << "user copies" << mine << mine << 0;
        // The first restore gives way to the second, which brings back the user's clipboard, not
        // the first dictation.
        QTest::newRow("second injection") << std::optional(rich) << "second injection" << again << rich << 0;
        QTest::newRow("chord fails") << std::optional(rich) << "chord fails" << injected << injected << 0;
        QTest::newRow("unreadable") << unreadable << "" << injected << injected << 1;
        // The second paste can read the clipboard (it holds our text), but the user's is still unknown.
        QTest::newRow("unreadable, second injection") << unreadable << "second injection" << again << again << 2;
        // Once the moment to restore has passed, the first dictation is what the user has.
        QTest::newRow("unreadable, later injection") << unreadable << "later injection" << injected << injected << 1;
    }
    void restoresClipboard() {
        QFETCH(std::optional<Clipboard>, before);
        QFETCH(QString, meanwhile);
        QFETCH(Clipboard, at350);
        QFETCH(Clipboard, after);
        QFETCH(int, warnings);
        LogRecorder log;
        auto backend = std::make_shared<ScriptedTextBackend>();
        backend->clipboard = before.value_or(richClipboard());
        backend->ownerHangs = !before;
        backend->chordFails = meanwhile == "chord fails";
        ManualScheduler scheduler;
        PasteTextInjector injector(backend, scheduler);

        const std::optional<QuorvaneError> failure = failureOf([&] { injector.inject("hello"); });
        QCOMPARE(failure.has_value(), backend->chordFails);
        if (failure)
            QCOMPARE(*failure, QuorvaneError::injectionFailed("could not synthesise the paste keystroke"));
        scheduler.advance(100);
        if (meanwhile == "user copies")
            backend->writeText("mine");
        if (meanwhile == "second injection")
            injector.inject("again");
        scheduler.advance(249);
        QCOMPARE(backend->restores, 0);
        scheduler.advance(1);
        QCOMPARE(backend->clipboard, at350);
        if (meanwhile == "later injection")
            injector.inject("again");
        scheduler.advance(1000);
        QCOMPARE(backend->clipboard, after);
        QCOMPARE(scheduler.pendingCount(), 0u);
        const QStringList pasted = backend->chordFails                ? QStringList{}
                                   : meanwhile.endsWith(" injection") ? QStringList{"hello", "again"}
                                                                      : QStringList{"hello"};
        QCOMPARE(backend->pasted, pasted);
        QCOMPARE(log.lines.filter("WARN Your clipboard could not be saved, so the dictated text stays").size(),
                 warnings);
    }

    // Each check in the order it is made; a secure field's selection is never read.
    void captureFailures_data() {
        QTest::addColumn<bool>("trusted");
        QTest::addColumn<std::optional<Element>>("element");
        QTest::addColumn<int>("error");
        QTest::addColumn<QString>("reason");
        QTest::addColumn<bool>("textRead");
        const Element selected = selecting("  some text\n");
        Element secure = selected;
        secure.roles = {"AXTextField", "AXSecureTextField"};
        Element password = selected;
        password.roles = {"password text"};
        Element missing = selected;
        missing.selectedText.reset();
        Element readOnly = selected;
        readOnly.settable = false;
        Element noProcess = selected;
        noProcess.processID.reset();
        Element noRange = selected;
        noRange.range.reset();
        const int unavailable = int(Case::selectionUnavailable);
        QTest::newRow("not trusted") << false << std::optional(selected) << int(Case::accessibilityDenied) << ""
                                     << false;
        QTest::newRow("no focused element")
            << true << std::optional<Element>() << unavailable << "no focused text field" << false;
        QTest::newRow("secure field") << true << std::optional(secure) << int(Case::secureTextSelected) << "" << false;
        QTest::newRow("password text") << true << std::optional(password) << int(Case::secureTextSelected) << ""
                                       << false;
        QTest::newRow("no selected text") << true << std::optional(missing) << int(Case::noTextSelected) << "" << true;
        QTest::newRow("blank selection") << true << std::optional(selecting(" \n\t\u00a0\u2029 "))
                                         << int(Case::noTextSelected) << "" << true;
        QTest::newRow("read-only") << true << std::optional(readOnly) << unavailable
                                   << "the selected content is read-only" << true;
        QTest::newRow("no process") << true << std::optional(noProcess) << unavailable
                                    << "could not identify the destination app" << true;
        QTest::newRow("no range") << true << std::optional(noRange) << unavailable
                                  << "could not verify the selected text range" << true;
    }
    void captureFailures() {
        QFETCH(bool, trusted);
        QFETCH(std::optional<Element>, element);
        QFETCH(int, error);
        QFETCH(QString, reason);
        QFETCH(bool, textRead);
        auto backend = std::make_shared<ScriptedTextBackend>();
        backend->trusted = trusted;
        backend->element = element;
        PasteTextInjector injector(backend);

        const std::optional<QuorvaneError> failure = failureOf([&] { injector.captureSelection(); });
        QVERIFY(failure);
        QCOMPARE(*failure, QuorvaneError(Case(error), reason));
        QCOMPARE(backend->selectedTextReads > 0, textRead);
    }

    // Pasting replaces whatever is selected now, so it happens only over the captured selection.
    void replacesOnlyUnchangedSelection_data() {
        QTest::addColumn<Element>("now");
        QTest::addColumn<bool>("replaced");
        const Element captured = selecting("  teh text ");
        Element moved = captured;
        moved.range = TextSelectionRange{captured.range->location + 20, captured.range->length};
        Element otherProcess = captured;
        otherProcess.processID = *captured.processID + 1;
        QTest::newRow("unchanged") << captured << true;
        QTest::newRow("moved") << moved << false;
        QTest::newRow("other text") << selecting("  the text ") << false;
        QTest::newRow("other process") << otherProcess << false;
    }
    void replacesOnlyUnchangedSelection() {
        QFETCH(Element, now);
        QFETCH(bool, replaced);
        auto backend = std::make_shared<ScriptedTextBackend>();
        backend->element = selecting("  teh text ");
        backend->clipboard = richClipboard();
        ManualScheduler scheduler;
        PasteTextInjector injector(backend, scheduler);
        const SelectedTextSnapshot snapshot = injector.captureSelection();
        // The text exactly as selected: the edit keeps its surrounding white space.
        QCOMPARE(snapshot.text, "  teh text ");

        backend->element = now;
        const std::optional<QuorvaneError> failure =
            failureOf([&] { injector.replaceSelection(snapshot, "the text"); });
        QCOMPARE(failure, replaced ? std::nullopt : std::optional(QuorvaneError(Case::selectionChanged)));
        QCOMPARE(backend->pasted, replaced ? QStringList{"the text"} : QStringList{});
        scheduler.advance(PasteTextInjector::restoreDelayMs);
        QCOMPARE(backend->clipboard, richClipboard());
    }

    // What was read when the key went up serves the paste only while nothing it depends on moved;
    // anything else is read again, and a password field focused meanwhile still gets nothing.
    void earlyReadsStandUntilSomethingMoves_data() {
        QTest::addColumn<QStringList>("earlyRoles");
        QTest::addColumn<QString>("meanwhile");
        QTest::addColumn<QStringList>("rolesNow");
        QTest::addColumn<int>("focusLookups");
        QTest::addColumn<int>("clipboardReads");
        QTest::addColumn<int>("error");
        QTest::addColumn<Clipboard>("restored");
        const QStringList plain{"text"}, password{"password text"};
        const Clipboard rich = richClipboard();
        const Clipboard mine = ScriptedTextBackend::plainText("mine");
        const int secure = int(Case::secureTextSelected);
        QTest::newRow("nothing moved") << plain << "" << plain << 1 << 1 << -1 << rich;
        // Not knowing what the clipboard held is carried to the paste like a snapshot is.
        QTest::newRow("owner hung early")
            << plain << "hung" << plain << 1 << 1 << -1 << ScriptedTextBackend::plainText("hello");
        QTest::newRow("user copied") << plain << "copy" << plain << 1 << 2 << -1 << mine;
        // The snapshot held our earlier text; the restore that landed since brings the user's back.
        QTest::newRow("earlier restore landed") << plain << "restore" << plain << 1 << 3 << -1 << rich;
        QTest::newRow("other window, password") << plain << "window" << password << 2 << 1 << secure << rich;
        QTest::newRow("password focused in window") << plain << "focus" << password << 2 << 1 << secure << rich;
        QTest::newRow("other field in window") << plain << "focus" << plain << 2 << 1 << -1 << rich;
        QTest::newRow("password stays focused") << password << "" << password << 1 << 0 << secure << rich;
        QTest::newRow("left the password field") << password << "focus" << plain << 2 << 1 << -1 << rich;
        QTest::newRow("nothing focused early") << QStringList{} << "" << password << 2 << 1 << secure << rich;
        QTest::newRow("backend cannot confirm") << plain << "unconfirmed" << password << 1 << 0 << secure << rich;
        QTest::newRow("read too long ago") << plain << "wait" << plain << 2 << 2 << -1 << rich;
        // Reads brought up to date again keep what still holds and serve the paste.
        QTest::newRow("prepared again") << plain << "again" << plain << 1 << 1 << -1 << rich;
        QTest::newRow("copied, prepared again") << plain << "copy, again" << plain << 1 << 2 << -1 << mine;
        QTest::newRow("focus moved, prepared again") << plain << "focus, again" << password << 2 << 1 << secure << rich;
    }
    void earlyReadsStandUntilSomethingMoves() {
        QFETCH(QStringList, earlyRoles);
        QFETCH(QString, meanwhile);
        QFETCH(QStringList, rolesNow);
        QFETCH(int, focusLookups);
        QFETCH(int, clipboardReads);
        QFETCH(int, error);
        QFETCH(Clipboard, restored);
        auto backend = std::make_shared<ScriptedTextBackend>();
        backend->clipboard = richClipboard();
        backend->confirms = meanwhile != "unconfirmed";
        backend->ownerHangs = meanwhile == "hung";
        ManualScheduler scheduler;
        PasteTextInjector injector(backend, scheduler);
        if (meanwhile == "restore")
            injector.inject("earlier");
        if (earlyRoles.isEmpty())
            backend->element.reset();
        else
            backend->element->roles = earlyRoles;
        const int lookupsBefore = backend->focusLookups;
        const int pastedBefore = int(backend->pasted.size());

        injector.prepareInjection();
        backend->element = Element{};
        backend->element->roles = rolesNow;
        if (meanwhile.startsWith("copy"))
            backend->copyElsewhere(ScriptedTextBackend::plainText("mine"));
        if (meanwhile == "restore")
            scheduler.advance(PasteTextInjector::restoreDelayMs);
        if (meanwhile == "window")
            backend->window = 2;
        if (meanwhile.startsWith("focus"))
            ++backend->focusMoves;
        if (meanwhile == "wait")
            scheduler.advance(PasteTextInjector::earlyReadLifetimeMs + 1);
        if (meanwhile.endsWith("again"))
            injector.prepareInjection();
        const std::optional<QuorvaneError> failure = failureOf([&] { injector.inject("hello"); });

        QCOMPARE(failure ? int(failure->errorCase()) : -1, error);
        QCOMPARE(backend->focusLookups - lookupsBefore, focusLookups);
        QCOMPARE(backend->clipboardReads, clipboardReads);
        QCOMPARE(backend->pasted.size() - pastedBefore, failure ? 0 : 1);
        scheduler.advance(PasteTextInjector::restoreDelayMs);
        QCOMPARE(backend->clipboard, restored);
    }
};

QTEST_GUILESS_MAIN(TestPasteTextInjector)
#include "tst_paste_text_injector.moc"
