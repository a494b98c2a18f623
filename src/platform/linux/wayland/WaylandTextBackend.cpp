#include "platform/linux/wayland/WaylandTextBackend.h"

#include "core/Log.h"
#include "platform/linux/AtspiFocus.h"
#include "platform/linux/FdTransfer.h"
#include "platform/linux/PasteChord.h"
#include "platform/linux/X11ClipboardOwner.h"

#include <QSocketNotifier>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

#include "virtual-keyboard-unstable-v1-client-protocol.h"
#include "wlr-data-control-unstable-v1-client-protocol.h"
#include <linux/input-event-codes.h>
#include <wayland-client.h>
#include <xkbcommon/xkbcommon.h>

namespace {

using Clock = FdTransfer::Clock;

// A clipboard owner that hangs must not stall the paste; a healthy one answers in a few ms.
constexpr auto snapshotDeadline = std::chrono::milliseconds(300);
// Handing our data to a reader that stops reading: give up rather than keep a thread forever.
constexpr int sendDeadlineMs = 2000;
// A paste of a huge image is not worth holding on to.
constexpr qsizetype maxSnapshotBytes = 64 * 1024 * 1024;

// Off the main thread, so a reader taking its time never blocks us; the fd is ours to close.
void sendInBackground(int fd, QByteArray data) {
    std::thread([fd, data = std::move(data)] { FdTransfer::writeAllAndClose(fd, data, sendDeadlineMs); }).detach();
}

} // namespace

struct WaylandTextBackend::State {
    wl_display *display = nullptr;
    wl_registry *registry = nullptr;
    wl_seat *seat = nullptr;
    zwlr_data_control_manager_v1 *dataControl = nullptr;
    // From 2 on the device reports and sets the primary selection too.
    uint32_t dataControlVersion = 0;
    zwlr_data_control_device_v1 *device = nullptr;
    zwp_virtual_keyboard_manager_v1 *keyboardManager = nullptr;
    zwp_virtual_keyboard_v1 *keyboard = nullptr;
    std::unique_ptr<QSocketNotifier> notifier;

    // The offer being introduced (its types arrive before the selection event names it), and the
    // one that is the clipboard now.
    zwlr_data_control_offer_v1 *incoming = nullptr;
    QStringList incomingTypes;
    zwlr_data_control_offer_v1 *selection = nullptr;
    QStringList selectionTypes;
    zwlr_data_control_offer_v1 *primary = nullptr;
    QStringList primaryTypes;

    // What we put on the clipboard, while it is still there.
    zwlr_data_control_source_v1 *source = nullptr;
    ClipboardItem sourceData;
    // The same for the primary selection, with what it held before we first took it (nullopt when
    // that could not be read, so nothing is put back).
    zwlr_data_control_source_v1 *primarySource = nullptr;
    ClipboardItem primaryData;
    std::optional<ClipboardItem> primarySaved;

    Ignored ignored{false, false};
    // The clipboard's way in where the compositor offers no clipboard control.
    std::unique_ptr<X11ClipboardOwner> x11;

    qint64 changeCount = 0;
    quint32 controlMask = 0, shiftMask = 0;

    void dispatch();
    bool roundtrip() { return display && wl_display_roundtrip(display) >= 0; }
    void dropSource() {
        if (source)
            zwlr_data_control_source_v1_destroy(source);
        source = nullptr;
        sourceData.clear();
    }
    void dropPrimarySource() {
        if (primarySource)
            zwlr_data_control_source_v1_destroy(primarySource);
        primarySource = nullptr;
        primaryData.clear();
    }
    zwlr_data_control_source_v1 *makeSource(const ClipboardItem &formats, ClipboardItem &kept);
    std::optional<ClipboardItem> read(zwlr_data_control_offer_v1 *offer, const QStringList &types);
};

