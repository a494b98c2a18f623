#include "platform/ApplicationPresence.h"

#import <AppKit/AppKit.h>

namespace ApplicationPresence {
void configure() {
    // Accessory: no Dock icon and no main menu; the application lives in the menu bar.
    [NSApp setActivationPolicy:NSApplicationActivationPolicyAccessory];
}
} // namespace ApplicationPresence
