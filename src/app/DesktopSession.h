#pragma once

#include <QApplication>
#include <memory>

// Opens the GUI application. Without a display Qt would abort with advice to reinstall; instead this
// prints one line saying a desktop session is needed and exits with `noDesktopStatus`.
namespace DesktopSession {

constexpr int noDesktopStatus = 1;

std::unique_ptr<QApplication> open(int &argc, char **argv);

} // namespace DesktopSession
