# Installs the program, its desktop entry and icon, and describes the .deb that `cpack` builds from
# them (scripts/package).
include(GNUInstallDirs)

install(TARGETS quorvane RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${CMAKE_CURRENT_LIST_DIR}/quorvane.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
set(QUORVANE_ICON_THEME ${CMAKE_INSTALL_DATADIR}/icons/hicolor)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/icons/quorvane.svg DESTINATION ${QUORVANE_ICON_THEME}/scalable/apps)
foreach(size 16 22 24 32 48 64 128 256)
    install(FILES ${CMAKE_CURRENT_LIST_DIR}/icons/quorvane-${size}.png
        DESTINATION ${QUORVANE_ICON_THEME}/${size}x${size}/apps RENAME quorvane.png)
endforeach()

# Packaging needs only the program: tests and benchmarks are not built for it.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quorvane)
set(CPACK_PACKAGE_VENDOR Quorvane)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "private push-to-talk dictation")
set(CPACK_PACKAGE_DESCRIPTION
    "Hold a key, speak, let go: Quorvane transcribes the speech on this computer and pastes the text into the application in front. It lives in the tray of an X11 desktop and needs no server: PocketSphinx and its US English model recognise speech out of the box; a whisper.cpp server and Ollama on this machine can be added for accuracy and clean-up.")
set(CPACK_PACKAGE_CONTACT "Quorvane developers <packages@quorvane.invalid>" CACHE STRING "Maintainer field of the .deb")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
# Shared libraries are found by dpkg-shlibdeps; what the program loads or reads at run time is named
# here: Qt's X11 platform plugin and the recogniser's English model.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "qt6-qpa-plugins, pocketsphinx-en-us")
# Reading the selection needs the accessibility bus, the microphone a sound server, and a Wayland
# session Qt's Wayland plugin and the keyboard layouts the paste chord's keymap is built from; a desktop
# session normally has them all.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "at-spi2-core, pulseaudio | pipewire-pulse, qt6-wayland, xkb-data")
include(CPack)
