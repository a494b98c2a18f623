#include "pipeline/PlatformKit.h"

PlatformKit PlatformKit::fallbacks() {
    PlatformKit kit;
    kit.hotkey = [](PushToTalkKey) { return std::make_unique<UnsupportedHotkey>(); };
    kit.capture = std::make_shared<UnsupportedCapture>();
    kit.injector = std::make_shared<UnsupportedTextInjector>();
    kit.frontmostApp = std::make_shared<UnknownFrontmostApp>();
    kit.notifier = std::make_shared<ConsoleNotifier>();
    return kit;
}
