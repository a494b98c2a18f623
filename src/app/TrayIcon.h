#pragma once

#include "pipeline/PipelineState.h"

#include <QIcon>

// The tray's microphone, drawn at run time so the tray needs no image files: plain when idle (a
// mask, so the desktop tints it), red while recording, amber while thinking, with a red mark on error.
QIcon trayIcon(PipelineState::Kind state);
