#include "platform/mac/MacHotkey.h"

#import <AppKit/AppKit.h>
#import <CoreGraphics/CoreGraphics.h>

#include <atomic>
#include <pthread.h>
#include <pthread/qos.h>
#include <thread>

struct MacHotkey::Tap {
    static CGEventRef received(CGEventTapProxy, CGEventType type, CGEventRef event, void *context) {
        auto *tap = static_cast<Tap *>(context);
        if (type == kCGEventTapDisabledByTimeout || type == kCGEventTapDisabledByUserInput) {
            tap->events.sourceDisabled();
        } else if (type == kCGEventFlagsChanged) {
            tap->events.keyChanged(int(CGEventGetIntegerValueField(event, kCGKeyboardEventKeycode)),
                                   quint64(CGEventGetFlags(event)));
        }
        // Listen-only: the event goes on unchanged.
        return event;
    }

    void run() {
        pthread_setname_np("com.quorvane.hotkey");
        pthread_set_qos_class_self_np(QOS_CLASS_USER_INTERACTIVE, 0);
        {
            std::lock_guard lock(runLoopLock);
            runLoop = CFRunLoopGetCurrent();
        }
        CFRunLoopAddSource(runLoop, source, kCFRunLoopCommonModes);
        CGEventTapEnable(port, true);
        // Slices, so a stop that comes before the loop runs is still seen within 0.25 s.
        while (!stopping)
            CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0.25, false);
        CFRunLoopRemoveSource(runLoop, source, kCFRunLoopCommonModes);
        std::lock_guard lock(runLoopLock);
        runLoop = nullptr;
    }

    ~Tap() {
        stopping = true;
        {
            std::lock_guard lock(runLoopLock);
            if (runLoop)
                CFRunLoopStop(runLoop);
        }
        if (thread.joinable())
            thread.join();
        if (source)
            CFRelease(source);
        if (port) {
            CGEventTapEnable(port, false);
            CFMachPortInvalidate(port);
            CFRelease(port);
        }
    }

    Events events;
    CFMachPortRef port = nullptr;
    CFRunLoopSourceRef source = nullptr;
    std::atomic<bool> stopping{false};
    std::mutex runLoopLock;
    CFRunLoopRef runLoop = nullptr;
    std::thread thread;
};

MacHotkey::MacHotkey() = default;

MacHotkey::~MacHotkey() {
    stop();
}

bool MacHotkey::start(Events events) {
    stop();
    auto tap = std::make_unique<Tap>();
    tap->events = std::move(events);
    tap->port = CGEventTapCreate(kCGSessionEventTap, kCGHeadInsertEventTap, kCGEventTapOptionListenOnly,
                                 CGEventMaskBit(kCGEventFlagsChanged), &Tap::received, tap.get());
    if (!tap->port)
        return false; // no Accessibility permission
    tap->source = CFMachPortCreateRunLoopSource(kCFAllocatorDefault, tap->port, 0);
    if (!tap->source)
        return false;
    Tap *raw = tap.get();
    std::lock_guard lock(m_lock);
    m_tap = std::move(tap);
    // Started once stored, so that a tap the system disables at once is found by reenable().
    raw->thread = std::thread([raw] { raw->run(); });
    return true;
}

void MacHotkey::stop() {
    std::unique_ptr<Tap> tap;
    {
        std::lock_guard lock(m_lock);
        tap = std::move(m_tap);
    }
    // Joined outside the lock: the event thread may be inside reenable().
    tap.reset();
}

void MacHotkey::reenable() {
    std::lock_guard lock(m_lock);
    if (m_tap)
        CGEventTapEnable(m_tap->port, true);
}

quint64 MacHotkey::liveFlags() {
    return quint64(CGEventSourceFlagsState(kCGEventSourceStateCombinedSessionState));
}

void MacHotkey::openAccessibilitySettings() {
    NSURL *url = [NSURL URLWithString:@"x-apple.systempreferences:com.apple.preference.security?Privacy_Accessibility"];
    if (url)
        [[NSWorkspace sharedWorkspace] openURL:url];
}