namespace {

void offerType(void *data, zwlr_data_control_offer_v1 *offer, const char *type) {
    auto *state = static_cast<WaylandTextBackend::State *>(data);
    if (offer == state->incoming)
        state->incomingTypes.append(QString::fromUtf8(type));
}
const zwlr_data_control_offer_v1_listener offerListener = {offerType};

void dataOffer(void *data, zwlr_data_control_device_v1 *, zwlr_data_control_offer_v1 *offer) {
    auto *state = static_cast<WaylandTextBackend::State *>(data);
    if (state->incoming)
        zwlr_data_control_offer_v1_destroy(state->incoming);
    state->incoming = offer;
    state->incomingTypes.clear();
    zwlr_data_control_offer_v1_add_listener(offer, &offerListener, state);
}

void selection(void *data, zwlr_data_control_device_v1 *, zwlr_data_control_offer_v1 *offer) {
    auto *state = static_cast<WaylandTextBackend::State *>(data);
    if (state->selection && state->selection != offer)
        zwlr_data_control_offer_v1_destroy(state->selection);
    state->selection = offer;
    state->selectionTypes.clear();
    if (offer && offer == state->incoming) {
        state->selectionTypes = std::exchange(state->incomingTypes, {});
        state->incoming = nullptr;
    }
    ++state->changeCount;
}

void finished(void *data, zwlr_data_control_device_v1 *device) {
    auto *state = static_cast<WaylandTextBackend::State *>(data);
    zwlr_data_control_device_v1_destroy(device);
    state->device = nullptr;
}

// Not counted as a change: the count is the clipboard's, which decides the restore.
void primarySelection(void *data, zwlr_data_control_device_v1 *, zwlr_data_control_offer_v1 *offer) {
    auto *state = static_cast<WaylandTextBackend::State *>(data);
    if (state->primary && state->primary != offer)
        zwlr_data_control_offer_v1_destroy(state->primary);
    state->primary = offer;
    state->primaryTypes.clear();
    if (offer && offer == state->incoming) {
        state->primaryTypes = std::exchange(state->incomingTypes, {});
        state->incoming = nullptr;
    }
}
const zwlr_data_control_device_v1_listener deviceListener = {dataOffer, selection, finished, primarySelection};

void send(void *data, zwlr_data_control_source_v1 *source, const char *type, int32_t fd) {
    auto *state = static_cast<WaylandTextBackend::State *>(data);
    const QString wanted = QString::fromUtf8(type);
    const DesktopTextBackend::ClipboardItem *formats = source == state->source          ? &state->sourceData
                                                       : source == state->primarySource ? &state->primaryData
                                                                                        : nullptr;
    if (formats)
        for (const auto &[format, bytes] : *formats)
            if (format == wanted) {
                sendInBackground(fd, bytes);
                return;
            }
    close(fd);
}

void cancelled(void *data, zwlr_data_control_source_v1 *source) {
    auto *state = static_cast<WaylandTextBackend::State *>(data);
    if (source == state->source) {
        state->dropSource();
    } else if (source == state->primarySource) {
        // Someone selected something newer; it wins over what we saved.
        state->dropPrimarySource();
        state->primarySaved.reset();
    } else {
        zwlr_data_control_source_v1_destroy(source);
    }
}
const zwlr_data_control_source_v1_listener sourceListener = {send, cancelled};

void global(void *data, wl_registry *registry, uint32_t name, const char *interface, uint32_t version) {
    auto *state = static_cast<WaylandTextBackend::State *>(data);
    if (!state->seat && std::strcmp(interface, wl_seat_interface.name) == 0) {
        state->seat = static_cast<wl_seat *>(wl_registry_bind(registry, name, &wl_seat_interface, 1));
    } else if (!state->ignored.dataControl &&
               std::strcmp(interface, zwlr_data_control_manager_v1_interface.name) == 0) {
        state->dataControlVersion = std::min(version, 2u);
        state->dataControl = static_cast<zwlr_data_control_manager_v1 *>(
            wl_registry_bind(registry, name, &zwlr_data_control_manager_v1_interface, state->dataControlVersion));
    } else if (!state->ignored.virtualKeyboard &&
               std::strcmp(interface, zwp_virtual_keyboard_manager_v1_interface.name) == 0) {
        state->keyboardManager = static_cast<zwp_virtual_keyboard_manager_v1 *>(
            wl_registry_bind(registry, name, &zwp_virtual_keyboard_manager_v1_interface, 1));
    }
}
void globalRemove(void *, wl_registry *, uint32_t) {}
const wl_registry_listener registryListener = {global, globalRemove};

// A US layout of our own, so the chord's keys exist whatever layout the user types with.
std::optional<QByteArray> chordKeymap(quint32 &controlMask, quint32 &shiftMask) {
    xkb_context *context = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
    if (!context)
        return std::nullopt;
    const xkb_rule_names names{"evdev", "pc105", "us", "", ""};
    xkb_keymap *keymap = xkb_keymap_new_from_names(context, &names, XKB_KEYMAP_COMPILE_NO_FLAGS);
    std::optional<QByteArray> text;
    if (keymap) {
        if (char *string = xkb_keymap_get_as_string(keymap, XKB_KEYMAP_FORMAT_TEXT_V1)) {
            text = QByteArray(string);
            free(string);
        }
        controlMask = 1u << xkb_keymap_mod_get_index(keymap, XKB_MOD_NAME_CTRL);
        shiftMask = 1u << xkb_keymap_mod_get_index(keymap, XKB_MOD_NAME_SHIFT);
        xkb_keymap_unref(keymap);
    }
    xkb_context_unref(context);
    return text;
}

// The compositor maps the keymap from a file; the terminating NUL is part of the format.
bool uploadKeymap(zwp_virtual_keyboard_v1 *keyboard, const QByteArray &keymap) {
    const int fd = memfd_create("quorvane-keymap", MFD_CLOEXEC);
    if (fd < 0)
        return false;
    const size_t size = size_t(keymap.size()) + 1;
    const bool written = ftruncate(fd, off_t(size)) == 0 && write(fd, keymap.constData(), size) == ssize_t(size);
    if (written)
        zwp_virtual_keyboard_v1_keymap(keyboard, WL_KEYBOARD_KEYMAP_FORMAT_XKB_V1, fd, uint32_t(size));
    close(fd);
    return written;
}

quint32 nowMs() {
    return quint32(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count());
}

} // namespace

