#include "platform/linux/X11TextBackend.h"

#include "core/Log.h"
#include "platform/linux/AtspiFocus.h"
#include "platform/linux/X11ClipboardOwner.h"
#include "platform/linux/X11Errors.h"
#include "platform/linux/X11Windows.h"

#include <QAbstractNativeEventFilter>
#include <QClipboard>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QMimeData>
#include <QWindow>
#include <QtGui/qguiapplication_platform.h>
#include <algorithm>
#include <chrono>
#include <poll.h>
#include <thread>
#include <utility>

// Xlib's macros (None, Bool, KeyPress…) collide with Qt's names: it comes after every Qt header.
#include <X11/XKBlib.h>
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>
#include <X11/extensions/Xfixes.h>
#include <X11/keysym.h>
#include <xcb/xcb.h>

namespace {

using Clock = std::chrono::steady_clock;

// A hung clipboard owner would block Qt for 5 s; a healthy one answers TARGETS in a few ms.
constexpr auto ownerDeadline = std::chrono::milliseconds(300);
// The push-to-talk key is itself a modifier, still down when the text is ready.
constexpr auto modifierDeadline = std::chrono::milliseconds(1000);
constexpr auto modifierPoll = std::chrono::milliseconds(10);
// A paste follows its preparation within milliseconds; anything older is read again.
constexpr auto preparedLifetime = std::chrono::seconds(1);

// Qt's own stand-in for any image format; its data is not the owner's bytes.
const QString qtImageFormat = QStringLiteral("application/x-qt-image");

bool anyModifierDown(Display *display, const XModifierKeymap *modifiers) {
    char keys[32] = {};
    XQueryKeymap(display, keys);
    const int codes = 8 * modifiers->max_keypermod;
    for (int i = 0; i < codes; ++i)
        if (const KeyCode code = modifiers->modifiermap[i]; code && (keys[code / 8] & (1 << (code % 8))))
            return true;
    return false;
}

std::shared_ptr<void> modifierMapping(Display *display) {
    return std::shared_ptr<void>(XGetModifierMapping(display), [](void *keymap) {
        if (keymap)
            XFreeModifiermap(static_cast<XModifierKeymap *>(keymap));
    });
}

void waitForModifiersUp(Display *display, const XModifierKeymap *modifiers) {
    if (!modifiers)
        return;
    const auto deadline = Clock::now() + modifierDeadline;
    bool held = anyModifierDown(display, modifiers);
    while (held && Clock::now() < deadline) {
        std::this_thread::sleep_for(modifierPoll);
        held = anyModifierDown(display, modifiers);
    }
    if (held)
        Log::warn(QStringLiteral("A modifier key is still held after 1 s; pasting anyway."));
}

// A keycode with no keysym in any group, which no key of the user's layout produces.
KeyCode spareKeycode(Display *display) {
    int min = 0, max = 0, perCode = 0;
    XDisplayKeycodes(display, &min, &max);
    KeySym *map = XGetKeyboardMapping(display, KeyCode(min), max - min + 1, &perCode);
    if (!map)
        return 0;
    KeyCode spare = 0;
    // From the top: the high keycodes are the ones keyboards leave unused.
    for (int code = max; code >= min && !spare; --code) {
        const KeySym *syms = map + (code - min) * perCode;
        if (std::all_of(syms, syms + perCode, [](KeySym sym) { return sym == NoSymbol; }))
            spare = KeyCode(code);
    }
    XFree(map);
    return spare;
}

void sendChord(Display *display, const QList<KeyCode> &modifiers, KeyCode key) {
    for (const KeyCode modifier : modifiers)
        XTestFakeKeyEvent(display, modifier, True, CurrentTime);
    XTestFakeKeyEvent(display, key, True, CurrentTime);
    XTestFakeKeyEvent(display, key, False, CurrentTime);
    for (auto modifier = modifiers.crbegin(); modifier != modifiers.crend(); ++modifier)
        XTestFakeKeyEvent(display, *modifier, False, CurrentTime);
    // Sent, not waited for: the server's answer would only tell that the window has the keys, and
    // the window's request for the clipboard must not queue behind the wait.
    XFlush(display);
}

// Sees the property change made on our window reach Qt's connection.
class PropertyChangeSeen final : public QAbstractNativeEventFilter {
public:
    explicit PropertyChangeSeen(Window window) : m_window(window) {}
    bool nativeEventFilter(const QByteArray &type, void *message, qintptr *) override {
        if (type != "xcb_generic_event_t")
            return false;
        const auto *event = static_cast<const xcb_generic_event_t *>(message);
        if ((event->response_type & 0x7f) == XCB_PROPERTY_NOTIFY &&
            static_cast<const xcb_property_notify_event_t *>(message)->window == m_window)
            seen = true;
        return false;
    }
    bool seen = false;

private:
    const Window m_window;
};

} // namespace

