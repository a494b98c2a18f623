#pragma once

#include <QString>

// The keystroke the destination takes as "paste".
enum class PasteChord { ctrlV, ctrlShiftV, shiftInsert };

// By the destination's application class and instance: X11's WM_CLASS, or a Wayland app_id given
// as both.
PasteChord pasteChordFor(const QString &applicationClass, const QString &instance);
