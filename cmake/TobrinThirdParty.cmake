# Every third-party library the project builds against, found once. Each target
# links by name exactly the ones it uses (see the layers' CMakeLists).
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(nlohmann_json 3.10 REQUIRED)
pkg_check_modules(SNDFILE REQUIRED IMPORTED_TARGET GLOBAL sndfile)
pkg_check_modules(SOXR REQUIRED IMPORTED_TARGET GLOBAL soxr)
# Collation and case mapping that follow Unicode and the user's locale.
pkg_check_modules(ICU REQUIRED IMPORTED_TARGET GLOBAL icu-uc icu-i18n)
# Key capture and the global shortcut: XCB with XInput 2 and XKB (X11), libudev
# (evdev keyboards), libxkbcommon (layouts) and GIO (GNOME's shortcut settings).
pkg_check_modules(XCB REQUIRED IMPORTED_TARGET GLOBAL xcb xcb-xinput xcb-xkb)
pkg_check_modules(XKBCOMMON REQUIRED IMPORTED_TARGET GLOBAL xkbcommon xkbcommon-x11)
pkg_check_modules(UDEV REQUIRED IMPORTED_TARGET GLOBAL libudev)
pkg_check_modules(GIO REQUIRED IMPORTED_TARGET GLOBAL gio-2.0)
# Zipped community packs, read entry by entry by the importer.
pkg_check_modules(LIBARCHIVE REQUIRED IMPORTED_TARGET GLOBAL libarchive)
# Downloads of recordings (http, https, file) for packs built from them.
pkg_check_modules(CURL REQUIRED IMPORTED_TARGET GLOBAL libcurl)
if(TOBRIN_TESTS OR TOBRIN_BENCHMARKS)
  # The independent loudness meter the tests and benchmarks compare against.
  pkg_check_modules(EBUR128 REQUIRED IMPORTED_TARGET GLOBAL libebur128)
  # Keys typed into a private X server.
  pkg_check_modules(XCB_XTEST REQUIRED IMPORTED_TARGET GLOBAL xcb-xtest)
  # A recording made by the test process itself (the mic watch ignores its own);
  # also used by the microphone benchmark.
  pkg_check_modules(PULSE_SIMPLE REQUIRED IMPORTED_TARGET GLOBAL libpulse-simple)
endif()

# Standalone Asio is header-only. Its configuration travels with this target:
# Asio picks aligned_alloc/free or operator new/delete by whether a standard
# header came before its own, so without one definition for every user two
# files could disagree and one free what the other allocated.
find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)
add_library(TobrinAsio INTERFACE)
add_library(Tobrin::Asio ALIAS TobrinAsio)
target_include_directories(TobrinAsio SYSTEM INTERFACE ${ASIO_INCLUDE_DIR})
target_compile_definitions(TobrinAsio INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED ASIO_HAS_STD_ALIGNED_ALLOC=1)
target_link_libraries(TobrinAsio INTERFACE Threads::Threads)

# Sound servers, linked only by the audio backends' leaf targets.
pkg_check_modules(PIPEWIRE REQUIRED IMPORTED_TARGET GLOBAL libpipewire-0.3)
pkg_check_modules(PULSE REQUIRED IMPORTED_TARGET GLOBAL libpulse)

# The tray application: Qt 6 Widgets for the panel, DBus for the system's wake
# signal, Network for the single-instance socket, Svg for the bundled icons.
# Only Sources/Tobrin links it (and its tests, which drive the panel with Test).
find_package(Qt6 6.4 REQUIRED COMPONENTS Core Gui Widgets DBus Network Svg Test)