X11TextBackend::X11TextBackend() {
    if (QClipboard *clipboard = QGuiApplication::clipboard())
        m_changed = QObject::connect(clipboard, &QClipboard::changed, [this](QClipboard::Mode mode) {
            if (mode == QClipboard::Clipboard && !m_writing && m_fixesEvent < 0)
                ++m_changeCount;
        });
}

// Qt claims the clipboard with the last server time it saw, and the server refuses a claim older
// than the current owner's. We see no input on Qt's connection (the hotkey has its own), so after
// the user copies elsewhere Qt's time is stale until it handles an event: give it one.
void X11TextBackend::refreshQtServerTime() {
    Display *x = display();
    if (!x)
        return;
    // Claims counted now are older than the time this refresh hands Qt.
    countOwnerChanges();
    const qint64 claims = m_foreignClaims;
    m_foreignClaimsAtRefresh.reset();
    if (!m_timeWindow) {
        m_timeWindow = std::make_unique<QWindow>();
        m_timeWindow->create();
    }
    PropertyChangeSeen filter(Window(m_timeWindow->winId()));
    QCoreApplication::instance()->installNativeEventFilter(&filter);
    XChangeProperty(x, Window(m_timeWindow->winId()), XInternAtom(x, "QUORVANE_SERVER_TIME", False), XA_STRING, 8,
                    PropModeAppend, nullptr, 0);
    XFlush(x);
    QElapsedTimer waited;
    waited.start();
    while (!filter.seen && waited.elapsed() < 200)
        QCoreApplication::processEvents(QEventLoop::ExcludeUserInputEvents, 10);
    QCoreApplication::instance()->removeNativeEventFilter(&filter);
    if (filter.seen)
        m_foreignClaimsAtRefresh = claims;
}

void X11TextBackend::refreshQtServerTimeIfStale() {
    countOwnerChanges();
    if (m_fixesEvent < 0 || m_foreignClaimsAtRefresh != m_foreignClaims)
        refreshQtServerTime();
}

X11TextBackend::~X11TextBackend() {
    QObject::disconnect(m_changed);
    if (!m_display)
        return;
    // Only if the layout still has our v there: a layout switch since has already replaced it.
    if (m_borrowedKeycode && XkbKeycodeToKeysym(m_display, KeyCode(m_borrowedKeycode), 0, 0) == XK_v) {
        KeySym nothing[2] = {NoSymbol, NoSymbol};
        XChangeKeyboardMapping(m_display, int(m_borrowedKeycode), 2, nothing, 1);
    }
    if (m_probeWindow)
        XDestroyWindow(m_display, m_probeWindow);
    XCloseDisplay(m_display);
}

