#include "platform/HotkeyBackend.h"

PhysicalKey PhysicalKey::mac(PushToTalkKey key) {
    // The device-dependent right-hand bits, so the left-hand twin never triggers.
    switch (key) {
    case PushToTalkKey::rightOption:
        return {61, 0x40, ::displayName(key)};
    case PushToTalkKey::rightCommand:
        return {54, 0x10, ::displayName(key)};
    case PushToTalkKey::fn:
        break;
    }
    return {63, 0x800000, ::displayName(key)};
}

PhysicalKey PhysicalKey::x11(PushToTalkKey key) {
    // No Fn key reaches X11, so fn maps to Right Ctrl.
    switch (key) {
    case PushToTalkKey::rightOption:
        return {108, 1, QStringLiteral("Right Alt")};
    case PushToTalkKey::rightCommand:
        return {134, 2, QStringLiteral("Right Super")};
    case PushToTalkKey::fn:
        break;
    }
    return {105, 4, QStringLiteral("Right Ctrl")};
}

QString HotkeyBackend::eventTapRefused() {
    return QStringLiteral(
        "Could not create the event tap \u2014 Accessibility permission is almost certainly missing.");
}
