#include "platform/mac/MacTextInjector.h"

#import <AppKit/AppKit.h>
#import <ApplicationServices/ApplicationServices.h>

namespace {

constexpr CGKeyCode keyV = 9;

class AXFocusedElement final : public FocusedElement {
public:
    // Takes over the reference.
    explicit AXFocusedElement(AXUIElementRef element) : m_element(element) {}
    ~AXFocusedElement() override { CFRelease(m_element); }
    AXFocusedElement(const AXFocusedElement &) = delete;
    AXFocusedElement &operator=(const AXFocusedElement &) = delete;

    QStringList roles() override {
        QStringList roles;
        for (CFStringRef attribute : {kAXRoleAttribute, kAXSubroleAttribute})
            if (const std::optional<QString> role = text(attribute))
                roles << *role;
        return roles;
    }

    std::optional<QString> selectedText() override { return text(kAXSelectedTextAttribute); }

    bool isSelectionSettable() override { return settable(kAXSelectedTextAttribute) || settable(kAXValueAttribute); }

    std::optional<qint64> processID() override {
        pid_t pid = 0;
        if (AXUIElementGetPid(m_element, &pid) != kAXErrorSuccess)
            return std::nullopt;
        return pid;
    }

    std::optional<TextSelectionRange> selectedRange() override {
        CFTypeRef value = nullptr;
        if (AXUIElementCopyAttributeValue(m_element, kAXSelectedTextRangeAttribute, &value) != kAXErrorSuccess ||
            !value)
            return std::nullopt;
        CFRange range{};
        const bool read = CFGetTypeID(value) == AXValueGetTypeID() &&
                          AXValueGetValue(static_cast<AXValueRef>(value), kAXValueTypeCFRange, &range);
        CFRelease(value);
        if (!read)
            return std::nullopt;
        return TextSelectionRange{range.location, range.length};
    }

private:
    std::optional<QString> text(CFStringRef attribute) {
        CFTypeRef value = nullptr;
        if (AXUIElementCopyAttributeValue(m_element, attribute, &value) != kAXErrorSuccess || !value)
            return std::nullopt;
        std::optional<QString> result;
        if (CFGetTypeID(value) == CFStringGetTypeID())
            result = QString::fromCFString(static_cast<CFStringRef>(value));
        CFRelease(value);
        return result;
    }

    bool settable(CFStringRef attribute) {
        Boolean isSettable = false;
        return AXUIElementIsAttributeSettable(m_element, attribute, &isSettable) == kAXErrorSuccess && isSettable;
    }

    const AXUIElementRef m_element;
};

} // namespace

bool MacTextInjector::isTrusted() {
    return AXIsProcessTrusted();
}

std::unique_ptr<FocusedElement> MacTextInjector::focusedElement() {
    AXUIElementRef systemWide = AXUIElementCreateSystemWide();
    CFTypeRef focused = nullptr;
    const AXError error = AXUIElementCopyAttributeValue(systemWide, kAXFocusedUIElementAttribute, &focused);
    CFRelease(systemWide);
    if (error != kAXErrorSuccess || !focused)
        return nullptr;
    if (CFGetTypeID(focused) != AXUIElementGetTypeID()) {
        CFRelease(focused);
        return nullptr;
    }
    return std::make_unique<AXFocusedElement>(static_cast<AXUIElementRef>(focused));
}

std::optional<DesktopTextBackend::ClipboardSnapshot> MacTextInjector::readClipboard() {
    ClipboardSnapshot snapshot;
    for (NSPasteboardItem *item in NSPasteboard.generalPasteboard.pasteboardItems) {
        ClipboardItem saved;
        for (NSPasteboardType type in item.types) {
            if (NSData *data = [item dataForType:type])
                saved.append({QString::fromNSString(type), QByteArray::fromNSData(data)});
        }
        snapshot.append(saved);
    }
    return snapshot;
}

bool MacTextInjector::writeText(const QString &text) {
    NSPasteboard *pasteboard = NSPasteboard.generalPasteboard;
    [pasteboard clearContents];
    return [pasteboard setString:text.toNSString() forType:NSPasteboardTypeString];
}

void MacTextInjector::writeClipboard(const ClipboardSnapshot &items) {
    NSPasteboard *pasteboard = NSPasteboard.generalPasteboard;
    [pasteboard clearContents];
    if (items.isEmpty())
        return;
    NSMutableArray<NSPasteboardItem *> *objects = [NSMutableArray arrayWithCapacity:NSUInteger(items.size())];
    for (const ClipboardItem &saved : items) {
        NSPasteboardItem *item = [[NSPasteboardItem alloc] init];
        for (const auto &[type, data] : saved)
            [item setData:data.toNSData() forType:type.toNSString()];
        [objects addObject:item];
    }
    [pasteboard writeObjects:objects];
}

qint64 MacTextInjector::changeCount() {
    return qint64(NSPasteboard.generalPasteboard.changeCount);
}

bool MacTextInjector::postPasteChord() {
    CGEventSourceRef source = CGEventSourceCreate(kCGEventSourceStateCombinedSessionState);
    if (!source)
        return false;
    // For a moment after the paste the user's own keystrokes are held back, so they cannot mix
    // into it; the mouse and system events still pass.
    CGEventSourceSetLocalEventsFilterDuringSuppressionState(
        source,
        CGEventFilterMask(kCGEventFilterMaskPermitLocalMouseEvents | kCGEventFilterMaskPermitSystemDefinedEvents),
        kCGEventSuppressionStateSuppressionInterval);
    CGEventRef down = CGEventCreateKeyboardEvent(source, keyV, true);
    CGEventRef up = CGEventCreateKeyboardEvent(source, keyV, false);
    const bool created = down && up;
    if (created) {
        CGEventSetFlags(down, kCGEventFlagMaskCommand);
        CGEventSetFlags(up, kCGEventFlagMaskCommand);
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