_XDisplay *X11TextBackend::display() {
    if (!m_display) {
        X11Errors::installTolerantHandler();
        m_display = XOpenDisplay(nullptr);
        int fixesEvent = 0, fixesError = 0;
        const auto *qt = qGuiApp ? qGuiApp->nativeInterface<QNativeInterface::QX11Application>() : nullptr;
        if (m_display && qt && qt->connection() && XFixesQueryExtension(m_display, &fixesEvent, &fixesError)) {
            const xcb_setup_t *setup = xcb_get_setup(qt->connection());
            m_qtIdBase = setup->resource_id_base;
            m_qtIdMask = setup->resource_id_mask;
            XFixesSelectSelectionInput(m_display, DefaultRootWindow(m_display),
                                       XInternAtom(m_display, "CLIPBOARD", False),
                                       XFixesSetSelectionOwnerNotifyMask | XFixesSelectionWindowDestroyNotifyMask |
                                           XFixesSelectionClientCloseNotifyMask);
            XSync(m_display, False);
            m_fixesEvent = fixesEvent + XFixesSelectionNotify;
        }
    }
    return m_display;
}

bool X11TextBackend::isQtWindow(unsigned long window) const {
    return window != None && (window & ~Window(m_qtIdMask)) == m_qtIdBase;
}

bool X11TextBackend::isOwnWindow(unsigned long window) const {
    return isQtWindow(window) || (m_textOwner && window != None && window == m_textOwner->window());
}

X11ClipboardOwner *X11TextBackend::textOwner() {
    if (!m_textOwner) {
        Display *x = display();
        m_textOwner = std::make_unique<X11ClipboardOwner>(x ? QString::fromLocal8Bit(DisplayString(x)) : QString());
    }
    return m_textOwner->isAvailable() ? m_textOwner.get() : nullptr;
}

// Every owner change the server made before this call, so the count is current when it returns.
void X11TextBackend::countOwnerChanges() {
    if (!display() || m_fixesEvent < 0)
        return;
    XSync(m_display, False);
    XEvent event;
    while (XCheckTypedEvent(m_display, m_fixesEvent, &event)) {
        const auto &notice = reinterpret_cast<const XFixesSelectionNotifyEvent &>(event);
        if (isOwnWindow(notice.owner))
            continue;
        if (notice.owner == None && notice.subtype == XFixesSetSelectionOwnerNotify && m_ownClears > 0) {
            --m_ownClears;
            continue;
        }
        ++m_changeCount;
        ++m_foreignClaims;
    }
}

bool X11TextBackend::isTrusted() {
    Display *x = display();
    if (!x)
        return false;
    // Each question is a round trip to the server, asked up to three times a paste, and the
    // answer cannot change while the connection lives.
    if (!m_hasXTest) {
        int event = 0, error = 0, major = 0, minor = 0;
        m_hasXTest = XTestQueryExtension(x, &event, &error, &major, &minor);
    }
    return *m_hasXTest;
}

std::unique_ptr<FocusedElement> X11TextBackend::focusedElement() {
    Display *x = display();
    if (!x)
        return nullptr;
    const Window window = X11Windows::activeWindow(x);
    if (window == None)
        return nullptr;
    const std::optional<qint32> processID = X11Windows::processOf(x, window);
    return processID ? AtspiFocus::focusedElementOf(*processID) : nullptr;
}

bool X11TextBackend::clipboardOwnerAnswers() {
    Display *x = display();
    QClipboard *clipboard = QGuiApplication::clipboard();
    // Without a connection of our own Qt cannot reach the owner either, and we answer ourselves.
    if (!x || clipboard->ownsClipboard() || (m_textOwner && m_textOwner->ownsClipboard()))
        return true;
    const Atom selection = XInternAtom(x, "CLIPBOARD", False);
    if (XGetSelectionOwner(x, selection) == None)
        return true;
    if (!m_probeWindow)
        m_probeWindow = XCreateSimpleWindow(x, DefaultRootWindow(x), 0, 0, 1, 1, 0, 0, 0);
    const Atom property = XInternAtom(x, "QUORVANE_CLIPBOARD_PROBE", False);
    XEvent event;
    // A late answer to an earlier probe must not pass for this one.
    while (XCheckTypedWindowEvent(x, m_probeWindow, SelectionNotify, &event)) {
    }
    XConvertSelection(x, selection, XInternAtom(x, "TARGETS", False), property, m_probeWindow, CurrentTime);
    XFlush(x);

    const auto deadline = Clock::now() + ownerDeadline;
    for (;;) {
        if (XCheckTypedWindowEvent(x, m_probeWindow, SelectionNotify, &event)) {
            XDeleteProperty(x, m_probeWindow, property);
            return true;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0)
            return false;
        pollfd connection{ConnectionNumber(x), POLLIN, 0};
        poll(&connection, 1, int(left.count()));
    }
}