void WaylandTextBackend::State::dispatch() {
    if (!display)
        return;
    while (wl_display_prepare_read(display) != 0)
        wl_display_dispatch_pending(display);
    pollfd readable{wl_display_get_fd(display), POLLIN, 0};
    if (poll(&readable, 1, 0) > 0)
        wl_display_read_events(display);
    else
        wl_display_cancel_read(display);
    wl_display_dispatch_pending(display);
    wl_display_flush(display);
}

zwlr_data_control_source_v1 *WaylandTextBackend::State::makeSource(const ClipboardItem &formats, ClipboardItem &kept) {
    zwlr_data_control_source_v1 *made = zwlr_data_control_manager_v1_create_data_source(dataControl);
    zwlr_data_control_source_v1_add_listener(made, &sourceListener, this);
    for (const auto &[format, bytes] : formats) {
        zwlr_data_control_source_v1_offer(made, format.toUtf8().constData());
        kept.append({format, bytes});
    }
    return made;
}

std::optional<DesktopTextBackend::ClipboardItem> WaylandTextBackend::State::read(zwlr_data_control_offer_v1 *offer,
                                                                                 const QStringList &types) {
    ClipboardItem item;
    if (!offer)
        return item;
    const auto deadline = Clock::now() + snapshotDeadline;
    for (const QString &type : types) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0)
            return std::nullopt;
        zwlr_data_control_offer_v1_receive(offer, type.toUtf8().constData(), fds[1]);
        wl_display_flush(display);
        close(fds[1]);
        const std::optional<QByteArray> data = FdTransfer::readToEnd(fds[0], deadline, maxSnapshotBytes);
        close(fds[0]);
        if (!data)
            return std::nullopt;
        item.append({type, *data});
    }
    return item;
}

WaylandTextBackend::WaylandTextBackend(DestinationID destination, DestinationProcess process, Ignored ignored,
                                       const QString &x11Display)
    : m_state(std::make_unique<State>()), m_destination(std::move(destination)), m_process(std::move(process)) {
    State &s = *m_state;
    s.ignored = ignored;
    s.display = wl_display_connect(nullptr);
    if (!s.display)
        return;
    s.registry = wl_display_get_registry(s.display);
    wl_registry_add_listener(s.registry, &registryListener, &s);
    s.roundtrip();
    if (s.seat && s.dataControl) {
        s.device = zwlr_data_control_manager_v1_get_data_device(s.dataControl, s.seat);
        zwlr_data_control_device_v1_add_listener(s.device, &deviceListener, &s);
    } else if (!x11Display.isEmpty()) {
        s.x11 = std::make_unique<X11ClipboardOwner>(x11Display);
        if (!s.x11->isAvailable())
            s.x11.reset();
    }
    if (s.seat && s.keyboardManager) {
        s.keyboard = zwp_virtual_keyboard_manager_v1_create_virtual_keyboard(s.keyboardManager, s.seat);
        const std::optional<QByteArray> keymap = chordKeymap(s.controlMask, s.shiftMask);
        if (!keymap || !uploadKeymap(s.keyboard, *keymap)) {
            zwp_virtual_keyboard_v1_destroy(s.keyboard);
            s.keyboard = nullptr;
        }
    }
    // The first selection event arrives now; it is the clipboard as we found it, not a change.
    s.roundtrip();
    s.changeCount = 0;
    s.notifier = std::make_unique<QSocketNotifier>(wl_display_get_fd(s.display), QSocketNotifier::Read);
    QObject::connect(s.notifier.get(), &QSocketNotifier::activated, [&s] {
        s.dispatch();
        if (wl_display_get_error(s.display)) {
            Log::warn(QStringLiteral("The connection to the Wayland compositor broke; the clipboard and paste stop "
                                     "working until Quorvane restarts."));
            s.notifier->setEnabled(false);
        }
    });
}

