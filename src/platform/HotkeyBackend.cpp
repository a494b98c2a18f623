#include "platform/HotkeyBackend.h"

PhysicalKey PhysicalKey::x11(PushToTalkKey key) {
    switch (key) {
    case PushToTalkKey::rightOption:
        return {108, 1, QStringLiteral("Right Alt")};
    case PushToTalkKey::rightCommand:
        return {134, 2, QStringLiteral("Right Super")};
    case PushToTalkKey::fn:
        return {105, 4, QStringLiteral("Right Ctrl")};
    }
    return {};
}