std::optional<DesktopTextBackend::ClipboardSnapshot> X11TextBackend::readClipboard() {
    if (!clipboardOwnerAnswers()) {
        Log::warn(QStringLiteral("The clipboard's owner did not answer within 300 ms; its content cannot be saved."));
        return std::nullopt;
    }
    const QMimeData *data = QGuiApplication::clipboard()->mimeData(QClipboard::Clipboard);
    if (!data)
        return ClipboardSnapshot{};
    ClipboardItem item;
    for (const QString &format : data->formats())
        if (format != qtImageFormat)
            item.append({format, data->data(format)});
    // A snapshot comes before a write: the write then need not wait for a fresh server time.
    refreshQtServerTimeIfStale();
    if (item.isEmpty())
        return ClipboardSnapshot{};
    return ClipboardSnapshot{item};
}

void X11TextBackend::preparePaste() {
    Display *x = display();
    if (!x)
        return;
    m_prepared = Prepared{Clock::now(), chordForActiveWindow(), modifierMapping(x)};
}

const std::optional<X11TextBackend::Prepared> &X11TextBackend::freshPrepared() {
    if (m_prepared && Clock::now() - m_prepared->at > preparedLifetime)
        m_prepared.reset();
    return m_prepared;
}

bool X11TextBackend::writeText(const QString &text) {
    const std::optional<Prepared> &prepared = freshPrepared();
    m_chordOfWrite = prepared ? prepared->chord : chordForActiveWindow();
    QClipboard *clipboard = QGuiApplication::clipboard();
    const bool primaryToo = m_chordOfWrite == PasteChord::shiftInsert && clipboard->supportsSelection();
    // Our claims are told from others' only through XFixes.
    if (X11ClipboardOwner *owner = m_fixesEvent >= 0 ? textOwner() : nullptr) {
        // Few names, each one a lookup for some destinations before they ask for the text; every
        // toolkit asks for UTF8_STRING, old ones for STRING (Latin-1) or TEXT.
        const QByteArray utf8 = text.toUtf8();
        DesktopTextBackend::ClipboardItem formats{{QStringLiteral("UTF8_STRING"), utf8}};
        if (const QByteArray latin1 = text.toLatin1(); QString::fromLatin1(latin1) == text)
            formats.append({QStringLiteral("STRING"), latin1});
        formats.append({QStringLiteral("TEXT"), utf8});
        if (owner->own(formats, primaryToo)) {
            ++m_changeCount;
            return true;
        }
    }
    // Claims on PRIMARY (any selection of text) are not watched: writing it always needs a refresh.
    if (primaryToo)
        refreshQtServerTime();
    else
        refreshQtServerTimeIfStale();
    m_writing = true;
    auto *data = new QMimeData;
    data->setText(text);
    clipboard->setMimeData(data, QClipboard::Clipboard);
    if (!clipboard->ownsClipboard()) {
        // Refused as older than the owner's claim, which a claim we did not see could make.
        refreshQtServerTime();
        auto *again = new QMimeData;
        again->setText(text);
        clipboard->setMimeData(again, QClipboard::Clipboard);
    }
    if (primaryToo) {
        auto *primary = new QMimeData;
        primary->setText(text);
        clipboard->setMimeData(primary, QClipboard::Selection);
    }
    m_writing = false;
    ++m_changeCount;
    return clipboard->ownsClipboard();
}

