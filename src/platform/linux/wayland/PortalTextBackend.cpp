#include "platform/linux/wayland/PortalTextBackend.h"

#include "core/Log.h"
#include "platform/linux/wayland/RemoteDesktopSession.h"

#include <algorithm>

namespace {

// evdev keycodes, which the portal takes whatever the user's layout.
constexpr int keyLeftCtrl = 29;
constexpr int keyLeftShift = 42;
constexpr int keyV = 47;
constexpr int keyInsert = 110;

} // namespace

PortalTextBackend::PortalTextBackend(std::shared_ptr<RemoteDesktopSession> session,
                                     std::shared_ptr<DesktopTextBackend> compositor, bool compositorHasClipboard,
                                     DestinationID destination)
    : m_session(std::move(session)), m_compositor(std::move(compositor)),
      m_compositorHasClipboard(compositorHasClipboard), m_destination(std::move(destination)) {}

QList<int> PortalTextBackend::keycodes(PasteChord chord) {
    switch (chord) {
    case PasteChord::ctrlV:
        return {keyLeftCtrl, keyV};
    case PasteChord::ctrlShiftV:
        return {keyLeftCtrl, keyLeftShift, keyV};
    case PasteChord::shiftInsert:
        return {keyLeftShift, keyInsert};
    }
    return {};
}

bool PortalTextBackend::portalClipboard() const {
    return !m_compositorHasClipboard && m_session->clipboardEnabled();
}

bool PortalTextBackend::isTrusted() {
    return m_compositor->isTrusted();
}

std::unique_ptr<FocusedElement> PortalTextBackend::focusedElement() {
    return m_compositor->focusedElement();
}

std::optional<DesktopTextBackend::ClipboardSnapshot> PortalTextBackend::readClipboard() {
    if (!portalClipboard())
        return m_compositor->readClipboard();
    if (!m_session->knowsClipboard()) {
        Log::warn(QStringLiteral("The desktop has not said what is on your clipboard yet, so it cannot be saved."));
        return std::nullopt;
    }
    const std::optional<ClipboardItem> item = m_session->readClipboard();
    if (!item) {
        Log::warn(QStringLiteral("The clipboard's owner did not answer within 300 ms; its content cannot be saved."));
        return std::nullopt;
    }
    if (item->isEmpty())
        return ClipboardSnapshot{};
    return ClipboardSnapshot{*item};
}

bool PortalTextBackend::writeText(const QString &text) {
    if (!portalClipboard())
        return m_compositor->writeText(text);
    const QByteArray utf8 = text.toUtf8();
    return m_session->offer({{QStringLiteral("text/plain;charset=utf-8"), utf8},
                             {QStringLiteral("text/plain"), utf8},
                             {QStringLiteral("UTF8_STRING"), utf8}});
}

void PortalTextBackend::writeClipboard(const ClipboardSnapshot &items) {
    if (!portalClipboard()) {
        m_compositor->writeClipboard(items);
        return;
    }
    // The portal's clipboard is one item; should several come, the first to name a format wins.
    ClipboardItem merged;
    for (const ClipboardItem &item : items)
        for (const auto &entry : item)
            if (std::none_of(merged.cbegin(), merged.cend(),
                             [&](const auto &pair) { return pair.first == entry.first; }))
                merged.append(entry);
    if (!m_session->offer(merged))
        Log::warn(QStringLiteral("Your earlier clipboard could not be put back through the desktop portal."));
}

qint64 PortalTextBackend::changeCount() {
    // Each moves only when someone else copies, so their sum does too, whichever way the text went.
    return m_session->changeCount() + m_compositor->changeCount();
}

bool PortalTextBackend::postPasteChord() {
    if (m_session->state() == RemoteDesktopSession::State::closed) {
        // This text stays on the clipboard; the next one is pasted once the desktop allows it again.
        m_session->start();
        return false;
    }
    const QString destination = m_destination ? m_destination() : QString();
    return m_session->pressChord(keycodes(pasteChordFor(destination, destination)));
}
