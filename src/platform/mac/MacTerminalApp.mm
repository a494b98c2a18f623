#include "platform/mac/MacTerminalApp.h"

#import <ApplicationServices/ApplicationServices.h>

namespace {

constexpr CGKeyCode keyReturn = 36;

// The attribute's value if it is an element (owned by the caller), else null.
AXUIElementRef copyElement(AXUIElementRef element, CFStringRef attribute) {
    CFTypeRef value = nullptr;
    if (AXUIElementCopyAttributeValue(element, attribute, &value) != kAXErrorSuccess || !value)
        return nullptr;
    if (CFGetTypeID(value) != AXUIElementGetTypeID()) {
        CFRelease(value);
        return nullptr;
    }
    return static_cast<AXUIElementRef>(value);
}

std::optional<QString> copyText(AXUIElementRef element, CFStringRef attribute) {
    CFTypeRef value = nullptr;
    if (AXUIElementCopyAttributeValue(element, attribute, &value) != kAXErrorSuccess || !value)
        return std::nullopt;
    std::optional<QString> text;
    if (CFGetTypeID(value) == CFStringGetTypeID())
        text = QString::fromCFString(static_cast<CFStringRef>(value));
    CFRelease(value);
    return text;
}

} // namespace

std::optional<QString> MacTerminalApp::screenText(qint32) {
    AXUIElementRef systemWide = AXUIElementCreateSystemWide();
    AXUIElementRef focused = copyElement(systemWide, kAXFocusedUIElementAttribute);
    CFRelease(systemWide);
    if (!focused)
        return std::nullopt;
    // Terminal's text area holds the screen and scrollback; the window title names the running command.
    const std::optional<QString> value = copyText(focused, kAXValueAttribute);
    std::optional<QString> title;
    if (AXUIElementRef window = copyElement(focused, kAXWindowAttribute)) {
        title = copyText(window, kAXTitleAttribute);
        CFRelease(window);
    }
    CFRelease(focused);
    if (!value && !title)
        return std::nullopt;
    return value.value_or(QString()) + QLatin1Char('\n') + title.value_or(QString());
}

bool MacTerminalApp::pressReturn() {
    CGEventSourceRef source = CGEventSourceCreate(kCGEventSourceStateCombinedSessionState);
    if (!source)
        return false;
    CGEventRef down = CGEventCreateKeyboardEvent(source, keyReturn, true);
    CGEventRef up = CGEventCreateKeyboardEvent(source, keyReturn, false);
    const bool created = down && up;
    if (created) {
        // A plain Return, whatever modifiers the source reports as held.
        CGEventSetFlags(down, CGEventFlags(0));
        CGEventSetFlags(up, CGEventFlags(0));
        CGEventPost(kCGHIDEventTap, down);
        CGEventPost(kCGHIDEventTap, up);
    }
    if (down)
        CFRelease(down);
    if (up)
        CFRelease(up);
    CFRelease(source);
    return created;
}
