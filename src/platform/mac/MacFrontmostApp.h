#pragma once

#include "platform/TextInjection.h"

// The workspace's frontmost application.
class MacFrontmostApp final : public FrontmostAppProvider {
public:
    FrontmostApp frontmostApp() override;
};
