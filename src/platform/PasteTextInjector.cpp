#include "platform/PasteTextInjector.h"

#include "core/Log.h"
#include "core/Text.h"

#include <algorithm>
#include <utility>

namespace {

const QString secureRoles[] = {
    QStringLiteral("AXSecureTextField"),
    // AT-SPI's name for a password field.
    QStringLiteral("password text"),
};

} // namespace

PasteTextInjector::PasteTextInjector(std::shared_ptr<DesktopTextBackend> backend, Scheduler &scheduler)
    : m_backend(std::move(backend)), m_scheduler(scheduler) {}

bool PasteTextInjector::isSecure(const QStringList &roles) {
    for (const QString &role : roles)
        if (std::find(std::begin(secureRoles), std::end(secureRoles), role) != std::end(secureRoles))
            return true;
    return false;
}

void PasteTextInjector::prepareInjection() {
    std::optional<EarlyReads> early = takeEarlyReads();
    if (m_backend->confirmsEarlyReads() && m_backend->isTrusted())
        m_early = currentReads(std::move(early), ElementCheck::windowOnly);
}

// Early reads serve one paste at most, and only while fresh.
std::optional<PasteTextInjector::EarlyReads> PasteTextInjector::takeEarlyReads() {
    std::optional<EarlyReads> early = std::exchange(m_early, std::nullopt);
    if (early && m_scheduler.nowMs() - early->takenAt > earlyReadLifetimeMs)
        early.reset();
    return early;
}

// What `early` read that still holds, and fresh reads for the rest. The focused element's answer
// stands only while the same window has the focus and the same element in it, so a password field
// focused since is always looked up, never assumed; the snapshot only while nobody (a restore of
// ours included) has written the clipboard since.
PasteTextInjector::EarlyReads PasteTextInjector::currentReads(std::optional<EarlyReads> early, ElementCheck check) {
    EarlyReads reads;
    reads.takenAt = m_scheduler.nowMs();
    // The window first: a focus move during a slow lookup then shows as a different window.
    reads.window = m_backend->focusedWindow();
    const bool sameWindow = early && early->element && reads.window == early->window;
    // The application answers the element's question while the rest is read here.
    std::function<bool()> stillFocused;
    if (sameWindow && check == ElementCheck::askElement)
        stillFocused = early->element->askStillFocused();
    reads.changeCount = m_backend->changeCount();
    if (check == ElementCheck::askElement)
        m_backend->preparePaste();
    if (sameWindow && (check == ElementCheck::windowOnly || stillFocused())) {
        reads.element = std::move(early->element);
        reads.secure = early->secure;
    } else {
        // An application that exposes no focused element still gets the text.
        reads.element = m_backend->focusedElement();
        reads.secure = reads.element && isSecure(reads.element->roles());
    }
    // A secure field gets nothing, so its paste never needs the clipboard.
    if (reads.secure)
        return reads;
    if (early && !early->secure && reads.changeCount == early->changeCount)
        reads.snapshot = std::move(early->snapshot);
    else
        reads.snapshot = m_backend->readClipboard();
    return reads;
}

// A scheduled restore moves the count when it runs. Where nothing was to be put back, the last
// paste counts only until its restore would have been due: after that its text is simply what the
// user has on the clipboard, and a later paste saves it like anything else.
bool PasteTextInjector::pendingRestoreHolds(qint64 changeCount) const {
    return m_pending && changeCount == m_pending->changeCount &&
           (m_pending->handle || m_scheduler.nowMs() - m_pending->pastedAt < restoreDelayMs);
}

void PasteTextInjector::inject(const QString &text) {
    if (text.isEmpty())
        return;
    std::optional<EarlyReads> early = takeEarlyReads();
    if (!m_backend->isTrusted())
        throw QuorvaneError(QuorvaneError::Case::accessibilityDenied);
    EarlyReads reads = currentReads(std::move(early), ElementCheck::askElement);
    if (reads.secure)
        throw QuorvaneError(QuorvaneError::Case::secureTextSelected);
    std::optional<DesktopTextBackend::ClipboardSnapshot> snapshot = std::move(reads.snapshot);
    // A paste within 0.35 s of the last one finds that one's text still on the clipboard: what the
    // user had before it (or that it was unknown) is what counts.
    if (pendingRestoreHolds(reads.changeCount))
        snapshot = m_pending->snapshot;

    if (!m_backend->writeText(text))
        throw QuorvaneError::injectionFailed(QStringLiteral("could not write to the pasteboard"));
    if (m_pending) {
        Scheduler::cancel(m_pending->handle);
        m_pending.reset();
    }
    const qint64 written = m_backend->changeCount();
    if (!m_backend->postPasteChord())
        throw QuorvaneError::injectionFailed(QStringLiteral("could not synthesise the paste keystroke"));

    auto pending = std::make_shared<PendingRestore>();
    pending->snapshot = std::move(snapshot);
    pending->changeCount = written;
    pending->pastedAt = m_scheduler.nowMs();
    if (!pending->snapshot) {
        // Putting back "nothing" would clear the clipboard, taking the dictated text as well.
        Log::warn(QStringLiteral("Your clipboard could not be saved, so the dictated text stays on the clipboard "
                                 "after the paste."));
    } else {
        pending->handle = m_scheduler.schedule(restoreDelayMs, [pending, weakBackend = std::weak_ptr(m_backend)] {
            const std::optional<DesktopTextBackend::ClipboardSnapshot> saved =
                std::exchange(pending->snapshot, std::nullopt);
            const std::shared_ptr<DesktopTextBackend> backend = weakBackend.lock();
            // Something copied since our write is newer than what we saved, and it wins.
            if (saved && backend && backend->changeCount() == pending->changeCount)
                backend->writeClipboard(*saved);
        });
    }
    m_pending = std::move(pending);
}

void PasteTextInjector::copyToClipboard(const QString &text) {
    if (!m_backend->writeText(text))
        throw QuorvaneError::injectionFailed(QStringLiteral("could not write to the pasteboard"));
}

SelectedTextSnapshot PasteTextInjector::captureSelection() {
    if (!m_backend->isTrusted())
        throw QuorvaneError(QuorvaneError::Case::accessibilityDenied);
    const std::unique_ptr<FocusedElement> element = m_backend->focusedElement();
    if (!element)
        throw QuorvaneError::selectionUnavailable(QStringLiteral("no focused text field"));
    // Checked before the selected text is read, so a password never enters this process.
    if (isSecure(element->roles()))
        throw QuorvaneError(QuorvaneError::Case::secureTextSelected);
    const std::optional<QString> text = element->selectedText();
    if (!text || Text::trimmed(*text).isEmpty())
        throw QuorvaneError(QuorvaneError::Case::noTextSelected);
    if (!element->isSelectionSettable())
        throw QuorvaneError::selectionUnavailable(QStringLiteral("the selected content is read-only"));
    const std::optional<qint64> processID = element->processID();
    if (!processID)
        throw QuorvaneError::selectionUnavailable(QStringLiteral("could not identify the destination app"));
    const std::optional<TextSelectionRange> range = element->selectedRange();
    if (!range)
        throw QuorvaneError::selectionUnavailable(QStringLiteral("could not verify the selected text range"));
    return SelectedTextSnapshot{*text, *processID, range};
}

void PasteTextInjector::replaceSelection(const SelectedTextSnapshot &snapshot, const QString &text) {
    // Pasting replaces whatever is selected now, so it must still be what the edit was made from.
    if (captureSelection() != snapshot)
        throw QuorvaneError(QuorvaneError::Case::selectionChanged);
    inject(text);
}
