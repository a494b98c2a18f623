#include "platform/PlatformKitFactory.h"

#include "platform/FocusedDocumentSource.h"
#include "platform/linux/PocketSphinxEngine.h"
#include "platform/linux/ProcProcessTreeSource.h"
#include "repository/RepositoryContextProvider.h"

PlatformKit makePlatformKit(const Config &config) {
    PlatformKit kit = PlatformKit::fallbacks();
    kit.pasteShortcut = QStringLiteral("Ctrl+V");
    kit.capture = kit.makeCapture(config);
    // Speech with nothing to set up: a missing model or another language is reported when it prepares.
    kit.nativeAsrEngine = [](const QString &locale) -> std::unique_ptr<AsrEngine> {
        return std::make_unique<PocketSphinxEngine>(locale);
    };

    // Wired last, against the frontmost-app service the kit ends up with; held weakly because the
    // kit, not the repository provider, owns it.
    std::weak_ptr<FrontmostAppProvider> frontmost = kit.frontmostApp;
    kit.repositoryContext = std::make_shared<RepositoryContextProvider>(
        std::make_shared<ProcProcessTreeSource>(), std::make_shared<UnsupportedFocusedDocumentSource>(),
        [frontmost]() -> std::optional<qint32> {
            if (auto provider = frontmost.lock())
                return provider->frontmostApp().processID;
            return std::nullopt;
        });
    return kit;
}