void X11TextBackend::writeClipboard(const ClipboardSnapshot &items) {
    m_chordOfWrite.reset();
    QClipboard *clipboard = QGuiApplication::clipboard();
    refreshQtServerTime();
    m_writing = true;
    if (items.isEmpty()) {
        // Only a clear that gave up ownership leaves a notice behind.
        if (m_textOwner && m_textOwner->ownsClipboard()) {
            if (m_fixesEvent >= 0)
                ++m_ownClears;
            m_textOwner->release();
        } else {
            if (m_fixesEvent >= 0 && clipboard->ownsClipboard())
                ++m_ownClears;
            clipboard->clear(QClipboard::Clipboard);
        }
    } else {
        // The X11 clipboard holds one item; should several come, the first to name a format wins.
        auto *data = new QMimeData;
        for (const ClipboardItem &item : items)
            for (const auto &[format, bytes] : item)
                if (!data->hasFormat(format))
                    data->setData(format, bytes);
        clipboard->setMimeData(data, QClipboard::Clipboard);
    }
    m_writing = false;
    ++m_changeCount;
}

qint64 X11TextBackend::changeCount() {
    countOwnerChanges();
    return m_changeCount;
}

bool X11TextBackend::confirmsEarlyReads() {
    return display() && m_fixesEvent >= 0;
}

qint64 X11TextBackend::focusedWindow() {
    Display *x = display();
    return x ? qint64(X11Windows::activeWindow(x)) : 0;
}

PasteChord X11TextBackend::chordForActiveWindow() {
    Display *x = display();
    if (!x)
        return PasteChord::ctrlV;
    const Window window = X11Windows::activeWindow(x);
    const auto windowClass = window == None ? std::nullopt : X11Windows::classOf(x, window);
    return windowClass ? pasteChordFor(windowClass->name, windowClass->instance) : PasteChord::ctrlV;
}

bool X11TextBackend::postPasteChord() {
    if (!isTrusted())
        return false;
    Display *x = m_display;
    // A preparation serves one chord.
    freshPrepared();
    const std::optional<Prepared> prepared = std::exchange(m_prepared, std::nullopt);
    const std::shared_ptr<void> modifiers = prepared ? prepared->modifiers : modifierMapping(x);
    waitForModifiersUp(x, static_cast<const XModifierKeymap *>(modifiers.get()));

    const std::optional<PasteChord> written = std::exchange(m_chordOfWrite, std::nullopt);
    const PasteChord chord = written ? *written : chordForActiveWindow();
    const KeyCode control = XKeysymToKeycode(x, XK_Control_L);
    const KeyCode shift = XKeysymToKeycode(x, XK_Shift_L);
    if (chord == PasteChord::shiftInsert) {
        const KeyCode insert = XKeysymToKeycode(x, XK_Insert);
        if (!shift || !insert)
            return false;
        sendChord(x, {shift}, insert);
        return true;
    }
    if (!control || (chord == PasteChord::ctrlShiftV && !shift))
        return false;
    KeyCode v = XKeysymToKeycode(x, XK_v);
    if (!v) {
        // A layout without a Latin v (Russian, Greek…). The borrowed keycode keeps its v while we
        // run: restoring it right after the chord races clients that reload their keymap lazily
        // and would then read the key as nothing.
        v = spareKeycode(x);
        if (!v)
            return false;
        KeySym latinV[2] = {XK_v, XK_V};
        XChangeKeyboardMapping(x, v, 2, latinV, 1);
        XSync(x, False);
        m_borrowedKeycode = v;
    }
    if (chord == PasteChord::ctrlShiftV)
        sendChord(x, {control, shift}, v);
    else
        sendChord(x, {control}, v);
    return true;
}
