#pragma once

class QImage;
class QString;
class QWidget;

namespace Utils {

// Paints `source` into `destination`, scaled to fit inside it less `margin` pixels in each
// dimension, aspect ratio kept, centred. Reentrant: any thread, on images it owns.
void drawImageCentered(const QImage& source, QImage& destination, int margin);

// Restores (`restore` true) or saves a top-level window's geometry and maximised state
// under the keys "geometry_<name>" and "is_maximized_<name>". GUI thread only.
void updateWindowGeometry(QWidget* widget, bool restore, const QString& name);

} // namespace Utils
