#include "platform/PlatformKitFactory.h"

#include "formatting/FoundationModelFormatter.h"
#include "platform/mac/MacFocusedDocumentSource.h"
#include "platform/mac/MacOnDeviceModel.h"
#include "platform/mac/MacProcessTreeSource.h"
#include "repository/RepositoryContextProvider.h"

PlatformKit makePlatformKit(const Config &config) {
    PlatformKit kit = PlatformKit::fallbacks();
    kit.capture = kit.makeCapture(config);

    // Wired last, against the frontmost-app service the kit ends up with.
    std::weak_ptr<FrontmostAppProvider> frontmost = kit.frontmostApp;
    kit.repositoryContext = std::make_shared<RepositoryContextProvider>(
        std::make_shared<MacProcessTreeSource>(), std::make_shared<MacFocusedDocumentSource>(),
        [frontmost]() -> std::optional<qint32> {
            if (auto provider = frontmost.lock())
                return provider->frontmostApp().processID;
            return std::nullopt;
        });
    kit.nativeFormatter = []() -> std::unique_ptr<TextFormatter> {
        return std::make_unique<FoundationModelFormatter>(std::make_shared<MacOnDeviceModel>());
    };
    return kit;
}
