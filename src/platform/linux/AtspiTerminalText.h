#pragma once

#include <QString>
#include <optional>

// The screen of a terminal emulator as it publishes it through AT-SPI, whatever the display
// server. Call on the main thread.
namespace AtspiTerminalText {

// The text of the terminal widget in the active window of process `processID`; absent when AT-SPI
// is off or the application publishes no terminal text.
std::optional<QString> read(qint32 processID);

} // namespace AtspiTerminalText
