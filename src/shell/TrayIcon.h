#pragma once

#include <QIcon>
#include <QPixmap>

// The "trayIcon" image: our own SVG, rendered at the sizes panels ask for.
namespace TrayIcon {

QIcon icon();
QPixmap pixmap(int size, qreal devicePixelRatio = 1.0);

} // namespace TrayIcon
