# The Debian package (cpack -G DEB in a build tree; tools/package does it).
# Library dependencies come from dpkg-shlibdeps; what the program loads at run
# time without linking it (Qt's platform and SVG plugins come with the
# libraries it links) is named here: a font for the panel's text.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tobrin)
set(CPACK_PACKAGE_VENDOR "Tobrin")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Velocity-sensitive mechanical-keyboard sounds while you type")
set(CPACK_PACKAGE_DESCRIPTION
    "Tobrin lives in the tray and plays a mechanical-keyboard sound for every key you type in any application, with five built-in synthesized sound packs.")
set(CPACK_PACKAGE_CONTACT "Tobrin maintainers <maintainers@users.noreply.c-seed-b9311361.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "fonts-dejavu-core | fonts-freefont-ttf")
# A sound server to play through, the icon theme the menu entry's icon sits
# in, and Qt's Wayland platform (without it the panel goes through XWayland).
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "pipewire-pulse | pulseaudio, hicolor-icon-theme, qt6-wayland")
# tobrin-pack build runs the ffmpeg program to convert recordings; nothing
# else needs it.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "ffmpeg")
include(CPack)