WaylandTextBackend::~WaylandTextBackend() {
    State &s = *m_state;
    if (!s.display)
        return;
    s.notifier.reset();
    s.dropSource();
    s.dropPrimarySource();
    if (s.selection)
        zwlr_data_control_offer_v1_destroy(s.selection);
    if (s.primary)
        zwlr_data_control_offer_v1_destroy(s.primary);
    if (s.incoming)
        zwlr_data_control_offer_v1_destroy(s.incoming);
    if (s.device)
        zwlr_data_control_device_v1_destroy(s.device);
    if (s.keyboard)
        zwp_virtual_keyboard_v1_destroy(s.keyboard);
    if (s.dataControl)
        zwlr_data_control_manager_v1_destroy(s.dataControl);
    if (s.keyboardManager)
        zwp_virtual_keyboard_manager_v1_destroy(s.keyboardManager);
    if (s.seat)
        wl_seat_destroy(s.seat);
    wl_registry_destroy(s.registry);
    wl_display_flush(s.display);
    wl_display_disconnect(s.display);
}

SessionType::WaylandServices WaylandTextBackend::services() const {
    SessionType::WaylandServices services;
    services.connected = m_state->display != nullptr;
    services.clipboardControl = m_state->device != nullptr;
    services.x11Clipboard = m_state->x11 != nullptr;
    services.virtualKeyboard = m_state->keyboard != nullptr;
    return services;
}

bool WaylandTextBackend::isTrusted() {
    // Nothing to be granted here: a missing clipboard or keyboard fails the step that needs it,
    // saying which.
    return m_state->display != nullptr;
}

std::unique_ptr<FocusedElement> WaylandTextBackend::focusedElement() {
    if (const std::optional<qint32> process = m_process ? m_process() : std::nullopt)
        return AtspiFocus::focusedElementOf(*process);
    return AtspiFocus::focusedElementInActiveWindow();
}

std::optional<DesktopTextBackend::ClipboardSnapshot> WaylandTextBackend::readClipboard() {
    State &s = *m_state;
    // XWayland's clipboard is only ever written, never read back, and a broken connection reads
    // nothing: either way what the user has there is unknown.
    if (!s.device || !s.roundtrip())
        return std::nullopt;
    // Our own text or restore is still there: asking ourselves would wait on our own event loop.
    if (s.source)
        return ClipboardSnapshot{s.sourceData};
    const std::optional<ClipboardItem> item = s.read(s.selection, s.selectionTypes);
    if (!item) {
        Log::warn(QStringLiteral("The clipboard's owner did not answer within 300 ms; its content cannot be saved."));
        return std::nullopt;
    }
    if (item->isEmpty())
        return ClipboardSnapshot{};
    return ClipboardSnapshot{*item};
}

bool WaylandTextBackend::offer(const ClipboardItem &formats) {
    State &s = *m_state;
    if (!s.device)
        return s.x11 && s.x11->own(formats);
    s.dropSource();
    s.source = s.makeSource(formats, s.sourceData);
    zwlr_data_control_device_v1_set_selection(s.device, s.source);
    // The selection event our write causes is counted before we return, so the count a caller
    // remembers now moves only when someone else copies.
    return s.roundtrip() && s.source;
}

namespace {

DesktopTextBackend::ClipboardItem textFormats(const QByteArray &utf8) {
    return {{QStringLiteral("text/plain;charset=utf-8"), utf8},
            {QStringLiteral("text/plain"), utf8},
            {QStringLiteral("UTF8_STRING"), utf8},
            {QStringLiteral("TEXT"), utf8},
            {QStringLiteral("STRING"), utf8}};
}

} // namespace

bool WaylandTextBackend::writeText(const QString &text) {
    const QByteArray utf8 = text.toUtf8();
    if (!offer(textFormats(utf8)))
        return false;
    const QString destination = m_destination ? m_destination() : QString();
    if (pasteChordFor(destination, destination) == PasteChord::shiftInsert)
        takePrimary(utf8);
    return true;
}

