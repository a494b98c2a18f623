#include "platform/mac/MacFrontmostApp.h"

#import <AppKit/AppKit.h>

FrontmostApp MacFrontmostApp::frontmostApp() {
    NSRunningApplication *application = NSWorkspace.sharedWorkspace.frontmostApplication;
    if (!application)
        return {};
    FrontmostApp app;
    if (NSString *name = application.localizedName)
        app.name = QString::fromNSString(name);
    if (NSString *bundleID = application.bundleIdentifier)
        app.bundleID = QString::fromNSString(bundleID);
    // -1 when the application has no process of its own.
    if (application.processIdentifier > 0)
        app.processID = qint32(application.processIdentifier);
    return app;
}
