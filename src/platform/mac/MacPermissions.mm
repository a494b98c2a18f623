#include "platform/mac/MacPermissions.h"

#include "platform/mac/MacHotkey.h"

#import <AVFoundation/AVFoundation.h>
#import <AppKit/AppKit.h>
#import <ApplicationServices/ApplicationServices.h>

DesktopPermissions::State MacPermissions::microphone() {
    switch ([AVCaptureDevice authorizationStatusForMediaType:AVMediaTypeAudio]) {
    case AVAuthorizationStatusAuthorized:
        return State::granted;
    case AVAuthorizationStatusNotDetermined:
        return State::undetermined;
    default:
        return State::denied;
    }
}

void MacPermissions::requestMicrophone(std::function<void(bool granted)> done) {
    [AVCaptureDevice requestAccessForMediaType:AVMediaTypeAudio
                             completionHandler:^(BOOL granted) {
                               done(granted);
                             }];
}

bool MacPermissions::accessibilityTrusted() {
    return AXIsProcessTrusted();
}

void MacPermissions::openMicrophoneSettings() {
    NSURL *url = [NSURL URLWithString:@"x-apple.systempreferences:com.apple.preference.security?Privacy_Microphone"];
    if (url)
        [[NSWorkspace sharedWorkspace] openURL:url];
}

void MacPermissions::openAccessibilitySettings() {
    // Asking with the prompt option adds Quorvane to the Accessibility list, so the user finds a
    // switch there instead of having to add the app by hand.
    NSDictionary *options = @{(__bridge NSString *)kAXTrustedCheckOptionPrompt : @YES};
    AXIsProcessTrustedWithOptions((__bridge CFDictionaryRef)options);
    MacHotkey::openAccessibilitySettings();
}