// xterm-likes paste the primary selection with Shift+Insert, so the text goes there too; what it
// held is saved first and comes back with the clipboard.
void WaylandTextBackend::takePrimary(const QByteArray &utf8) {
    State &s = *m_state;
    if (!s.device || s.dataControlVersion < 2)
        return;
    // Held by us already: what we saved the first time is still the user's.
    if (!s.primarySource)
        s.primarySaved = s.read(s.primary, s.primaryTypes);
    s.dropPrimarySource();
    s.primarySource = s.makeSource(textFormats(utf8), s.primaryData);
    zwlr_data_control_device_v1_set_primary_selection(s.device, s.primarySource);
    s.roundtrip();
}

void WaylandTextBackend::writeClipboard(const ClipboardSnapshot &items) {
    State &s = *m_state;
    if (!s.device && s.x11 && items.isEmpty())
        s.x11->release();
    if (!s.device && items.isEmpty())
        return;
    if (s.primarySource) {
        const std::optional<ClipboardItem> saved = std::exchange(s.primarySaved, std::nullopt);
        s.dropPrimarySource();
        if (saved && !saved->isEmpty())
            s.primarySource = s.makeSource(*saved, s.primaryData);
        // Nothing read back leaves the selection empty rather than holding our text.
        zwlr_data_control_device_v1_set_primary_selection(s.device, s.primarySource);
    }
    if (items.isEmpty()) {
        s.dropSource();
        zwlr_data_control_device_v1_set_selection(s.device, nullptr);
        s.roundtrip();
        return;
    }
    // A Wayland selection is one item; should several come, the first to name a format wins.
    ClipboardItem merged;
    for (const ClipboardItem &item : items)
        for (const auto &entry : item)
            if (std::none_of(merged.begin(), merged.end(), [&](const auto &pair) { return pair.first == entry.first; }))
                merged.append(entry);
    offer(merged);
}

qint64 WaylandTextBackend::changeCount() {
    if (!m_state->device && m_state->x11)
        return m_state->x11->changeCount();
    m_state->dispatch();
    return m_state->changeCount;
}

bool WaylandTextBackend::postPasteChord() {
    if (!m_state->keyboard)
        return false;
    const QString destination = m_destination ? m_destination() : QString();
    const auto chord = pasteChordFor(destination, destination);
    QList<quint32> modifiers;
    quint32 mask = 0;
    if (chord == PasteChord::shiftInsert) {
        modifiers = {KEY_LEFTSHIFT};
        mask = m_state->shiftMask;
    } else {
        modifiers = {KEY_LEFTCTRL};
        mask = m_state->controlMask;
        if (chord == PasteChord::ctrlShiftV)
            modifiers.append(KEY_LEFTSHIFT), mask |= m_state->shiftMask;
    }
    return tap(modifiers, mask, chord == PasteChord::shiftInsert ? KEY_INSERT : KEY_V);
}

bool WaylandTextBackend::pressReturn() {
    return m_state->keyboard && tap({}, 0, KEY_ENTER);
}

bool WaylandTextBackend::tap(const QList<quint32> &modifiers, quint32 mask, quint32 key) {
    State &s = *m_state;
    // Our keyboard becomes the seat's active one with this, and the focused client is handed our
    // keymap before any key.
    zwp_virtual_keyboard_v1_modifiers(s.keyboard, 0, 0, 0, 0);
    if (!s.roundtrip())
        return false;
    const quint32 time = nowMs();
    for (const quint32 modifier : modifiers)
        zwp_virtual_keyboard_v1_key(s.keyboard, time, modifier, WL_KEYBOARD_KEY_STATE_PRESSED);
    zwp_virtual_keyboard_v1_modifiers(s.keyboard, mask, 0, 0, 0);
    zwp_virtual_keyboard_v1_key(s.keyboard, time, key, WL_KEYBOARD_KEY_STATE_PRESSED);
    zwp_virtual_keyboard_v1_key(s.keyboard, time, key, WL_KEYBOARD_KEY_STATE_RELEASED);
    for (auto modifier = modifiers.crbegin(); modifier != modifiers.crend(); ++modifier)
        zwp_virtual_keyboard_v1_key(s.keyboard, time, *modifier, WL_KEYBOARD_KEY_STATE_RELEASED);
    zwp_virtual_keyboard_v1_modifiers(s.keyboard, 0, 0, 0, 0);
    return s.roundtrip();
}
