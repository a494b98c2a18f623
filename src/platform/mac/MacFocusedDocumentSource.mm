#include "platform/mac/MacFocusedDocumentSource.h"

#import <ApplicationServices/ApplicationServices.h>
#import <Foundation/Foundation.h>

std::optional<QString> MacFocusedDocumentSource::focusedDocumentPath(qint32 processID) {
    AXUIElementRef application = AXUIElementCreateApplication(static_cast<pid_t>(processID));
    if (!application)
        return std::nullopt;
    CFTypeRef window = nullptr;
    const AXError windowError = AXUIElementCopyAttributeValue(application, kAXFocusedWindowAttribute, &window);
    CFRelease(application);
    if (windowError != kAXErrorSuccess || !window)
        return std::nullopt;
    CFTypeRef document = nullptr;
    const AXError documentError =
        AXUIElementCopyAttributeValue(static_cast<AXUIElementRef>(window), kAXDocumentAttribute, &document);
    CFRelease(window);
    if (documentError != kAXErrorSuccess || !document)
        return std::nullopt;
    // The attribute is a URL string ("file:///Users/…"); anything but a local file is no help.
    std::optional<QString> path;
    if (CFGetTypeID(document) == CFStringGetTypeID()) {
        NSURL *url = [NSURL URLWithString:(__bridge NSString *)document];
        if (url.isFileURL && url.path)
            path = QString::fromNSString(url.path);
    }
    CFRelease(document);
    return path;
}
