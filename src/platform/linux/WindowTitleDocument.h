#pragma once

#include <QString>
#include <optional>

// The file or folder an editor or terminal names in its window title, for titles that show a path:
//   "notes.txt (~/src/app) - gedit"              (also pluma, xed)
//   "main.cpp + (~/src/app) - VIM", "… - Nvim"   (vim's and neovim's default titles)
//   "/home/me/src/app/main.cpp - app - Visual Studio Code" (a title set to show the full path)
//   "me@host: ~/src/app"                         (the title bash and zsh give terminals)
// A leading "~" is the home folder. Titles naming only a file or a folder's name give nothing: a
// name alone cannot be placed.
namespace WindowTitleDocument {

std::optional<QString> path(const QString &title, const QString &homeDirectory);

} // namespace WindowTitleDocument
