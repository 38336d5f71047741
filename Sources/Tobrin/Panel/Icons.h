#pragma once

// The panel's and the tray's icons: the desktop theme's icon of a freedesktop
// name when the theme has one, else the drawing bundled with Tobrin, tinted
// with the colour of the text it stands beside (so it follows a light or
// dark palette).

#include <QColor>
#include <QIcon>
#include <QString>

namespace tobrin::app::Icons {

// "input-keyboard", "audio-volume-low", "audio-volume-high",
// "media-playback-start" or "dialog-warning".
QIcon named(const QString& name, const QColor& color);

// The keyboard of the tray and the panel's header: plain while sounds play;
// faded and struck through while they are off or paused.
QIcon keyboard(bool playing, const QColor& color);

// Tobrin's own application icon ("tobrin").
QIcon application();

} // namespace tobrin::app::Icons
