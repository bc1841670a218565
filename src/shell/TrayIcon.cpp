#include "shell/TrayIcon.h"

#include <QPainter>
#include <QSvgRenderer>

namespace TrayIcon {

QPixmap pixmap(int size, qreal devicePixelRatio)
{
    // Rendered here rather than through an icon-engine plugin, so the icon
    // is there wherever the program runs.
    QSvgRenderer renderer(QStringLiteral(":/trayIcon"));
    const int pixels = qRound(size * devicePixelRatio);
    QPixmap result(pixels, pixels);
    result.fill(Qt::transparent);
    QPainter painter(&result);
    renderer.render(&painter);
    painter.end();
    result.setDevicePixelRatio(devicePixelRatio);
    return result;
}

QIcon icon()
{
    QIcon result;
    for (int size : {16, 22, 24, 32, 48, 64, 128})
        result.addPixmap(pixmap(size));
    return result;
}

} // namespace TrayIcon
