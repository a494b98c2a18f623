#pragma once

#include "core/Config.h"

// The Linux names (desktop-entry IDs, and the window class where no entry matches) of the
// applications the default style rules name by their macOS bundle IDs, with the same styles.
QList<AppRule> linuxAppRules();
